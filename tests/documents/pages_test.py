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


def source(page):
    return (MAN / f"{page}.scd").read_text()


class Pages(unittest.TestCase):
    def test_keys_and_their_entries_are_the_same(self):
        keys = set(re.findall(r'L"([a-z_]+)"', (ROOT / "config" / "siem_config.cpp").read_text()))
        keys |= set(re.findall(r'L"([a-z_]+)"', (ROOT / "config" / "plugin.cpp").read_text()))
        keys -= {"filetail", "big_fix"}
        self.assertGreaterEqual(len(keys), 26, keys)
        page = source("velmor_siem_collector.conf.5")
        entries = re.findall(r"^((?:\*[a-z_]+\*(?:, )?)+)\n\t", page, re.M)
        self.assertEqual(set(re.findall(r"\*(\w+)\*", " ".join(entries))), keys)
        # The guide has a row for each key; what a section begins with stands in its text.
        guide = (ROOT / "docs" / "configuration.md").read_text()
        tables = re.findall(r"^\| key \|.*\n\|[-|]+\n((?:\|.*\n)+)", guide, re.M)
        rows = re.findall(r"^\|((?: `[a-z_]+`,?)+) \|", "".join(tables), re.M)
        self.assertEqual(set(re.findall(r"`(\w+)`", " ".join(rows))), keys - {"type"})

    def test_calls_and_their_entries_are_the_same(self):
        page = source("ruv.3")
        calls = set()
        for header in ("ruvlib.h", "ruvlibsetters.h"):
            text = (ROOT / "ruv" / header).read_text()
            calls |= set(re.findall(r"^(?:\w+[ *]+)+(RUV\w+)\(", text, re.M))
        self.assertGreater(len(calls), 100)
        self.assertEqual(set(re.findall(r"\*(RUV\w+)\*", page)), calls)

    def test_calls_have_the_types_of_the_headers(self):
        page = source("ruv.3").replace("\\", "")
        plain = {re.sub(r"[*_ ]", "", line.removesuffix("++")) for line in page.split("\n")}
        compared = 0
        for header in ("ruvlib.h", "ruvlibsetters.h"):
            text = re.sub(r"/\*.*?\*/", "", (ROOT / "ruv" / header).read_text(), flags=re.S)
            for call in re.findall(r"^(?:const )?\w+[ *]+RUV\w+\([^;]*\);", text, re.M):
                call = re.sub(r"\(void \*arg\)", "(void *)", call.rstrip(";"))
                with self.subTest(call):
                    self.assertIn(re.sub(r"[*_\s]", "", call), plain)
                compared += 1
        self.assertGreater(compared, 100)

    def test_protocol_page_shows_the_header_of_the_wire_format(self):
        shown = re.search(r"^(06 .*?)  .*data type 3", source("ruv_protocol.7"), re.M)[1]
        dump = (ROOT / "docs" / "wire-format.md").read_text().split("```ruv syslog-6\n")[1]
        self.assertEqual(shown, dump.split("\n")[1][6:17])

    def test_error_codes_and_their_entries_are_the_same(self):
        section = source("ruv.3").split("# ERRORS")[1].split("\n# ")[0]
        entries = [int(code) for code in re.findall(r"^\*(\d+)\*$", section, re.M)]
        rows = re.findall(r"^    \{(\d+), k", (ROOT / "ruv" / "error.cpp").read_text(), re.M)
        self.assertGreater(len(rows), 30)
        self.assertEqual(entries, [int(code) for code in rows])

    def test_traps_and_their_entries_are_the_same(self):
        page = source("siem_collector_traps.7")
        entries = re.findall(r"^\*(T\d\d)\* \((\w+)\): (.+)$", page, re.M)
        listed = subprocess.run([BIN / "siem_collector_check", "--explain", "all"],
                                capture_output=True, text=True, timeout=60).stdout
        traps = re.findall(r"^(T\d\d) \((\w+)\): (.+)$", listed, re.M)
        self.assertGreaterEqual(len(traps), 40)
        plain = [(trap, level, title.replace("\\", "").replace("*", ""))
                 for trap, level, title in entries]
        self.assertEqual(plain, traps)

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
