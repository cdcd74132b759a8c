"""Checks of the tree's own habits: check_style.py MODE [--root DIR].

  lines        at most 100 columns, no tabs, no blanks at a line's end, a line feed at the end
  sizes        headers of 100 lines, sources of 400, functions of 70, in tests 260, 600 and 70;
               see exceptions.txt
  levels       a module includes only modules of lower levels; see levels.txt
  thirdparty   OpenSSL, PCRE, Boost and dlfcn stay behind their seams
  format       clang-format has nothing to change (skipped without clang-format 14)
  words        no words that mean something only to those who wrote the tree
  links        what a page links to, or names as a path of the tree, is there
  dead         every source is built and every header is included by something

Every finding is one line `file:line: text`; the exit status is 1 when there is any, 77 when the
check could not be made here.
"""
import argparse
import os
import re
import shutil
import subprocess
import sys
from pathlib import Path

SKIPPED = 77
MODULE_FOLDERS = ("core", "config", "filetail", "ruv", "lpc", "lpc_interface")
CODE_SUFFIXES = {".h", ".hpp", ".cpp", ".cc", ".c", ".inc", ".def"}
TEXT_SUFFIXES = CODE_SUFFIXES | {".py", ".cmake", ".md", ".txt", ".sh", ".json", ".conf", ".scd",
                                 ".service", ".yml"}
MAX_COLUMNS, MAX_HEADER, MAX_SOURCE, MAX_FUNCTION = 100, 100, 400, 70
# A fixture stands whole in its header, and rows of literals are long without being hard to read.
MAX_TEST_HEADER, MAX_TEST_SOURCE = 260, 600


class Tree:
    def __init__(self, root):
        self.root = Path(root)
        self.findings = []
        self.files = sorted(self._walk())

    def _walk(self):
        for folder, folders, names in os.walk(self.root):
            relative = Path(folder).relative_to(self.root)
            folders[:] = [f for f in folders if not self._outside(relative / f)]
            for name in names:
                path = Path(folder) / name
                if path.is_file() and not path.is_symlink():
                    yield str(relative / name)

    @staticmethod
    def _outside(relative):
        name = relative.name
        if len(relative.parts) == 1 and (name.startswith("build") or name == "dist"):
            return True
        return name in (".git", "__pycache__", "corpus", ".cache")

    def text(self, name):
        return (self.root / name).read_text(encoding="utf-8", errors="surrogateescape")

    def named(self, suffixes):
        return [f for f in self.files if Path(f).suffix in suffixes]

    def code(self):
        return self.named(CODE_SUFFIXES)

    def say(self, name, line, text):
        self.findings.append(f"{name}:{line}: {text}")

    def table(self, name):
        """The rows of a small text table of tests/tidy; # begins a comment."""
        path = self.root / "tests/tidy" / name
        lines = path.read_text(encoding="utf-8").splitlines() if path.exists() else []
        for number, line in enumerate(lines, 1):
            words = line.split("#", 1)[0].split()
            if words:
                yield number, words


def is_script(tree, name):
    if Path(name).suffix:
        return False
    with open(tree.root / name, "rb") as file:
        return file.read(2) == b"#!"


def check_lines(tree):
    wide = {".md", ".txt", ".json", ".scd", ".conf", ".def"}  # tables set their own width
    for name in tree.files:
        suffix = Path(name).suffix
        if suffix not in TEXT_SUFFIXES and not is_script(tree, name):
            continue
        if any(part in name for part in ("/data/", "/golden/", "/cases/", "/debian/")):
            continue  # data, and files whose form others set
        text = tree.text(name)
        if text and not text.endswith("\n"):
            tree.say(name, text.count("\n") + 1, "no line feed at the end")
        if suffix in wide and Path(name).name != "CMakeLists.txt":
            continue
        for number, line in enumerate(text.splitlines(), 1):
            if len(line) > MAX_COLUMNS:
                tree.say(name, number, f"{len(line)} columns, at most {MAX_COLUMNS}")
            if "\t" in line and suffix in CODE_SUFFIXES | {".py"}:
                tree.say(name, number, "a tab")
            if line != line.rstrip(" \t"):
                tree.say(name, number, "blanks at the end of the line")


