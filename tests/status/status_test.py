"""siem_collector_status on configurations, logs and bookmark files of our own.

The lock file stands at a fixed path. Where the machine lets us, each call runs in a private mount
namespace with an empty lock directory; where it does not, the lock is only asked for its absence.
"""

import json
import os
import pathlib
import re
import shutil
import socket
import subprocess
import sys
import tempfile
import textwrap
import time
import unittest
import zlib

STATUS = os.path.abspath(sys.argv.pop(1))
CHECK = os.path.abspath(sys.argv.pop(1))
ROOT = pathlib.Path(__file__).resolve().parents[2]
LOCK = "/var/lock/velmor_siem_collector.loc"

# Runs the tool with the lock held by the calling process, by one of user 65534 without groups
# ("stranger"), or free, in a lock directory of its own.
IN_NAMESPACE = textwrap.dedent("""\
    import fcntl, os, socket, subprocess, sys
    lock, how, port, command = sys.argv[1], sys.argv[2], int(sys.argv[3]), sys.argv[4:]
    subprocess.run(["mount", "-t", "tmpfs", "tmpfs", os.path.realpath(os.path.dirname(lock))],
                   check=True)
    if port and how != "free":
        link = socket.create_connection(("127.0.0.1", port))
    if how == "hold":
        held = open(lock, "w")
        fcntl.flock(held, fcntl.LOCK_EX)
    if how == "stranger":
        told, tell = os.pipe()
        leave, stay = os.pipe()
        if os.fork() == 0:
            held = open(lock, "w")
            fcntl.flock(held, fcntl.LOCK_EX)
            os.setgroups([])
            os.setgid(65534)
            os.setuid(65534)
            os.close(stay)
            os.write(tell, b".")
            os.read(leave, 1)
            os._exit(0)
        os.read(told, 1)
    sys.exit(subprocess.run(command).returncode)
    """)


def namespaces_work():
    if shutil.which("unshare") is None or not os.path.isdir(os.path.dirname(LOCK)):
        return False
    probe = subprocess.run(["unshare", "-m", "mount", "-t", "tmpfs", "tmpfs",
                            os.path.realpath(os.path.dirname(LOCK))],
                           stdin=subprocess.DEVNULL, capture_output=True)
    return probe.returncode == 0


def record(path, location, head, tail=0):
    return f"{location:015d}|{head:015d}|{tail:015d}|{str(path):<150}\n".encode()


def head_of(content):
    return zlib.crc32(content[:256].ljust(256, b"\0"))


