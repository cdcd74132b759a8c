"""The sandbox of the end-to-end tests: that it does what the unit's lines say, each because of its
line; that no line is passed over; and the unit's drop-ins with a real daemon.
"""
import grp
import json
import os
import re
import resource
import shutil
import struct
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

os.environ["COLLECTOR_SANDBOX"] = "1"
HERE = Path(__file__).resolve().parent
sys.path[:0] = [str(HERE), str(HERE.parent / "support"), str(HERE.parent / "managed")]
import sandbox_suite  # noqa: E402
import unit_file  # noqa: E402
from daemon_kit import BUILD, DaemonTest, main, private_command  # noqa: E402
from managed_kit import ManagedTest  # noqa: E402
from sandbox_kit import UNIT, UNITS, launcher  # noqa: E402
from seccomp_filter import Groups  # noqa: E402

LARGEST_EXPOSURE = 2.0
GROUPS_OF = 252  # the version of the service manager whose groups of calls the table has
# One that lies in somebody's home is hidden in there.
PYTHON = "/usr/bin/python3" if Path("/usr/bin/python3").exists() else sys.executable
DEVICES = ["fd", "full", "log", "null", "ptmx", "random", "stderr", "stdin", "stdout", "tty",
           "urandom", "zero"]

RESTRICTIONS = ("RestrictAddressFamilies", "MemoryDenyWriteExecute", "SystemCallFilter",
                "RestrictNamespaces", "LockPersonality", "RestrictSUIDSGID", "ProtectSystem",
                "PrivateUsers", "RestrictRealtime", "SystemCallArchitectures")


def without(text, *keys):
    """The unit without the lines of some keys."""
    return "".join(line for line in text.splitlines(keepends=True)
                   if line.partition("=")[0] not in keys)


class Translation(unittest.TestCase):
    def launch(self, *files, command=()):
        return subprocess.run([*launcher(*files)[:-1], "--explain", "--", *command], text=True,
                              stdin=subprocess.DEVNULL, capture_output=True, check=False)

    def with_line(self, line):
        folder = Path(self.enterContext(tempfile.TemporaryDirectory()))
        (folder / "more.conf").write_text(f"[Service]\n{line}\n")
        return self.launch(UNIT, folder / "more.conf", command=["echo", "started"])

    def test_every_line_of_the_unit_and_its_drop_ins_has_its_place(self):
        files = [UNIT, *sorted(UNITS.glob("*.conf"))]
        files = [f for f in files if f.name not in ("sysusers.conf", "tmpfiles.conf")]
        self.assertEqual(len(files), 3)
        done = self.launch(*files)
        self.assertEqual((done.returncode, done.stderr), (0, ""))
        told = re.findall(r"^(\S+\.(?:service|conf):\d+): ", done.stdout, re.M)
        self.assertEqual(told, [line.where for line in unit_file.read(files)])
        # As many lines as the files have that are neither empty, nor comments, nor headings.
        lines = [line for f in files for line in f.read_text().splitlines()]
        self.assertEqual(len(told), len([x for x in lines if x and x[0] not in "#["]))

    def test_what_is_not_known_ends_the_run(self):
        for line in ("PrivateNetwork=yes", "NoExecPaths=/", "ProtectSystem=full",
                     "CapabilityBoundingSet=CAP_CHOWN", "RestrictAddressFamilies=~AF_INET",
                     "SystemCallFilter=uname:ENOANO", "PrivateTmp=perhaps"):
            with self.subTest(line=line):
                done = self.with_line(line)
                self.assertEqual(done.returncode, 125, done.stdout + done.stderr)
                self.assertIn(line.split("=")[0], done.stderr)
                self.assertNotIn("started", done.stdout)

    def test_an_empty_value_takes_back_what_stood_before(self):
        lines = [unit_file.Line("Service", "SystemCallFilter", value, "")
                 for value in ("a", "b", "", "c")]
        self.assertEqual(unit_file.settings(lines), {"SystemCallFilter": ["c"]})

    @unittest.skipUnless(shutil.which("systemd-analyze"), "needs systemd-analyze")
    def test_the_groups_of_calls_are_the_managers(self):
        version = subprocess.run(["systemd-analyze", "--version"], capture_output=True, text=True,
                                 check=True).stdout.split()[1]
        if int(version) != GROUPS_OF:
            self.skipTest(f"this is version {version}, the table has the groups of {GROUPS_OF}")
        text = subprocess.run(["systemd-analyze", "syscall-filter", "--no-pager"], check=True,
                              capture_output=True, text=True, stdin=subprocess.DEVNULL).stdout
        groups = {}
        for line in text.splitlines():
            if line.startswith("@"):
                members = groups.setdefault(line, [])
            elif re.match(r" {4}[@a-z_]", line):
                members.append(line.strip())
        self.assertEqual(Groups().members, groups)