NOT_A_FUNCTION = re.compile(
    r"^(namespace|extern|struct|class|enum|union|typedef|using|\}|#|static_assert|template)")


def functions_of(text):
    """(name, first line, length) of each function whose body opens in column 0's statement."""
    head, start, depth_open = "", 0, 0
    for number, line in enumerate(text.splitlines(), 1):
        if depth_open:
            if line.startswith("}"):
                yield name_of(head), depth_open, number - depth_open + 1
                depth_open, head = 0, ""
            continue
        stripped = line.rstrip()
        if not stripped or stripped.startswith(("#", "//", "/*", " *")):
            head = ""
            continue
        if not head:
            if line.startswith((" ", "\t")):
                continue  # inside a class or a table
            start = number
        head += " " + stripped.strip()
        plain = re.sub(r"^ (template ?<.*?> )", " ", head).strip()
        if stripped.endswith("{"):
            if "(" in plain and not NOT_A_FUNCTION.match(plain) and "= {" not in plain:
                depth_open = start
            else:
                head = ""
        elif stripped.endswith((";", "}")):
            head = ""


def name_of(head):
    match = re.search(r"([\w:~]+)\s*\(", head)
    return match.group(1) if match else head.strip()[:40]


def usual_size(name):
    header = Path(name).suffix in (".h", ".hpp")
    if name.startswith("tests/"):
        return MAX_TEST_HEADER if header else MAX_TEST_SOURCE
    return MAX_HEADER if header else MAX_SOURCE


def check_sizes(tree):
    granted = {}
    used = set()
    for number, words in tree.table("exceptions.txt"):
        if len(words) < 3 or not words[2].isdigit():
            tree.say("tests/tidy/exceptions.txt", number, "want: path lines|function LIMIT why")
            continue
        granted[(words[0], words[1])] = int(words[2])

    def limit(name, kind, usual):
        allowed = granted.get((name, kind), usual)
        return max(allowed, usual)

    def over(name, kind, usual, size):
        if size > usual and (name, kind) in granted:
            used.add((name, kind))
        return size > limit(name, kind, usual)

    for name in tree.code():
        text = tree.text(name)
        usual = usual_size(name)
        size = text.count("\n")
        if over(name, "lines", usual, size):
            tree.say(name, 1, f"{size} lines, at most {limit(name, 'lines', usual)}")
        for function, line, length in functions_of(text):
            if over(name, "function", MAX_FUNCTION, length):
                tree.say(name, line, f"{function} has {length} lines, at most "
                                     f"{limit(name, 'function', MAX_FUNCTION)}")
    for name, kind in sorted(set(granted) - used):
        tree.say("tests/tidy/exceptions.txt", 1, f"not needed any more: {name} {kind}")


# Installed beside each other and found from whatever directory their users name.
PUBLIC_HEADERS = ("ruv/ruvlib.h", "ruv/ruvlibsetters.h")
INCLUDE = re.compile(r'^\s*#\s*include\s*([<"])([^>"]+)[>"]', re.M)


def includes_of(text):
    for match in INCLUDE.finditer(text):
        yield text.count("\n", 0, match.start()) + 1, match.group(1), match.group(2)


def module_of(name):
    return str(Path(name).with_suffix(""))


