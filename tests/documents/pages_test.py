"""The manual pages name everything that there is: options, keys, statuses, codes, calls, traps."""

import pathlib
import re
import shutil
import subprocess
import sys
import unittest

BIN = pathlib.Path(sys.argv.pop(1))
ROOT = pathlib.Path(__file__).resolve().parents[2]
MAN = ROOT / "docs" / "man"
TOOLS = ["ruv_receiver", "ruv_send", "siem_collector_check", "siem_collector_status"]


def source(page):
    return (MAN / f"{page}.scd").read_text()


def help_of(tool):
    done = subprocess.run([BIN / tool, "--help"], stdin=subprocess.DEVNULL, capture_output=True,
                          text=True, timeout=60)
    return done.stdout


def options_in(text):
    return set(re.findall(r"(?<![\w-])--[a-z][a-z0-9-]*", text))


class Pages(unittest.TestCase):
    def test_every_option_of_every_tool_has_its_entry(self):
        for tool in TOOLS:
            with self.subTest(tool):
                offered = options_in(help_of(tool))
                self.assertGreater(len(offered), 5)
                page = source(f"{tool}.1")
                self.assertEqual(offered - options_in(page), set(), "not in the page")
                self.assertEqual(options_in(page) - offered, set(), "not in the help")

    def test_every_exit_status_of_the_tools_has_its_entry(self):
        statuses = {"ruv_receiver": "0 1 64", "ruv_send": "0 1 64",
                    "siem_collector_check": "0 64 66 78",
                    "siem_collector_status": "0 1 2 3"}
        for tool, numbers in statuses.items():
            section = source(f"{tool}.1").split("# EXIT STATUS")[1].split("\n# ")[0]
            self.assertEqual(re.findall(r"^\*(\d+)\*$", section, re.M), numbers.split(), tool)

    def test_every_option_of_the_daemon_has_its_entry(self):
        table = (ROOT / "core" / "args.cpp").read_text()
        names = set(re.findall(r'\{"([a-z-]+)", (?:no|required)_argument', table))
        self.assertEqual(len(names), 8)
        page = source("velmor_siem_collector.8")
        for name in names:
            self.assertIn(f"*--{name}*", page)
        for letter in "hcdalftsr":
            self.assertRegex(page, rf"\*-{letter}\*")

    def test_every_key_has_its_entry(self):
        page = source("velmor_siem_collector.conf.5")
        guide = (ROOT / "docs" / "configuration.md").read_text()
        keys = set(re.findall(r'L"([a-z_]+)"', (ROOT / "config" / "siem_config.cpp").read_text()))
        keys |= set(re.findall(r'L"([a-z_]+)"', (ROOT / "config" / "plugin.cpp").read_text()))
        keys -= {"filetail", "big_fix"}
        self.assertGreaterEqual(len(keys), 26, keys)
        for key in keys:
            self.assertIn(f"*{key}*", page)
            if key != "type":
                self.assertIn(f"`{key}`", guide)

    def test_every_public_call_has_its_entry(self):
        page = source("ruv.3")
        calls = set()
        for header in ("ruvlib.h", "ruvlibsetters.h"):
            text = (ROOT / "ruv" / header).read_text()
            calls |= set(re.findall(r"^(?:\w+[ *]+)+(RUV\w+)\(", text, re.M))
        self.assertGreater(len(calls), 100)
        self.assertEqual({call for call in calls if f"*{call}*" not in page}, set())

    def test_every_error_code_has_its_entry(self):
        section = source("ruv.3").split("# ERRORS")[1].split("\n# ")[0]
        entries = [int(code) for code in re.findall(r"^\*(\d+)\*$", section, re.M)]
        self.assertEqual(entries, [*range(1, 24), *range(50, 60), 99])

    def test_every_trap_has_its_entry(self):
        page = source("siem_collector_traps.7")
        listed = subprocess.run([BIN / "siem_collector_check", "--explain", "all"],
                                capture_output=True, text=True, timeout=60).stdout
        for trap, level in re.findall(r"^(T\d\d) \((\w+)\)", listed, re.M):
            self.assertIn(f"*{trap}* ({level})", page)

    @unittest.skipUnless(shutil.which("scdoc") and shutil.which("mandoc"), "needs scdoc and mandoc")
    def test_pages_build_and_are_well_formed(self):
        pages = sorted(MAN.glob("*.scd"))
        self.assertGreaterEqual(len(pages), 10)
        for page in pages:
            built = subprocess.run(["scdoc"], input=page.read_bytes(), capture_output=True)
            self.assertEqual(built.returncode, 0, f"{page}: {built.stderr}")
            lint = subprocess.run(["mandoc", "-T", "lint", "-W", "error"], input=built.stdout,
                                  capture_output=True)
            self.assertEqual(lint.stdout, b"", page)


if __name__ == "__main__":
    unittest.main()