class SandboxTest(DaemonTest):
    @classmethod
    def setUpClass(cls):
        reason = sandbox_suite.cannot()
        if reason:
            raise unittest.SkipTest(reason)


class Forbidden(SandboxTest):
    def setUp(self):
        super().setUp()
        (self.private / "opt").chmod(0o777)  # so that only the mount can be in the way
        self.stray = Path("/tmp") / f"stray-{self.folder.name}"
        self.stray.write_text("")
        self.addCleanup(self.stray.unlink)

    def probe(self, *names, without_keys=()):
        unit = self.folder / "probed.service"
        unit.write_text(without(UNIT.read_text(), *without_keys))
        drop_in = self.sandbox_files[-1]
        drop_in.write_text(drop_in.read_text() + f'BindReadOnlyPaths="{HERE}"\n')
        done = subprocess.run(
            [*private_command(self.private), *launcher(unit, drop_in), PYTHON, "-B",
             str(HERE / "sandbox_probe.py"), *names], stdin=subprocess.DEVNULL, cwd="/",
            capture_output=True, text=True, check=False)
        self.assertEqual(done.returncode, 0, done.stderr)
        return json.loads(done.stdout)

    def test_each_line_forbids_what_it_names_and_nothing_else_does(self):
        """With the unit as it is, the attempt fails with this error; without the lines, it does
        not. Where several lines forbid the same, all of them have to go."""
        table = (
            ("packet-socket", "EAFNOSUPPORT", ("RestrictAddressFamilies",), "EPERM"),
            ("netlink-socket", "EAFNOSUPPORT", ("RestrictAddressFamilies",), "done"),
            ("map-writable-code", "EPERM", ("MemoryDenyWriteExecute",), "done"),
            ("make-memory-executable", "EPERM", ("MemoryDenyWriteExecute",), "done"),
            ("ptrace", "EPERM", ("SystemCallFilter",), "done"),
            ("nice", "EPERM", ("SystemCallFilter",), "done"),
            ("user-namespace", "EPERM", ("RestrictNamespaces",), "done"),
            ("personality", "EPERM", ("LockPersonality",), "done"),
            ("set-user-id-bit", "EPERM", ("RestrictSUIDSGID",), "done"),
            ("write-opt", "EROFS", ("ProtectSystem",), "done"),
        )
        names = [row[0] for row in table]
        self.assertEqual(self.probe(*names), {row[0]: row[1] for row in table})
        # What this machine forbids an ordinary account anyway shows nothing about a line.
        bare = self.probe(*names, without_keys=RESTRICTIONS)
        barred = {row[0] for row in table if bare[row[0]] != row[3]}
        self.assertLessEqual(barred, {"user-namespace"})
        table = [row for row in table if row[0] not in barred]
        for key in sorted({row[2] for row in table}):
            rows = [row for row in table if row[2] == key]
            with self.subTest(without=key):
                found = self.probe(*(row[0] for row in rows), without_keys=key)
                self.assertEqual(found, {row[0]: row[3] for row in rows})

    def test_what_several_lines_forbid(self):
        self.assertEqual(
            self.probe("mount", "write-etc", "tune-kernel", "real-time"),
            {"mount": "EPERM", "write-etc": "EROFS", "tune-kernel": "ENOENT",
             "real-time": "EPERM"})

    def test_what_the_daemon_needs_is_left(self):
        names = ("tcp-socket", "unix-socket", "write-state", "write-logs", "write-lock",
                 "write-tmp")
        self.assertEqual(self.probe(*names), dict.fromkeys(names, "done"))
        self.assertFalse(Path("/tmp/sandbox-probe").exists())

    def test_what_is_hidden(self):
        found = self.probe("list-tmp", "list-home", "list-dev", "list-proc", "see-init")
        # Nothing is in the private /tmp but what the test has bound into it.
        bound = [p.relative_to("/tmp").parts[0] for p in (self.folder, BUILD.resolve(), HERE)
                 if p.is_relative_to("/tmp")]
        self.assertEqual(found["list-tmp"], sorted(set(bound)))
        self.assertIn(found["list-home"], ("EACCES", "ENOENT"))
        self.assertEqual([n for n in found["list-dev"] if n in DEVICES], DEVICES)
        kept = {*DEVICES, "pts", "shm", "mqueue", "hugepages"}
        self.assertLessEqual(set(found["list-dev"]), kept)
        self.assertLessEqual(set(found["list-proc"]), {"self", "thread-self"})
        self.assertEqual(found["see-init"], "ENOENT")
        bare = self.probe("list-tmp", "see-init",
                          without_keys=("PrivateTmp", "ProtectProc", "ProcSubset"))
        self.assertIn(self.stray.name, bare["list-tmp"])
        self.assertNotEqual(bare["see-init"], "ENOENT")

    def test_the_process_itself(self):
        found = self.probe("status", "user-map", "namespaces", "mode-of-a-new-file", "limits")
        user, group = map(str, self.daemon_account())
        for line in (f"Uid:\t{user}\t{user}\t{user}\t{user}",
                     f"Gid:\t{group}\t{group}\t{group}\t{group}", "NoNewPrivs:\t1", "Seccomp:\t2",
                     *(f"Cap{kind}:\t{'0' * 16}" for kind in ("Inh", "Prm", "Eff", "Bnd", "Amb"))):
            self.assertIn("\n" + line, found["status"])
        self.assertEqual(found["user-map"], ["0", "0", "1", user, user, "1"])
        for name, inside in found["namespaces"].items():
            self.assertNotEqual(inside, os.readlink(f"/proc/self/ns/{name}"))
        self.assertEqual(found["mode-of-a-new-file"], "0o600")
        highest = resource.getrlimit(resource.RLIMIT_NOFILE)[1]
        self.assertEqual(found["limits"], [0, min(65536, highest)])
        bare = self.probe("user-map", "mode-of-a-new-file", without_keys=("PrivateUsers", "UMask"))
        self.assertEqual(len(bare["user-map"]), 3)
        self.assertNotEqual(bare["user-map"][2], "1")
        self.assertEqual(bare["mode-of-a-new-file"], "0o644")

    @unittest.skipUnless(os.uname().machine == "x86_64", "the other architecture is i386")
    def test_calls_of_another_architecture_kill(self):
        # getpid by the 32-bit gate, then exit(0) by the native one.
        code = bytes.fromhex("b814000000cd80" "31ff" "b83c000000" "0f05")
        base, header = 0x400000, 64 + 56
        program = self.folder / "other"
        program.write_bytes(
            struct.pack("<16sHHIQQQIHHHHHH", b"\x7fELF\x02\x01\x01", 2, 62, 1, base + header, 64, 0,
                        0, 64, 56, 1, 0, 0, 0) +
            struct.pack("<IIQQQQQQ", 1, 5, 0, base, base, header + len(code), header + len(code),
                        4096) + code)
        program.chmod(0o755)
        if subprocess.run([str(program)], check=False).returncode != 0:
            self.skipTest("this kernel has no 32-bit gate")
        bare = self.folder / "bare.service"
        bare.write_text(without(UNIT.read_text(), "SystemCallArchitectures", "SystemCallFilter"))
        for unit, status in ((UNIT, -31), (bare, 0)):  # SIGSYS
            done = subprocess.run([*private_command(self.private),
                                   *launcher(unit, self.sandbox_files[-1]), str(program)],
                                  stdin=subprocess.DEVNULL, capture_output=True, check=False)
            self.assertEqual(done.returncode, status, done.stderr)