def check_levels(tree):
    levels = {}
    for number, words in tree.table("levels.txt"):
        if len(words) != 2 or not words[1].isdigit():
            tree.say("tests/tidy/levels.txt", number, "want: path-without-extension level")
            continue
        levels[words[0]] = int(words[1])
    modules = {module_of(f) for f in tree.code() if f.startswith(
        tuple(m + "/" for m in MODULE_FOLDERS))}
    for gone in sorted(set(levels) - modules):
        tree.say("tests/tidy/levels.txt", 1, f"no such module: {gone}")
    for name in tree.code():
        folder = name.split("/", 1)[0]
        if folder not in MODULE_FOLDERS:
            continue
        own = module_of(name)
        if own not in levels:
            tree.say(name, 1, f"{own} has no row in tests/tidy/levels.txt")
            continue
        for line, kind, target in includes_of(tree.text(name)):
            if name in PUBLIC_HEADERS and f"{folder}/{target}" in PUBLIC_HEADERS:
                target = f"{folder}/{target}"
            other = module_of(target)
            if kind != '"' or other == own:
                continue
            check_one_include(tree, (name, line, target), own, other, levels)


def check_one_include(tree, site, own, other, levels):
    name, line, target = site
    folder, other_folder = own.split("/", 1)[0], other.split("/", 1)[0]
    if not (tree.root / target).exists():
        tree.say(name, line, f'"{target}" is no path from the root of the project')
    elif folder in ("ruv", "lpc") and other_folder != folder:
        tree.say(name, line, f"{folder}/ includes nothing outside itself, but {target}")
    elif other not in levels:
        tree.say(name, line, f"{other} has no row in tests/tidy/levels.txt")
    elif other_folder == folder or folder != "lpc_interface":
        if levels[other] >= levels[own] and not contract_pair(own, other, levels):
            tree.say(name, line, f"level {levels[own]} includes {target} of level {levels[other]}")


def contract_pair(own, other, levels):
    """Data-only headers of level 0 may name each other's types across folders."""
    return levels[own] == levels[other] == 0 and own.split("/")[0] != other.split("/")[0]


SEAMS = (
    (re.compile(r"^openssl/"), re.compile(r"^(ruv/transport[^/]*|tools/.*)$"), "OpenSSL"),
    (re.compile(r"^pcre"), re.compile(r"^filetail/.*$"), "PCRE"),
    (re.compile(r"^boost/"), re.compile(r"^lpc/.*$"), "Boost"),
    (re.compile(r"^dlfcn\.h$"), re.compile(r"^lpc/.*$"), "dlfcn"),
)


def check_thirdparty(tree):
    users = {"OpenSSL": set(), "PCRE": set()}
    for name in tree.code():
        if name.startswith(("tests/", "bench/", "examples/")):
            continue
        for line, _, target in includes_of(tree.text(name)):
            for header, allowed, title in SEAMS:
                if header.match(target):
                    if not allowed.match(name):
                        tree.say(name, line, f"{title} ({target}) is used outside its seam")
                    elif title in users and not name.startswith("tools/"):
                        users[title].add(name)
    for title, most in (("OpenSSL", 1), ("PCRE", 2)):
        sources = sorted(n for n in users[title])
        if len(sources) > most:
            tree.say(sources[-1], 1, f"{title} in {len(sources)} files, at most {most}: "
                                     + ", ".join(sources))


def check_format(tree):
    tool = shutil.which("clang-format-14") or shutil.which("clang-format")
    if not tool:
        print("clang-format is not installed")
        sys.exit(SKIPPED)
    version = subprocess.run([tool, "--version"], stdout=subprocess.PIPE, check=True).stdout
    if b"version 14." not in version:
        print("other versions than 14 format differently: " + version.decode().strip())
        sys.exit(SKIPPED)
    names = tree.named({".h", ".hpp", ".cpp", ".cc", ".c"})
    for begin in range(0, len(names), 40):
        run = subprocess.run([tool, "--dry-run", "-Werror"] + names[begin:begin + 40],
                             cwd=tree.root, stdin=subprocess.DEVNULL, stderr=subprocess.PIPE,
                             check=False)
        for name, line in sorted(set(re.findall(r"^([^\s:]+):(\d+):\d+: error", run.stderr.decode(),
                                                re.M))):
            tree.say(name, line, "clang-format would change this line")
        if run.returncode != 0 and not tree.findings:
            tree.say(names[begin], 1, run.stderr.decode()[:400])


