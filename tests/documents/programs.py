"""What each program of the tree accepts, by its own word, and the commands that documents tell.

A program's own word is its help where that is made from what it parses, and the help together with
its table of options where both were written by hand.
"""
import pathlib
import re
import subprocess

ROOT = pathlib.Path(__file__).resolve().parents[2]
MAN = ROOT / "docs" / "man"
TOOLS = ["ruv_receiver", "ruv_send", "siem_collector_check", "siem_collector_status"]
DAEMON = "velmor_siem_collector"
SCRIPTS = sorted(str(path.relative_to(ROOT)) for path in
                 [*(ROOT / "scripts").iterdir(), ROOT / "bench" / "run", ROOT / ".ci" / "run"]
                 if path.is_file() and path.stat().st_mode & 0o100)
DOCUMENTS = sorted([*ROOT.glob("*.md"), *ROOT.glob("docs/*.md"), *ROOT.glob("tools/**/*.md"),
                    *MAN.glob("*.scd")])
LONG = r"(?<![\w/.-])--[a-z][a-z0-9-]*"
SHORT = r"(?<![\w/.-])-[a-zA-Z](?![\w-])"


def options_in(text):
    return set(re.findall(LONG, text)) | set(re.findall(SHORT, text))


class Option:
    """One option: its names, the word for its argument, and what is said of it."""

    def __init__(self, names, argument, text):
        self.names, self.argument, self.text = names, argument, text

    def defaults(self):
        """What the help puts in brackets at the end, mostly one word."""
        told = re.search(r"\((?:default )?([^()]*)\)$", self.text)
        return told[1].split(", or else ") if told else []


class Tool:
    """A tool with a help of the common form: a line for each option, and its exit statuses."""

    def __init__(self, binaries, name):
        self.name = name
        self.help = subprocess.run([binaries / name, "--help"], stdin=subprocess.DEVNULL, text=True,
                                   capture_output=True, timeout=60, check=True).stdout
        self.options = {}
        # A name, one blank and the argument's word, blanks, and text that may go on deeper in.
        for short, name, argument, text in re.findall(
                r"^ {2,6}(?:(-\w), )?(--[a-z][a-z0-9-]*)(?: (\S+))? *(.*(?:\n {20,}.*)*)",
                self.help, re.M):
            self.options[name] = Option({name, short} - {""}, argument, " ".join(text.split()))
        told = re.search(r"^exit status:(.*(?:\n.+)*)", self.help, re.M | re.I)
        self.statuses = re.findall(r"(?<=[ ,])\d+(?= )", told[1]) if told else []

    def names(self):
        return set().union(*(option.names for option in self.options.values()))


def section_of(page, title):
    return (MAN / f"{page}.scd").read_text().split(f"\n# {title}\n")[1].split("\n# ")[0]


def page_options(page):
    """The entries of a page's OPTIONS, by their long names or, without one, their letters."""
    options = {}
    section = section_of(page, "OPTIONS")
    for head, text in re.findall(r"^((?:\*-.*\n)+)((?:\t.*\n|\n(?=\t))+)", section, re.M):
        text = re.sub(r"(?<!\w)_|_(?!\w)|\*", "", " ".join(text.split()))
        for line in head.splitlines():
            names = re.findall(r"\*(-[\w-]+)\*", line)
            argument = re.search(r"(\[?)_(.+?)_(\]?)(?:\+\+)?$", line)
            options[names[-1]] = Option(set(names), "".join(argument.groups()) if argument else "",
                                        text)
    return options


def daemon_options():
    """(letters that take an argument, the other letters, letter by long name)."""
    source = (ROOT / "core" / "args.cpp").read_text()
    letters = re.search(r'kShortOptions\[\] = "([a-z:]+)"', source)[1]
    valued = set(re.findall(r"(\w):", letters))
    names = re.findall(r'\{"([a-z-]+)", (no|required)_argument, nullptr, \'(\w)\'\}', source)
    return valued, set(letters) - valued - {":"}, {name: letter for name, _, letter in names}


def table_of(source):
    """option -> whether it takes an argument, from a table for getopt_long()."""
    rows = re.findall(r'\{"([a-z-]+)", (no|required|optional)_argument,',
                      (ROOT / source).read_text())
    return {f"--{name}": kind for name, kind in rows}


def script_usage(name):
    """The usage lines of a script, from the comment or the documentation string at its top."""
    text = (ROOT / name).read_text()
    head = re.split(r"^(?:set -|exec |import )", text, maxsplit=1, flags=re.M)[0]
    return "\n".join(line for line in head.splitlines() if re.search(rf"\b{name}\b", line))


def script_words(name):
    """The words and options that a script's code takes, without its way to ask for help and what
    it only says to itself."""
    text = (ROOT / name).read_text()
    arms = re.findall(r"^\s*([\w-]+(?: \| [\w-]+)*)\)", text, re.M)
    words = {word for arm in arms for word in arm.split(" | ")}
    words |= set(re.findall(r'\[ "\$\{?1-?\}?" !?= (-[\w-]+) \]', text))
    words |= set(re.findall(r'add_argument\("(-[\w-]+)"', text))
    return words - {"-h", "--help", "help"} - set(re.findall(r'"\$0" (-[\w-]+)', text))


def fenced(text, language):
    blocks = re.findall(rf"^([ ]*)```{language}\n(.*?)^[ ]*```", text, re.M | re.S)
    return [re.sub(rf"^{indent}", "", body, flags=re.M) for indent, body in blocks]


def indented(text):
    """Indented blocks outside fences, as the readers' shell would get them."""
    text = re.sub(r"^[ ]*```.*?^[ ]*```", "", text, flags=re.M | re.S)
    blocks, lines = [], []
    before_blank = True
    for line in text.split("\n") + [""]:
        if re.match(r"^ {4,}\S", line) and (lines or before_blank):
            lines.append(line.strip())
        elif lines:
            blocks.append("\n".join(lines))
            lines = []
        before_blank = not line.strip()
    return blocks


def spans(text):
    """What stands between single backticks in the running text."""
    text = re.sub(r"^[ ]*```.*?^[ ]*```", "", text, flags=re.M | re.S)
    return [re.sub(r"\s+", " ", span) for span in re.findall(r"`([^`]+)`", text)]


def commands_in(document):
    """(program, words) of every command for one of the tree's programs."""
    text = document.read_text()
    blocks = fenced(text, "(?:sh|shell|bash|console)?")
    if document.suffix == ".md":
        blocks += indented(text) + spans(text)
    for block in blocks:
        for line in re.sub(r"\\\n\s*", " ", block).split("\n"):
            for command in re.split(r"&&|[|;&]|\$\(", re.sub(r"(^|\s)#\s.*", "", line)):
                words = command.replace(")", " ").split()
                while words and (words[0] in ("$", "sudo") or re.match(r"^[A-Z_]+=", words[0])):
                    words.pop(0)
                if not words:
                    continue
                name = words[0] if words[0] in SCRIPTS else pathlib.Path(words[0]).name
                yield name, words[1:]