@unittest.skipUnless(namespaces_work(), "needs the right to make a mount namespace")
class Status(unittest.TestCase):
    def setUp(self):
        scratch = tempfile.TemporaryDirectory()
        self.addCleanup(scratch.cleanup)
        self.dir = pathlib.Path(scratch.name)
        self.logs = self.dir / "logs"
        self.marks = self.dir / "marks"
        self.receiver = socket.create_server(("127.0.0.1", 0), backlog=64)
        self.addCleanup(self.receiver.close)
        self.connect_to = self.port = self.receiver.getsockname()[1]
        self.logs.mkdir()
        self.marks.mkdir()
        self.config = self.dir / "collector.conf"
        self.config.write_text(
            f"rec_ip=127.0.0.1\nrec_port={self.port}\nbookmark_dir={self.marks}\ndebug_level=info\n"
            f"log_path={self.dir}/collector.log\nsleep=5\nthrottle=500\ntype=filetail\n"
            f"ft_dir={self.logs}\nft_filter=*.log\nft_delim=<newline>\n")

    def log(self, name, content):
        path = self.logs / name
        path.write_bytes(content)
        return path

    def bookmark(self, *records):
        (self.marks / "ft_bookmark").write_bytes(b"".join(records))

    def run_tool(self, *options, hold=True, tool=None):
        how = hold if isinstance(hold, str) else "hold" if hold else "free"
        return subprocess.run(
            ["unshare", "-m", sys.executable, "-c", IN_NAMESPACE, LOCK, how, str(self.connect_to),
             *(tool or [STATUS, "-c"]), str(self.config), *options],
            stdin=subprocess.DEVNULL, capture_output=True, text=True, timeout=60)

    def survey(self, *options, hold=True):
        done = self.run_tool("--json", *options, hold=hold)
        return done.returncode, json.loads(done.stdout)

    def file(self, *options):
        files = self.survey(*options)[1]["plugins"][0]["files"]
        self.assertEqual(len(files), 1)
        return files[0]

    def test_lag_events_and_waiting_bytes_are_exact(self):
        content = b"line of the log\n" * 100 + b"not ended"
        path = self.log("a.log", content)
        self.bookmark(record(path, 160, head_of(content)))
        state = self.file()
        self.assertEqual((state["position"], state["lag_bytes"], state["events"]), (160, 1440, 90))
        self.assertEqual((state["waiting_bytes"], state["estimated"]), (9, False))
        self.assertTrue(state["known"])
        self.assertFalse(state["head_changed"] or state["small"] or state["nul_ahead"])

    def test_large_lag_is_estimated(self):
        content = b"line of the log\n" * 100000
        path = self.log("a.log", content)
        self.bookmark(record(path, 0, head_of(content)))
        state = self.file()
        self.assertTrue(state["estimated"])
        self.assertAlmostEqual(state["events"], 100000, delta=1000)

    def test_changed_head_and_shrunken_file_begin_again(self):
        content = b"line of the log\n" * 20
        path = self.log("a.log", content)
        self.bookmark(record(path, 160, 12345))
        state = self.file()
        self.assertTrue(state["head_changed"])
        self.assertEqual((state["position"], state["events"]), (0, 20))
        self.bookmark(record(path, 1000, head_of(content)))
        self.assertEqual(self.file()["position"], 0)

    def set_globally(self, *lines):
        self.config.write_text("".join(line + "\n" for line in lines) + self.config.read_text())

    def renamed(self, location=160):
        """a.log was renamed to a.log.1 and begun anew; the bookmark is that of the old content."""
        old, new = b"line of the log\n" * 100, b"another line of the log\n" * 20
        self.log("a.log.1", old)
        path = self.log("a.log", new)
        # A longer file with the same beginning and one with the same text elsewhere are others.
        self.log("b.log.1", old[:256] + b"other\n" * 500)
        (self.logs / "folder").mkdir(exist_ok=True)
        self.log("folder/a.log.2", old + old)
        self.bookmark(record(path, location, head_of(old), zlib.crc32(old[-257:-1])))
        return path

    def files(self):
        survey = self.survey()[1]
        return {os.path.basename(f["path"]): f for f in survey["plugins"][0]["files"]}, survey

    def test_rest_of_a_renamed_file_is_counted_and_named(self):
        path = self.renamed()
        self.assertTrue(self.file()["head_changed"])
        self.set_globally("rotation_drain=1")
        files, survey = self.files()
        self.assertEqual(sorted(files), ["a.log", "a.log.1"])
        rest = files["a.log.1"]
        self.assertEqual((rest["size"], rest["position"], rest["lag_bytes"], rest["events"]),
                         (1600, 160, 1440, 90))
        self.assertEqual((rest["rest_of"], rest["waits_for_rest"]), (str(path), False))
        new = files["a.log"]
        self.assertEqual((new["position"], new["lag_bytes"], new["events"]), (0, 480, 20))
        self.assertEqual((new["rest_of"], new["waits_for_rest"]), ("", True))
        self.assertEqual(survey["lag_bytes"], 1440 + 480)
        out = self.run_tool().stdout
        self.assertIn(", 1920 bytes behind", out.splitlines()[0])
        self.assertIn("a.log  [new file: read from 0 when that rest was sent]", out)
        self.assertIn("a.log.1  [rest of a.log, sent before it]", out)
        self.run_tool("--prom", str(self.dir / "x.prom"))
        self.assertIn(f'siem_collector_file_lag_bytes{{path="{path}.1"}} 1440\n',
                      (self.dir / "x.prom").read_text())
        self.assertEqual(self.run_tool("--warn", "1920").returncode, 1)

    def test_rest_of_a_renamed_file_without_a_successor(self):
        path = self.renamed()
        path.unlink()
        self.assertEqual(self.files()[0], {})
        self.set_globally("rotation_drain=1")
        files, survey = self.files()
        self.assertEqual((list(files), survey["lag_bytes"]), (["a.log.1"], 1440))

    def test_renamed_file_that_was_sent_whole_is_not_named(self):
        path = self.renamed(location=1600)
        self.set_globally("rotation_drain=1")
        files, survey = self.files()
        self.assertEqual((list(files), survey["lag_bytes"]), (["a.log"], 480))
        self.assertTrue(files["a.log"]["head_changed"])
        self.assertFalse(files["a.log"]["waits_for_rest"])
        self.assertIn("head changed: read again from 0", self.run_tool().stdout)
        path.unlink()
        self.assertEqual(self.files()[0], {})

    def test_longest_copy_of_a_truncated_file_holds_the_rest(self):
        path = self.renamed()
        old = (self.logs / "a.log.1").read_bytes()
        self.log("a.log.2", old + b"later line\n")
        path.write_bytes(old[:100])  # begins as before, but is shorter than what was sent
        self.set_globally("rotation_drain=1")
        files, _ = self.files()
        self.assertEqual(sorted(files), ["a.log", "a.log.2"])
        self.assertEqual(files["a.log.2"]["lag_bytes"], 1440 + 11)

    def test_guarded_small_file_is_the_same_when_it_has_grown(self):
        content = b"line of the log\n" * 20
        path = self.log("a.log", content)
        self.bookmark(record(path, 32, head_of(content[:48])))
        state = self.file()
        self.assertEqual((state["head_changed"], state["position"]), (True, 0))
        self.set_globally("small_file_guard=1")
        state = self.file()
        self.assertEqual((state["head_changed"], state["position"]), (False, 32))

    def test_small_nul_and_long(self):
        content = b"a\0b\n" + b"x" * 70000 + b"\n"
        path = self.log("a.log", content)
        self.bookmark(record(path, 0, head_of(content)))
        state = self.file()
        self.assertTrue(state["nul_ahead"] and state["long_ahead"])
        path.write_bytes(b"tiny\n")
        self.assertTrue(self.file()["small"])

    def test_without_bookmark(self):
        self.log("a.log", b"line\n" * 100)
        state = self.file()
        self.assertFalse(state["known"])
        self.assertEqual(state["lag_bytes"], 0)

    def test_without_bookmark_and_from_the_top(self):
        content = b"line\n" * 100
        self.log("a.log", content)
        self.config.write_text(self.config.read_text() + "ft_start_top=1\n")
        state = self.file()
        self.assertEqual((state["known"], state["position"], state["events"]), (False, 0, 100))

    def test_bookmarks_that_cannot_be_read(self):
        self.log("a.log", b"line\n" * 100)
        (self.marks / "ft_bookmark").mkdir()
        done = self.run_tool()
        self.assertEqual(done.returncode, 1)
        self.assertIn("the bookmark file cannot be read", done.stdout.splitlines()[0])
        self.assertIn("[position unknown]", done.stdout)

    def open_to_all(self):
        for path in (self.dir, self.logs, self.marks):
            path.chmod(0o755)
        if not all(parent.stat().st_mode & 0o001 for parent in self.dir.parents):
            self.skipTest("the temporary directory is closed to other users")

    @unittest.skipUnless(os.geteuid() == 0, "needs root")
    def test_what_the_collector_may_not_do(self):
        self.open_to_all()
        content = b"line of the log\n" * 100
        path = self.log("a.log", content)
        path.chmod(0o644)
        self.bookmark(record(path, 1600, head_of(content)))
        (self.marks / "ft_bookmark").chmod(0o644)
        done = self.run_tool(hold="stranger")
        self.assertEqual(done.returncode, 1)
        self.assertRegex(done.stdout.splitlines()[0], "WARNING .* may not write the bookmark file$")
        (self.marks / "ft_bookmark").chmod(0o666)
        done = self.run_tool(hold="stranger")
        self.assertEqual(done.returncode, 0)
        self.assertRegex(done.stdout.splitlines()[0], "^OK  collector up, .*, 0 bytes behind$")
        path.chmod(0o640)
        done = self.run_tool(hold="stranger")
        self.assertEqual(done.returncode, 1)
        self.assertRegex(done.stdout.splitlines()[0], "WARNING .* may not read 1 file$")
        self.assertIn("a.log  [the collector may not read it]", done.stdout)
        self.assertTrue(self.survey(hold="stranger")[1]["plugins"][0]["files"][0]["forbidden"])
        self.run_tool("--prom", str(self.dir / "x.prom"), hold="stranger")
        self.assertIn("siem_collector_files_unreadable 1\n", (self.dir / "x.prom").read_text())
        self.assertEqual(self.run_tool().returncode, 0)

    @unittest.skipUnless(os.geteuid() == 0, "needs root")
    def test_a_live_check_asks_with_the_rights_of_the_collector(self):
        self.open_to_all()
        path = self.log("a.log", b"line of the log\n" * 100)
        # A port where nobody listens ends the check at once.
        self.config.write_text(self.config.read_text().replace(f"rec_port={self.port}",
                                                                  "rec_port=1"))
        refused = (r"file \S+/a\.log is not readable for user \S+: "
                   r"Permission denied \(\S+:\S+, mode 0640\)")
        for mode, expected in ((0o644, r"ok    1 file of \S+ readable for user "),
                               (0o640, "FAIL  " + refused)):
            path.chmod(mode)
            done = self.run_tool(tool=[CHECK, "--live"], hold="stranger")
            self.assertRegex(done.stdout, expected)
            self.assertRegex(done.stdout, "FAIL  bookmark directory .* is not writable for user ")
        os.chown(self.marks, 65534, 65534)
        done = self.run_tool(tool=[CHECK, "--live"], hold=False)
        self.assertRegex(done.stdout, "note  " + refused)
        self.assertRegex(done.stdout, "ok    bookmark directory .* is writable for user ")

    def test_connection_to_the_receiver(self):
        self.assertEqual((self.run_tool().returncode, self.survey()[1]["connected"]), (0, True))
        self.connect_to = 0
        done = self.run_tool()
        self.assertEqual(done.returncode, 1)
        self.assertIn(", not connected to the Receiver", done.stdout.splitlines()[0])
        self.assertIs(self.survey()[1]["connected"], False)
        self.run_tool("--prom", str(self.dir / "x.prom"))
        self.assertIn("siem_collector_connected 0\n", (self.dir / "x.prom").read_text())
        self.assertIsNone(self.survey(hold=False)[1]["connected"])

    def test_up_and_down(self):
        status, survey = self.survey(hold=True)
        self.assertEqual((status, survey["status"], survey["up"]), (0, "OK", True))
        self.assertLess(abs(survey["since"] - time.time()), 120)
        status, survey = self.survey(hold=False)
        self.assertEqual((status, survey["status"], survey["up"]), (2, "CRITICAL", False))

    def test_exit_statuses_follow_the_lag(self):
        content = b"line of the log\n" * 100
        path = self.log("a.log", content)
        self.bookmark(record(path, 0, head_of(content)))
        self.assertEqual(self.run_tool().returncode, 0)
        self.assertEqual(self.run_tool("--warn", "1600").returncode, 1)
        self.assertEqual(self.run_tool("--crit", "1600").returncode, 2)
        self.assertEqual(self.run_tool("--warn", "ten").returncode, 3)
        self.config.unlink()
        self.assertEqual(self.run_tool().returncode, 3)

    def test_verify_names_damage(self):
        content = b"line of the log\n" * 100
        path = self.log("a.log", content)
        good = record(path, 0, head_of(content))
        self.bookmark(good)
        self.assertEqual(self.run_tool("--verify").returncode, 0)
        self.bookmark(good, good, b"x" + good[1:], record("/gone/away.log", 1, 1), good[:50])
        done = self.run_tool("--verify")
        self.assertEqual(done.returncode, 2)
        for words in ("record 1: double", "record 2: damaged", "record 4: short",
                      "orphan: /gone/away.log", "4 records, 3 problems, 1 orphans"):
            self.assertIn(words, done.stdout)
        self.assertEqual(self.run_tool().returncode, 2)

    def test_verify_shows_a_path_without_the_next_line(self):
        good = record("/srv/a.log", 1, 1)
        self.bookmark(good[:-3] + b"\n", good)
        self.assertIn("record 0: damaged: /srv/a.log\n", self.run_tool("--verify").stdout)

    def test_the_runbook_keeps_the_good_records(self):
        text = (ROOT / "docs" / "runbooks.md").read_text()
        section = text.split("## The bookmark file is damaged")[1]
        lines = re.search(r"^```sh\n(.*?)^```", section, re.M | re.S)[1].splitlines()
        repair = [line for line in lines if not re.match("service |cd |siem_collector_", line)]
        self.assertEqual(len(lines) - len(repair), 4)
        good = [record(f"/srv/{name}.log", 1, 1) for name in "abcde"]
        self.bookmark(good[0], good[1][:-3] + b"\n", good[2], b"x" + good[3][1:], good[4],
                      record("/srv/a.log", 2, 2), b"\0\xff", good[2][:50])
        self.assertEqual(self.run_tool("--verify").returncode, 2)
        subprocess.run(["sh", "-ec", "\n".join(repair)], cwd=self.marks, check=True, timeout=60)
        self.assertEqual((self.marks / "ft_bookmark").read_bytes(), good[0] + good[2] + good[4])
        self.assertEqual(self.run_tool("--verify").returncode, 0)

    def test_prometheus_file_is_written_whole(self):
        content = b"line of the log\n" * 100
        path = self.log("a.log", content)
        self.bookmark(record(path, 160, head_of(content)))
        target = self.dir / "collector.prom"
        done = self.run_tool("--prom", str(target))
        self.assertEqual((done.returncode, done.stdout), (0, ""))
        text = target.read_text()
        self.assertIn("siem_collector_up 1\n", text)
        self.assertIn(f'siem_collector_file_lag_bytes{{path="{path}"}} 1440\n', text)
        self.assertEqual([p.name for p in self.dir.glob("collector.prom*")], ["collector.prom"])
        self.assertEqual(self.run_tool("--prom", "/absent/x").returncode, 3)

    def test_screen_shows_errors_and_no_control_characters(self):
        (self.dir / "collector.log").write_text(
            "Nov 15 08:31:02 2026:(ERROR) it broke\x1b[2J\nNov 15 08:31:03 2026:(INFO) fine\n")
        self.log("a\x1bb.log", b"line\n" * 100)
        out = self.run_tool().stdout
        self.assertIn("(ERROR) it broke?[2J", out)
        self.assertNotIn("fine", out.split("last errors")[1])
        self.assertNotIn("\x1b", out)

    @unittest.skipUnless(shutil.which("strace"), "needs strace")
    def test_reads_only(self):
        if b"__tsan_init" in pathlib.Path(STATUS).read_bytes():
            self.skipTest("the thread sanitizer opens files of its own")
        content = b"line of the log\n" * 100
        path = self.log("a.log", content)
        self.bookmark(record(path, 0, head_of(content)))
        trace = self.dir / "trace"
        done = subprocess.run(
            ["strace", "-f", "-e", "trace=openat,open,creat,flock,fcntl,unlink,unlinkat,rename,"
             "renameat,renameat2,mkdir,mkdirat,ftruncate,truncate,chmod,fchmod,utimensat,link",
             "-o", str(trace), STATUS, "-c", str(self.config)],
            stdin=subprocess.DEVNULL, capture_output=True, text=True, timeout=60)
        if "ptrace" in done.stderr and not trace.exists():
            self.skipTest("strace is not allowed here")
        calls = trace.read_text()
        self.assertIn("ft_bookmark", calls)
        for word in ("O_WRONLY", "O_RDWR", "O_CREAT", "O_TRUNC", "flock(", "unlink", "rename",
                     "mkdir", "truncate(", "chmod(", "F_SETLK"):
            self.assertNotIn(word, calls)


if __name__ == "__main__":
    unittest.main()