class Names(SandboxTest):
    def test_the_resolver_works(self):
        """It asks by sockets and files of its own choice, and does without those it cannot have."""
        receiver = self.receiver()
        self.configure(receiver.port, rec_ip="localhost")
        self.write("a.log", self.numbered(1, 20))
        daemon = self.start()
        self.assertEqual(receiver.wait_messages(20), self.expected(1, 20))
        daemon.stop()


class ReadAllLogs(SandboxTest):
    def only_for_members(self):
        """One file that members of adm may read, and one for everyone."""
        self.write("a.log", self.numbered(1, 20))
        self.write("b.log", self.numbered(21, 40))
        os.chown(self.input / "a.log", 0, grp.getgrnam("adm").gr_gid)
        (self.input / "a.log").chmod(0o640)

    def test_without_the_drop_in_it_stays_closed(self):
        self.only_for_members()
        receiver = self.receiver()
        self.configure(receiver.port)
        daemon = self.start()
        receiver.wait_messages(20)
        daemon.wait_log("No events to read")
        daemon.stop()
        self.assertEqual(receiver.messages(), self.expected(21, 40))

    def test_with_it_the_groups_files_are_read(self):
        self.sandbox_files.insert(1, UNITS / "read-all-logs.conf")
        self.only_for_members()
        receiver = self.receiver()
        self.configure(receiver.port)
        daemon = self.start()
        self.assertEqual(sorted(receiver.wait_messages(40)), self.expected(1, 40))
        daemon.stop()