# Pieces are joined so that this file does not hold what it looks for.
INSIDE_WORDS = (
    r"/" + r"work/",
    r"\bthe " + r"spec\b|\bspec\." + r"md\b|\bspecifi" + r"cation\b",
    r"\bdesign\." + r"md\b|\bshared" + r"/(?:design|spe" + r"c)",
    r"\bPart " + r"\d+\.\d",
    r"\bissue " + r"#?\d|\bissue" + r"s show\b",
    r"\bthe bri" + r"ef\b|\bbrief" + r"\.md\b",
    r"\b(?:helper|this|another|worker) sess" + r"ion\b",
    r"\bsub-?ag" + r"ent\b",
)


def check_words(tree):
    pattern = re.compile("|".join(INSIDE_WORDS), re.I)
    for name in tree.files:
        data = (tree.root / name).read_bytes()
        if b"\0" in data or len(data) > 4_000_000:
            continue
        for number, line in enumerate(data.decode("utf-8", "replace").splitlines(), 1):
            match = pattern.search(line)
            if match:
                tree.say(name, number, f"'{match.group(0)}' means nothing to a reader")
        if pattern.search(name):
            tree.say(name, 0, "the file's name means nothing to a reader")


LINK = re.compile(r"\]\(([^)#\s]+)")
NAMED = re.compile(r"`((?:docs|examples|scripts|bench|packaging|tests|tools)/[\w./-]+\w)`")


def check_links(tree):
    folders = {str(parent) for name in tree.files for parent in Path(name).parents}
    for name in tree.named({".md"}):
        for number, line in enumerate(tree.text(name).splitlines(), 1):
            for target in LINK.findall(line):
                if "://" not in target and not target.startswith("mailto:"):
                    path = os.path.normpath(Path(name).parent / target)
                    if path not in tree.files and path not in folders:
                        tree.say(name, number, f"links to {target}, which is not there")
            for target in NAMED.findall(line):
                if target not in tree.files and target not in folders:
                    if not any(f.startswith(target + ".") for f in tree.files):
                        tree.say(name, number, f"names {target}, which is not there")


def check_dead(tree):
    builds = {}
    for name in tree.files:
        if Path(name).name == "CMakeLists.txt" or name.endswith(".cmake"):
            folder = str(Path(name).parent)
            builds[folder] = builds.get(folder, "") + tree.text(name)
    every_build = "\n".join(builds.values())
    included = {target for name in tree.code() for _, _, target in includes_of(tree.text(name))}
    tails = {Path(target).name for target in included}
    for name in tree.code():
        path = Path(name)
        if path.suffix in (".cpp", ".c", ".cc"):
            globbed = any("GLOB" in builds.get(str(parent), "") for parent in path.parents)
            if path.name not in every_build and not globbed and path.name not in tails:
                tree.say(name, 1, "no CMakeLists.txt builds this file")
        elif name not in included and path.name not in tails and name not in every_build:
            tree.say(name, 1, "nothing includes this header")


MODES = {"lines": check_lines, "sizes": check_sizes, "levels": check_levels,
         "thirdparty": check_thirdparty, "format": check_format, "words": check_words,
         "links": check_links, "dead": check_dead}


def main():
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("mode", choices=sorted(MODES))
    parser.add_argument("--root", default=Path(__file__).resolve().parents[2])
    arguments = parser.parse_args()
    tree = Tree(arguments.root)
    MODES[arguments.mode](tree)
    for finding in tree.findings:
        print(finding)
    print(f"{arguments.mode}: {len(tree.files)} files, {len(tree.findings)} findings")
    return 1 if tree.findings else 0


if __name__ == "__main__":
    sys.exit(main())
