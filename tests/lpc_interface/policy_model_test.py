"""Random policies against random configuration files: the bridge and a small model of its rules
must write the same file, agree on the restart, and tell the same story in the log.
"""
import random
import subprocess
import sys
import unittest

DRIVER = sys.argv.pop()
CASES = 400
KEY_OF = {
    "Receiver IP": "rec_ip", "Receiver Port": "rec_port", "Encryption": "rec_encrypt",
    "OZU Group Log Level": "debug_level", "Log Directory": "ft_dir", "Log File": "ft_filter",
    "Event Delimeter": "ft_delim", "Tail Mode": "ft_start_top"}

FILE_KEYS = [*KEY_OF.values(), "type", "type", "type", "t", "ty", "typ", "types", "rec", "ft_", "f",
             "r", "#rec_ip", "#", " ", "", "sleep", "ft_delim_end_of_event", "ft_dirs", " rec_ip"]
FILE_VALUES = ["", "1", "0", "filetail", "x", "rec_ip", "type", "/a", "[newline]", "begin", "end",
               "true", "false", "*.log", "ft_dir2", "a=b", "ft_start_top"]
OTHER_LINES = ["", "   ", "# c", "word", "\t", "type", "t", "#a=b", "a\r"]
SETTING_NAMES = [*KEY_OF, "Bogus", "", "Event Delimiter"]
SETTING_VALUES = FILE_VALUES + ["beginning", "ending", "TRUE", "falsehood", "fals", "fal", "truer",
                                "Begin"]
SECTION_NAMES = ["LOGRELAY1000", "File.1", "File.2", "File.3", "File", "File.0", "File.x",
                 "Files.2", "General", "file.1", "", "File.-1", "File.10"]


def parse(text):
    lines = text.split("\n")
    rest = lines.pop()
    pairs = []
    for line in [line + "\n" for line in lines] + ([rest] if rest else []):
        key, sign, value = line.partition("=")
        pairs.append([key, value[:-1]] if sign else [line[:-1], line[:-1]])
    return pairs


def opens_plugin(key):
    return key != "" and "type".startswith(key)


def is_setting(key):
    return not key.startswith("#") and any(c > " " for c in key)


def translate(key, value):
    if key == "ft_delim" and value == "":
        return "[newline]"
    table = {"ft_start_top": (("begin", "1"), ("end", "0")),
             "rec_encrypt": (("true", "1"), ("fals", "0"))}
    for beginning, number in table.get(key, ()):
        if value.startswith(beginning):
            return number
    return value


def plugins_to_skip(section):
    number = section.partition(".")[2]
    return int(number) if number.lstrip("-").isdigit() else 0