class WithoutManagedHost(ManagedTest):
    """An agent on a host where the drop-in for one was forgotten."""

    unit_drop_ins = ()
    setUpClass = SandboxTest.setUpClass

    def test_a_policy_changes_nothing_and_says_why(self):
        self.conf_path = self.folder / "collector.conf"  # where only root may write
        receiver = self.receiver()
        self.configure(receiver.port)
        before = self.conf_path.read_bytes()
        daemon = self.start()
        daemon.wait_log("Started policy enforcement service")
        self.push("[LOGRELAY1000]", "Tail Mode=end")
        daemon.wait_log("(ERROR) Configuration not updated: ")
        self.assertIn("Read-only file system", daemon.log())
        self.assertEqual(self.conf_path.read_bytes(), before)
        self.write("a.log", self.numbered(1, 20))
        self.assertEqual(receiver.wait_messages(20), self.expected(1, 20))
        daemon.stop()


@unittest.skipUnless(shutil.which("systemd-analyze"), "needs systemd-analyze")
class Verified(unittest.TestCase):
    def test_the_manager_takes_the_unit_with_each_drop_in(self):
        for names in ((), ("managed-host.conf",), ("read-all-logs.conf",),
                      ("managed-host.conf", "read-all-logs.conf")):
            with self.subTest(drop_ins=names):
                done = self.verify(names)
                self.assertEqual((done.returncode, done.stdout + done.stderr), (0, ""))

    def test_a_mistake_in_a_drop_in_is_seen(self):
        done = self.verify((), "SystemCallFilter=@no-such-group\n")
        self.assertIn("no-such-group", done.stderr)

    def test_the_drop_ins_open_little(self):
        for names in (("managed-host.conf",), ("read-all-logs.conf",)):
            with self.subTest(drop_ins=names):
                done = self.analyze("security", "--offline=true", "--no-pager", names=names)
                level = re.search(r"exposure level for \S+: ([\d.]+)", done.stdout)
                if not level:
                    self.skipTest(f"no offline analysis here: {done.stderr[:200]}")
                self.assertLessEqual(float(level[1]), LARGEST_EXPOSURE)

    def verify(self, names, line=""):
        return self.analyze("verify", "--man=no", names=names, line=line)

    def analyze(self, *words, names, line=""):
        """What systemd-analyze says of the unit with some drop-ins and perhaps one more line."""
        folder = Path(self.enterContext(tempfile.TemporaryDirectory()))
        unit = folder / UNIT.name
        # The daemon is not installed here; what stands for it only has to be a program.
        unit.write_text(UNIT.read_text().replace("/usr/sbin/velmor_siem_collector", "/bin/true"))
        drop_ins = folder / (UNIT.name + ".d")
        drop_ins.mkdir()
        for name in names:
            shutil.copy(UNITS / name, drop_ins)
        if line:
            (drop_ins / "line.conf").write_text("[Service]\n" + line)
        return subprocess.run(["systemd-analyze", *words, str(unit)], text=True,
                              stdin=subprocess.DEVNULL, capture_output=True, check=False)


if __name__ == "__main__":
    main()
