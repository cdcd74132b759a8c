"""The checker's options, forms and exit statuses."""

import json
import pathlib
import re
import subprocess
import sys
import tempfile
import unittest

CHECK = sys.argv.pop(1)
ROOT = pathlib.Path(__file__).resolve().parents[2]

CLEAN = ("rec_ip=192.0.2.10\nrec_port=8082\nbookmark_dir=/var/lib/b\ndebug_level=info\n"
         "sleep=5\nthrottle=500\ntype=filetail\nft_dir=/srv/app\nft_filter=app.log\n"
         "ft_delim=<newline>\n")


def run(*arguments):
    return subprocess.run([CHECK, *arguments], stdin=subprocess.DEVNULL, capture_output=True,
                          text=True, timeout=120)


class Options(unittest.TestCase):
    def setUp(self):
        scratch = tempfile.TemporaryDirectory()
        self.addCleanup(scratch.cleanup)
        self.dir = pathlib.Path(scratch.name)

    def write(self, content):
        path = self.dir / "collector.conf"
        path.write_text(content)
        return str(path)

    def test_statuses(self):
        self.assertEqual(run("--no-host", self.write(CLEAN)).returncode, 0)
        self.assertEqual(run().returncode, 64)
        self.assertEqual(run("--nonsense").returncode, 64)
        self.assertEqual(run("--explain", "T99").returncode, 64)
        self.assertEqual(run(str(self.dir / "absent")).returncode, 66)
        self.assertEqual(run(str(self.dir)).returncode, 66)
        warning = self.write(CLEAN.replace("sleep=5", "sleep=9999"))
        self.assertEqual(run("--no-host", warning).returncode, 0)
        self.assertEqual(run("--no-host", "--deny-warnings", warning).returncode, 78)
        error = self.write(CLEAN.replace("rec_port", "recport"))
        self.assertEqual(run("--no-host", error).returncode, 78)

    def test_text_names_file_line_why_and_fix(self):
        path = self.write("rec_prt=1\n" + CLEAN)
        out = run("--no-host", path).stdout
        self.assertIn(f"{path}:1: error[T06]: unknown key: rec_prt (did you mean rec_port?)", out)
        self.assertIn("\n    why: ", out)
        self.assertIn("\n    fix: ", out)
        self.assertTrue(out.endswith(f"{path}: 1 error, 0 warnings\n"), out)

    def test_control_characters_are_shown_not_sent(self):
        out = run("--no-host", self.write(CLEAN.replace("=app.log", "=\x1b[2J/a"))).stdout
        self.assertNotIn("\x1b", out)
        self.assertIn("\\x1b[2J", out)

    def test_json_is_whole(self):
        report = json.loads(run("--no-host", "--json", self.write(CLEAN + "x\ty\"=\\\n")).stdout)
        self.assertEqual(report["errors"], 1)
        self.assertEqual(report["findings"][0]["id"], "T06")

    def test_explain(self):
        done = run("--explain", "t01")
        self.assertEqual(done.returncode, 0)
        self.assertIn("T01 (error): the last line has no line feed", done.stdout)

    def test_help_names_every_option(self):
        out = run("--help").stdout
        for option in ("--json", "--deny-warnings", "--no-host", "--logrotate", "--effective",
                       "--live", "--explain", "--init", "--help", "--version"):
            self.assertIn(option, out)

    def test_effective_shows_what_the_daemon_reads(self):
        path = self.write(CLEAN.replace("sleep=5", "sleep=5s").replace("ft_filter", "ft_fi") +
                          "hostid=db-1\nsubtype=big\ntype=syslog\nx=1\n")
        done = run("--effective", path)
        self.assertEqual(done.returncode, 0, done.stderr)
        lines = [" ".join(line.split()) for line in done.stdout.splitlines()]
        for expected in ("rec_port = 8082", "sleep = 5", "log mask = 3", "reconnect_wait = 300",
                         "ft_dir = /srv/app/", "ft_filter = app.log", "hostid = db-1",
                         "subtype = big_fix", "section of the unknown type syslog: ignored"):
            self.assertIn(expected, lines)

    def test_every_key_of_the_daemon_is_known_and_shown(self):
        table = (ROOT / "config" / "siem_config.cpp").read_text().split("kGlobalKeys[] = {")[1]
        keys = re.findall(r'L"([a-z_]+)"', table.split("\n};")[0])
        self.assertGreaterEqual(len(keys), 19)
        path = self.write("".join(f"{key}=1\n" for key in keys))
        shown = re.findall(r"^([a-z_]+) +=", run("--effective", path).stdout, re.M)
        self.assertEqual(sorted(shown), sorted(keys))
        findings = json.loads(run("--no-host", "--json", path).stdout)["findings"]
        self.assertEqual([f["detail"] for f in findings if f["id"] == "T06"], [])

    def test_effective_of_an_empty_file(self):
        done = run("--effective", self.write(""))
        self.assertEqual(done.returncode, 0)
        self.assertIn("no section: nothing is tailed", done.stdout)

    def test_live_names_what_fails(self):
        content = CLEAN.replace("192.0.2.10", "127.0.0.1").replace("8082", "1")
        content = content.replace("/srv/app", str(self.dir)).replace("/var/lib/b", str(self.dir))
        done = run("--live", self.write(content))
        self.assertEqual(done.returncode, 78)
        self.assertIn("FAIL  connecting to 127.0.0.1:1", done.stdout)
        self.assertIn(f"ok    directory {self.dir}/ is readable", done.stdout)


if __name__ == "__main__":
    unittest.main()
