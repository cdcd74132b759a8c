"""Every program's help, its page, its completion and what the documents tell of it agree.

Both ways: nothing that is offered goes unmentioned, and nothing is mentioned that is not offered.
"""
import os
import re
import shutil
import subprocess
import sys
import unittest
from pathlib import Path

from programs import (DAEMON, DOCUMENTS, ROOT, SCRIPTS, TOOLS, Tool, commands_in, daemon_options,
                      options_in, page_options, script_usage, script_words, section_of, spans,
                      table_of)

BIN = Path(sys.argv.pop(1)).resolve()
COMPLETION = ROOT / "packaging" / "completion"
# Scripts whose words, besides the options, all stand in their text.
CLOSED = ["scripts/demo", "scripts/deps", "scripts/package", "scripts/test"]


class Tools(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.tools = {name: Tool(BIN, name) for name in TOOLS}

    def test_help_shows_what_is_parsed(self):
        for name, source in (("siem_collector_check", "tools/check/main.cpp"),
                             ("siem_collector_status", "tools/status/main.cpp")):
            parsed = {option: {"no": "", "required": "X", "optional": "[X]"}[kind]
                      for option, kind in table_of(source).items()}
            told = {option: re.sub(r"\w+", "X", row.argument)
                    for option, row in self.tools[name].options.items()}
            self.assertEqual(told, parsed)

    def test_pages_have_the_options_of_the_help(self):
        for name, tool in self.tools.items():
            with self.subTest(name):
                page = page_options(f"{name}.1")
                self.assertGreater(len(page), 5)
                self.assertEqual(set(page), set(tool.options))
                for option, told in tool.options.items():
                    entry = page[option]
                    self.assertEqual(entry.names, told.names, option)
                    self.assertEqual(entry.argument, told.argument, option)
                    for default in told.defaults():
                        self.assertIn(default, entry.text, option)

    def test_pages_speak_of_no_other_options(self):
        for name, tool in self.tools.items():
            with self.subTest(name):
                text = (ROOT / "docs" / "man" / f"{name}.1.scd").read_text()
                self.assertEqual(options_in(text.replace("*", " ")) - tool.names(), set())

    def test_pages_have_the_exit_statuses_of_the_help(self):
        for name, tool in self.tools.items():
            with self.subTest(name):
                self.assertGreater(len(tool.statuses), 2)
                section = section_of(f"{name}.1", "EXIT STATUS")
                self.assertEqual(re.findall(r"^\*(\d+)\*$", section, re.M), tool.statuses)

    def complete(self, *words):
        """What the completion offers for the last of the words."""
        script = ('. "$1"; COMP_WORDS=("${@:2}"); COMP_CWORD=$(($# - 2))\n'
                  '_siem_collector_tools; printf "%s\\n" "${COMPREPLY[@]}"')
        done = subprocess.run(["bash", "-c", script, "bash",
                               COMPLETION / "siem-collector-tools.bash", *words],
                              stdin=subprocess.DEVNULL, capture_output=True, text=True, cwd=ROOT,
                              env=dict(os.environ, PATH=f"{BIN}:{os.environ['PATH']}"))
        return set(done.stdout.split())

    @unittest.skipUnless(shutil.which("bash"), "needs bash")
    def test_completion_offers_what_the_help_shows(self):
        for name, tool in self.tools.items():
            with self.subTest(name):
                self.assertEqual(self.complete(name, "-"), tool.names())
        traps = self.complete("siem_collector_check", "--explain", "")
        self.assertIn("all", traps)
        self.assertGreaterEqual(len(traps), 41)

    @unittest.skipUnless(shutil.which("bash"), "needs bash")
    def test_completion_offers_files_where_the_help_wants_them(self):
        for name, tool in self.tools.items():
            with self.subTest(name):
                for option, row in tool.options.items():
                    offered = self.complete(name, option, "READ")
                    if "FILE" in row.argument:
                        self.assertEqual(offered, {"README.md"}, option)
                    elif row.argument == "DIR":
                        self.assertEqual(self.complete(name, option, "scr"), {"scripts"}, option)

    def test_completions_name_only_what_there_is(self):
        argumented = {option for tool in self.tools.values() for row in tool.options.values()
                      if row.argument for option in row.names}
        for file, registered in (("siem-collector-tools.bash", r"^complete -F \w+ (.*)$"),
                                 ("_siem_collector_tools", r"^#compdef (.*)$")):
            text = (COMPLETION / file).read_text()
            self.assertEqual(sorted(re.search(registered, text, re.M)[1].split()), TOOLS)
            arms = re.findall(r"^ +(-[\w| -]+)\)", text, re.M)
            self.assertGreater(len(arms), 0)
            self.assertEqual(options_in(" ".join(arms)) - argumented, set())


class TheDaemon(unittest.TestCase):
    def test_help_page_and_guide_have_the_options_that_are_parsed(self):
        valued, plain, names = daemon_options()
        self.assertEqual(len(names), 8)
        letters = {f"-{letter}" for letter in valued | plain}
        # Its help ends with 1, and shows the letters without their dashes.
        told = subprocess.run([BIN / DAEMON, "--help"], stdin=subprocess.DEVNULL, text=True,
                              capture_output=True, timeout=60)
        shown = dict(re.findall(r"^   (\w) ([\w-]+)", told.stdout + told.stderr, re.M))
        self.assertEqual({f"-{letter}" for letter in shown}, letters)
        # Kept: the help's long form of -f, which is not accepted.
        self.assertEqual({name: letter for letter, name in shown.items()},
                         {**names, "log-file": "f"})
        guide = (ROOT / "docs" / "operations.md").read_text()
        rows = re.findall(r"^\| (`-\w`.*?) \|", guide, re.M)
        entries = [*page_options(f"{DAEMON}.8").values()]
        self.assertEqual(sorted(map(sorted, (entry.names for entry in entries))),
                         sorted(map(sorted, (options_in(row) for row in rows))))
        by_letter = {letter: name for name, letter in names.items()}
        self.assertEqual(
            sorted(sorted(entry.names) for entry in entries),
            sorted(sorted({letter, f"--{by_letter[letter[1]]}"} if letter[1] in by_letter
                          else {letter}) for letter in letters))
        for entry in entries:
            letter = next(name for name in entry.names if len(name) == 2)[1]
            self.assertEqual(bool(entry.argument), letter in valued, letter)

    def test_synopsis_has_every_letter(self):
        valued, plain, _ = daemon_options()
        synopsis = section_of(f"{DAEMON}.8", "SYNOPSIS")
        self.assertEqual(set(re.findall(r"\*-(\w)\* _", synopsis)), valued)
        self.assertEqual(set(re.search(r"\[\*-(\w+)\*\]", synopsis)[1]), plain - {"h"})


class Scripts(unittest.TestCase):
    def test_usage_and_code_have_the_same_options(self):
        self.assertGreaterEqual(len(SCRIPTS), 9)
        for name in SCRIPTS:
            with self.subTest(name):
                code = {word for word in script_words(name) if word.startswith("-")} - {"--"}
                self.assertEqual(options_in(script_usage(name)), code)


class Documents(unittest.TestCase):
    """Commands, in the documents and in the pages' examples, are such as the programs take."""

    @classmethod
    def setUpClass(cls):
        _, _, names = daemon_options()
        daemon = {f"--{name}" for name in names} | {f"-{letter}" for letter in "hcdalftsr"}
        cls.known = {name: Tool(BIN, name).names() for name in [*TOOLS, "loopback_agent"]}
        cls.known[DAEMON] = daemon
        cls.known |= {name: script_words(name) | {"--help"} for name in SCRIPTS}

    def test_options_in_commands_exist(self):
        seen = dict.fromkeys(self.known, 0)
        for document in DOCUMENTS:
            for name, words in commands_in(document):
                if name not in self.known:
                    continue
                seen[name] += 1
                for word in words:
                    if word == "--":
                        break
                    option = re.match(r"--?[a-zA-Z][\w-]*", word)
                    with self.subTest(document=document.name, name=name, word=word):
                        if option:
                            self.assertIn(option[0], self.known[name])
                        elif name in CLOSED:
                            self.assertIn(word, self.known[name])
        self.assertEqual([name for name in [*TOOLS, DAEMON, "scripts/test"] if seen[name] < 2], [])

    def test_options_in_the_text_exist(self):
        everywhere = set().union(*self.known.values())
        seen = 0
        for document in DOCUMENTS:
            for span in spans(document.read_text()) if document.suffix == ".md" else ():
                option = re.match(r"(--?[a-z][a-z-]*)( [A-Z]+)?$", span)
                if option:
                    seen += 1
                    with self.subTest(document=document.name, span=span):
                        self.assertIn(option[1], everywhere)
        self.assertGreater(seen, 10)

    def test_rows_of_the_fault_laboratory_exist(self):
        laboratory = ROOT / "tests" / "fault" / "run_fault.py"
        listed = subprocess.run(
            [sys.executable, "-B", laboratory, "--build", BIN.parent, "--list"], text=True,
            stdin=subprocess.DEVNULL, capture_output=True, timeout=60, check=True).stdout.split()
        seen = 0
        for document in DOCUMENTS:
            for name, words in commands_in(document):
                for row in words[1:] if name == "scripts/soak" else ():
                    seen += 1
                    with self.subTest(document=document.name, row=row):
                        self.assertTrue([one for one in listed if one.startswith(row)])
        self.assertGreater(seen, 3)
        guarantees = (ROOT / "docs" / "guarantees.md").read_text()
        self.assertEqual(re.findall(r"all of its (\d+) scenarios", guarantees), [str(len(listed))])


if __name__ == "__main__":
    unittest.main()