class Model:
    """One enforcement."""

    def __init__(self, text):
        self.text, self.pairs, self.added = text, parse(text), {}
        self.plugins = sum(opens_plugin(key) for key, _ in self.pairs)
        self.total, self.deleted = 0, False
        self.log = ["(INFO) Enforce Policy called"]

    def look_for_deleted(self, sections):
        names = [name for name, _ in sections]
        files = sum(name.startswith("File") for name in names)
        self.deleted = "LOGRELAY1000" not in names and files < self.plugins
        if self.deleted:
            self.log.append("(DEBUG) An Ozu plugin has been deleted.  "
                            "Recreating full plugin configuration")

    def find(self, section, key):
        skip = 0
        if section.startswith("File"):
            if self.deleted:
                return None
            skip = plugins_to_skip(section)
        for pair in self.pairs:
            if skip != 0:
                skip -= opens_plugin(pair[0])
            elif is_setting(pair[0]) and key.startswith(pair[0]):
                return pair
        return None

    def apply(self, section, name, value):
        key = KEY_OF.get(name)
        if not key:
            return
        value = translate(key, value)
        pair = None if section in self.added else self.find(section, key)
        if not pair:
            self.added.setdefault(section, {}).setdefault(key, value)
            self.total += 1
            self.log.append(f"(DEBUG) Added '{key}': {value}")
        elif pair[1] != value:
            pair[1] = value
            self.total += 1
            self.log.append(f"(WARN) Updated '{pair[0]}': {value}")
        else:
            self.log.append(f"(DEBUG) Values match({pair[0]}): {value}")

    def new_text(self):
        lines = []
        for key, value in self.pairs:
            if value.startswith(key):
                lines.append(key)
            elif self.deleted and opens_plugin(key):
                break
            else:
                lines.append(f"{key}={value}")
        blocks = []
        for section in sorted(self.added):
            is_file = section.startswith("File")
            head = ["type=filetail", "ft_delim_end_of_event=1"] if is_file else ["type="]
            settings = sorted(self.added[section].items())
            blocks.append("".join(f"{line}\n" for line in
                                  head + [f"{key}={value}" for key, value in settings]))
        gap = "" if self.deleted else "\n"
        return "".join(line + "\n" for line in lines) + gap + "\n".join(blocks)

    def enforce(self, objects):
        for sections in filter(None, objects):
            self.look_for_deleted(sections)
            for section, settings in sections:
                self.log.append(f"(DEBUG) \tSection Name: {section}")
                for name, value in settings.items():
                    self.log.append(f"(DEBUG) \tSetting for Policy: {name} = {value}")
                    self.apply(section, name, value)
        if not self.total:
            self.log.append("(DEBUG) No policy update, configs are identical")
            return 0, self.text, self.log
        text = self.new_text()
        self.log.append(f"(WARN) Updating local configuration, {self.total} descrepancies.")
        self.log += [f"(INFO) {line}" for line in text.split("\n")[:-1]]
        return 1, text, self.log


def random_file(chance):
    lines = []
    for _ in range(chance.randint(0, 14)):
        kind = chance.random()
        if kind < 0.75:
            lines.append(f"{chance.choice(FILE_KEYS)}={chance.choice(FILE_VALUES)}\n")
        else:
            lines.append(chance.choice([*OTHER_LINES, *["type=filetail"] * 9]) + "\n")
    text = "".join(lines)
    return text[:-1] if chance.random() < 0.1 else text


def random_policy(chance):
    def settings():
        return {chance.choice(SETTING_NAMES): chance.choice(SETTING_VALUES)
                for _ in range(chance.randint(0, 4))}
    return [[(chance.choice(SECTION_NAMES), settings()) for _ in range(chance.randint(0, 4))]
            for _ in range(chance.randint(0, 3))]


def instructions(text, objects):
    def encoded(*words):
        return " ".join("-" + word.encode().hex() for word in words)
    yield f"file {encoded(text)}"
    for sections in objects:
        yield "object"
        for section, settings in sections:
            yield f"section {encoded(section)}"
            for name, value in settings.items():
                yield f"setting {encoded(name, value)}"
    yield "enforce"


class PolicyModel(unittest.TestCase):
    def test_random_policies(self):
        chance = random.Random(20)
        cases = [(random_file(chance), random_policy(chance)) for _ in range(CASES)]
        lines = [line for case in cases for line in instructions(*case)]
        done = subprocess.run([DRIVER], input="".join(line + "\n" for line in lines).encode(),
                              stdout=subprocess.PIPE, check=True)
        answers, log = [], []
        for line in done.stdout.decode().split("\n")[:-1]:
            if line[0].isdigit():
                restarts, _, digits = line.partition(" ")
                answers.append((int(restarts), bytes.fromhex(digits).decode(), log))
                log = []
            else:
                log.append(line[line.index(":(") + 1:])
        self.assertEqual(len(answers), CASES)
        written = 0
        for (text, objects), answer in zip(cases, answers):
            expected = Model(text).enforce(objects)
            written += expected[0]
            self.assertEqual(answer, expected, (text, objects))
        # Both kinds of outcome were there to be seen.
        self.assertTrue(CASES / 10 < written < CASES * 9 / 10, written)


if __name__ == "__main__":
    unittest.main()
