"""Proves that each check finds its fault and leaves a clean tree alone: test_check_style.py."""
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

CHECKER = Path(__file__).with_name("check_style.py")
CLEAN = {
    "CMakeLists.txt": "add_executable(a core/utils.cpp)\n",
    "core/utils.h": "#pragma once\n",
    "core/utils.cpp": '#include "core/utils.h"\n\nint one() {\n    return 1;\n}\n',
    "tests/tidy/levels.txt": "core/utils 1\n",
    "tests/tidy/exceptions.txt": "# path kind limit why\n",
}


def run(mode, changes):
    with tempfile.TemporaryDirectory() as folder:
        for name, text in {**CLEAN, **changes}.items():
            path = Path(folder, name)
            path.parent.mkdir(parents=True, exist_ok=True)
            path.write_text(text, encoding="utf-8")
        done = subprocess.run([sys.executable, "-B", str(CHECKER), mode, "--root", folder],
                              stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, check=False)
        return done.returncode, done.stdout.decode()


def function_of(lines):
    return "int f() {\n" + "    g();\n" * (lines - 2) + "}\n"


# mode, the changes that break the tree, a piece of the finding
FAULTS = (
    ("lines", {"core/utils.h": "// " + "x" * 98 + "\n"}, "101 columns"),
    ("lines", {"core/utils.h": "\tint x;\n"}, "a tab"),
    ("lines", {"core/utils.h": "int x; \n"}, "blanks at the end"),
    ("lines", {"core/utils.h": "int x;"}, "no line feed"),
    ("sizes", {"core/utils.h": "\n" * 101}, "101 lines, at most 100"),
    ("sizes", {"core/utils.cpp": "\n" * 401}, "401 lines, at most 400"),
    ("sizes", {"core/utils.cpp": function_of(71)}, "f has 71 lines"),
    ("sizes", {"core/utils.cpp": "static int\nlong_one(int a,\n    int b)\n" + "{\n"
               + "    g();\n" * 70 + "}\n"}, "long_one has"),
    ("sizes", {"tests/tidy/exceptions.txt": "core/utils.h lines 120 why\n"}, "not needed"),
    ("levels", {"core/args.h": "\n"}, "core/args has no row"),
    ("levels", {"core/a.h": "\n", "core/utils.h": '#include "core/a.h"\n',
                "tests/tidy/levels.txt": "core/utils 1\ncore/a 1\n"}, "level 1 includes"),
    ("levels", {"ruv/a.h": '#include "core/utils.h"\n',
                "tests/tidy/levels.txt": "core/utils 1\nruv/a 5\n"}, "nothing outside itself"),
    ("levels", {"tests/tidy/levels.txt": "core/utils 1\ncore/gone 2\n"}, "no such module"),
    ("levels", {"core/utils.cpp": '#include "utils.h"\n'}, "no path from the root"),
    ("thirdparty", {"core/utils.h": "#include <openssl/ssl.h>\n"}, "OpenSSL"),
    ("thirdparty", {"core/utils.h": "#include <dlfcn.h>\n"}, "dlfcn"),
    ("thirdparty", {f"filetail/{n}.cpp": "#include <pcre.h>\n" for n in "abc"}, "in 3 files"),
    ("words", {"README.md": "as Part " + "1.2 says\n"}, "README.md:1"),
    ("words", {"core/utils.h": "// see the " + "spec\n"}, "core/utils.h:1"),
    ("links", {"README.md": "see [this](docs/gone.md)\n"}, "links to docs/gone.md"),
    ("links", {"README.md": "see `docs/gone.md`\n"}, "names docs/gone.md"),
    ("dead", {"core/lost.cpp": "\n"}, "no CMakeLists.txt builds"),
    ("dead", {"core/lost.h": "\n"}, "nothing includes"),
)


class CheckStyle(unittest.TestCase):
    def test_a_clean_tree_passes(self):
        for mode in ("lines", "sizes", "levels", "thirdparty", "words", "links", "dead"):
            status, output = run(mode, {})
            self.assertEqual((status, output.count("\n")), (0, 1), output)

    def test_each_fault_is_found(self):
        for mode, changes, text in FAULTS:
            with self.subTest(mode=mode, text=text):
                status, output = run(mode, changes)
                self.assertEqual(status, 1, output)
                self.assertIn(text, output)

    def test_an_exception_with_a_reason_is_granted(self):
        status, output = run("sizes", {
            "core/utils.h": "\n" * 110,
            "tests/tidy/exceptions.txt": "core/utils.h lines 110 one table of rows\n"})
        self.assertEqual(status, 0, output)

    def test_format_finds_what_the_tool_would_change(self):
        status, output = run("format", {"core/utils.cpp": "int   x;\n",
                                        ".clang-format": "BasedOnStyle: Google\n"})
        if status == 77:
            self.skipTest(output)
        self.assertEqual(status, 1, output)
        self.assertIn("core/utils.cpp:1", output)


if __name__ == "__main__":
    unittest.main()
