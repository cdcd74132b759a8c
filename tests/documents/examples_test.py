"""The documents' examples work: configurations are clean, files exist, shell blocks parse."""

import pathlib
import re
import shutil
import subprocess
import sys
import tempfile
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "support"))
from first_commands import first_commands  # noqa: E402
from programs import fenced, indented  # noqa: E402

BIN = pathlib.Path(sys.argv.pop(1))
ROOT = pathlib.Path(__file__).resolve().parents[2]
DOCUMENTS = sorted([*ROOT.glob("*.md"), *ROOT.glob("docs/*.md"), *ROOT.glob("tools/**/*.md")])
# What a fragment of a configuration is completed with before it is checked.
HEAD = ("rec_ip=192.0.2.10\nrec_port=8082\nbookmark_dir=/var/lib/velmor-siem-collector\n"
        "debug_level=info\nsleep=5\nthrottle=500\n")
TAIL = "type=filetail\nft_dir=/srv/app\nft_filter=app.log\nft_delim=<newline>\n"


class Examples(unittest.TestCase):
    def setUp(self):
        scratch = tempfile.TemporaryDirectory()
        self.addCleanup(scratch.cleanup)
        self.dir = pathlib.Path(scratch.name)

    def check(self, content):
        path = self.dir / "example.conf"
        path.write_text(content)
        done = subprocess.run([BIN / "siem_collector_check", "--no-host", "--deny-warnings", path],
                              capture_output=True, text=True, timeout=60)
        return done.returncode, done.stdout

    def test_configurations_are_clean(self):
        seen = 0
        for document in DOCUMENTS:
            for block in fenced(document.read_text(), "ini"):
                content = block
                if "rec_ip=" not in content:
                    content = HEAD + content
                if "type=" not in content:
                    content += TAIL
                with self.subTest(document=document.name, block=block):
                    self.assertEqual(self.check(content)[0], 0, self.check(content)[1])
                seen += 1
        self.assertGreaterEqual(seen, 3)

    def test_settings_that_wait_behind_a_comment_are_clean_too(self):
        """Whoever takes the "#" away in the installed example gets what the comment promises."""
        shown = (ROOT / "packaging" / "etc" / "siem_collector.conf").read_text()
        taken = re.sub(r"^#(?=[a-z_]+=)", "", shown, flags=re.M)
        self.assertGreater(len(taken.splitlines()), 30)
        self.assertLess(len(taken), len(shown) - 5)
        status, said = self.check(taken.replace("rec_encrypt=0", "rec_encrypt=1"))
        self.assertEqual(status, 0, said)
        # Every setting that has to be asked for is shown there.
        page = (ROOT / "docs" / "man" / "velmor_siem_collector.conf.5.scd").read_text()
        opt_in = re.findall(r"\*(\w+)\*", " ".join(re.findall(
            r"^((?:\*[a-z_]+\*(?:, )?)+)\n\t", page.split("\n# OPT-IN KEYS\n")[1].split("\n# ")[0],
            re.M)))
        self.assertEqual(re.findall(r"^#([a-z_]+)=", shown, re.M), opt_in)

    def test_readme_leads_everywhere(self):
        readme = (ROOT / "README.md").read_text()
        pages = [*ROOT.glob("docs/*.md"), *ROOT.glob("*.md")]
        self.assertGreater(len(pages), 15)
        for page in pages:
            name = str(page.relative_to(ROOT))
            if name != "README.md":
                self.assertIn(f"]({name})", readme)
        mapped = re.findall(r"^(\w+)/ +\S", fenced(readme.split("## Map")[1], "text")[0], re.M)
        self.assertEqual([name for name in mapped if not (ROOT / name).is_dir()], [])
        built = (ROOT / "CMakeLists.txt").read_text()
        areas = re.search(r"foreach\(area ([\w ]+)\)", built)[1].split()
        areas += re.findall(r"add_subdirectory\((\w+)\)", built)
        self.assertGreater(len(areas), 8)
        self.assertEqual(set(areas) - set(mapped), set())

    def test_quick_start_tells_the_same_commands(self):
        installation, commands = first_commands()
        quick_start = (ROOT / "docs" / "quick-start.md").read_text()
        told = indented(quick_start.split("\n## ")[0])
        self.assertEqual(told, [installation, *commands])

    def test_named_files_of_the_tree_exist(self):
        for document in DOCUMENTS:
            text = re.sub(r"^```.*?^```", "", document.read_text(), flags=re.M | re.S)
            for name in re.findall(r"`((?:core|config|filetail|ruv|lpc|lpc_interface|tools|tests|"
                                   r"docs|scripts|bench|packaging|examples)/[\w./-]*\w)`", text):
                with self.subTest(document=document.name, name=name):
                    self.assertTrue((ROOT / name).exists() or list(ROOT.glob(name + ".*")), name)

    @unittest.skipUnless(shutil.which("xxd"), "needs xxd")
    def test_a_dump_of_the_wire_format_can_be_read(self):
        block = fenced((ROOT / "docs" / "wire-format.md").read_text(), "sh")[0]
        (self.dir / "docs").symlink_to(ROOT / "docs")
        (self.dir / "build").mkdir()
        (self.dir / "build" / "bin").symlink_to(BIN.resolve())
        done = subprocess.run(["sh", "-ec", block], cwd=self.dir, stdin=subprocess.DEVNULL,
                              capture_output=True, text=True, timeout=60)
        self.assertEqual(done.returncode, 0, done.stderr)
        self.assertIn('"message":"<13>disk full"}', done.stdout)

    @unittest.skipUnless(shutil.which("bash"), "needs bash")
    def test_shell_blocks_parse(self):
        seen = 0
        for document in DOCUMENTS:
            for block in fenced(document.read_text(), "(?:sh|shell|bash)"):
                done = subprocess.run(["bash", "-n"], input=block, capture_output=True, text=True)
                with self.subTest(document=document.name, block=block):
                    self.assertEqual(done.returncode, 0, done.stderr)
                seen += 1
        self.assertGreater(seen, 0)


if __name__ == "__main__":
    unittest.main()
