"""The process: options, signals, exit statuses, the lock file, the log."""
import os
import re
import signal
import subprocess
from pathlib import Path

import kit_path  # noqa: F401
from daemon_kit import BUILD, DaemonTest, daemon_command, main, wait_for

WIDTH = 40
TRIM_AT = 10_485_760


class Process(DaemonTest):
    def test_each_stop_signal_is_the_exit_status(self):
        receiver = self.receiver()
        self.configure(receiver.port)
        for sig in (signal.SIGHUP, signal.SIGINT, signal.SIGQUIT, signal.SIGTERM):
            with self.subTest(signal=sig):
                daemon = self.start()
                self.assertEqual(daemon.stop(sig), int(sig))
                self.assertIn("Shut down intiated\n\n", daemon.log())

    def test_shutdown_is_logged_in_order(self):
        receiver = self.receiver()
        self.configure(receiver.port)
        self.write("a.log", self.numbered(1, 10, WIDTH))
        daemon = self.start()
        receiver.wait_messages(10)
        daemon.stop()
        log = daemon.log()
        order = [log.index(text) for text in (
            "Initalizing Linux Agent", "Attempting connection to Server", "program arguments",
            "Shut down intiated", "Calling shutdown on plugin: 0", "Filetail shutdown called",
            "Shutdown bookmark for")]
        self.assertEqual(order, sorted(order))

    def test_broken_pipe_is_ignored(self):
        receiver = self.receiver()
        self.configure(receiver.port)
        daemon = self.start()
        daemon.send(signal.SIGPIPE)
        self.write("a.log", self.numbered(1, 10, WIDTH))
        receiver.wait_messages(10)
        daemon.stop()

    def test_stop_signals_in_a_row_end_it_once(self):
        receiver = self.receiver()
        self.configure(receiver.port)
        daemon = self.start()
        for _ in range(5):
            daemon.send(signal.SIGTERM)
        self.assertEqual(daemon.wait(), 15)

    def test_second_instance_does_not_start(self):
        receiver = self.receiver()
        self.configure(receiver.port)
        first = self.start()
        first.wait_log("program arguments")
        log = self.log_path
        self.log_path = self.log_path.with_name("second.log")
        second = self.start(wait=False)
        self.assertEqual(second.wait(), 1)
        self.assertIn("Lock File is Locked\n", second.err.read_text())
        self.assertFalse(self.log_path.exists())
        self.log_path = log
        first.stop()
        third = self.start()
        third.stop()

    def test_lock_is_free_after_a_kill(self):
        receiver = self.receiver()
        self.configure(receiver.port)
        self.start().kill()
        self.start().stop()

    def test_unreadable_configuration(self):
        daemon = self.start(conf=self.folder / "none.conf", log=False, wait=False)
        self.assertEqual(daemon.wait(), 1)
        self.assertIn(f"Error: Failed to open conf file {self.folder}/none.conf with error 2("
                      "No such file or directory)\n", daemon.out.read_text())

    def test_default_configuration_and_log(self):
        self.need_namespace()
        receiver = self.receiver()
        folder = self.private / "opt/Velmor/siem"
        folder.mkdir(parents=True)
        self.configure(receiver.port, path=folder / "velmor_siem_collector.conf", log_path=None)
        self.write("a.log", self.numbered(1, 10, WIDTH))
        self.log_path = self.private / "log/velmor/siem_collector.log"
        daemon = self.start(conf=False)
        receiver.wait_messages(10)
        daemon.stop()
        self.assertTrue((self.private / "lock/velmor_siem_collector.loc").exists())

    def test_bookmark_directory_that_cannot_be_made(self):
        receiver = self.receiver()
        (self.folder / "file").write_text("")
        self.bookmarks = self.folder / "file" / "below"
        self.configure(receiver.port)
        daemon = self.start(wait=False)
        self.assertEqual(daemon.wait(), 0)
        self.assertIn("Error: could not create directory for bookmark storage.", daemon.log())
        self.assertEqual(receiver.count(), 0)

    def usage_of(self, *args):
        daemon = self.start(*args, conf=False, log=False, wait=False)
        self.assertEqual(daemon.wait(), 1)
        return daemon.out.read_text()

    def test_usage(self):
        text = self.usage_of("-h")
        self.assertTrue(text.startswith("usage: ozu [options]\n\n   h help "), text[:80])
        self.assertIn("/opt/Velmor/siem/velmor_siem_collector.conf", text)

    def test_invalid_arguments(self):
        for args, message in ((("-t", "0"), "timeout-retry value invalid"),
                              (("-s", "-5"), "timeout-sleep value invalid"),
                              (("-r", "abc"), "query-retry value invalid"),
                              (("--log-file",), "Unrecognized argument: ?"),
                              (("-c",), "Unrecognized argument: ?")):
            with self.subTest(args=args):
                self.assertTrue(self.usage_of(*args).startswith(message + "\n\nusage: ozu"))

    def test_arguments_are_logged(self):
        receiver = self.receiver()
        self.configure(receiver.port)
        daemon = self.start("-t", "7")
        daemon.wait_log("query-retry")
        daemon.stop()
        lines = [line.split("(INFO) ", 1)[1] for line in daemon.log().splitlines()
                 if "(INFO) " in line]
        begin = lines.index("program arguments")
        self.assertEqual(lines[begin + 1:begin + 9], [
            f"  * (c) config-file      ={self.conf_path}", "  * (d) daemonize        =0",
            "  * (a) auto-learn       =0", "  * (l) log-level        =15",
            "  * (f) log-file         =1", "  * (t) timeout-retry    =7",
            "    (s) timeout-sleep    =300", "    (r) query-retry      =60"])

    def levels_with(self, *args, **settings):
        receiver = self.receiver()
        self.configure(receiver.port, {"ft_dir": self.folder / "gone"}, {}, **settings)
        self.write("a.log", self.numbered(1, 10, WIDTH), "w")
        (self.bookmarks / "ft_bookmark").unlink(missing_ok=True)
        daemon = self.start(*args, wait=False)
        receiver.wait_messages(10)
        daemon.stop()
        return {word for word in ("ERROR", "INFO", "WARN", "DEBUG", "DIAG")
                if f"({word})" in daemon.log()}

    def test_log_levels(self):
        for word, levels in (("error", set()), ("INFO", {"INFO"}), ("warn", {"INFO", "WARN"}),
                             ("DEBUG", {"INFO", "WARN", "DEBUG"}),
                             ("diag", {"INFO", "WARN", "DEBUG", "DIAG"})):
            with self.subTest(word=word):
                self.assertEqual(self.levels_with(debug_level=word), levels)

    def test_level_of_the_command_line_wins(self):
        self.assertEqual(self.levels_with("-l", "info", debug_level="diag"), {"INFO"})

    def test_unknown_level_word_gives_way_to_the_file(self):
        self.assertEqual(self.levels_with("-l", "warning", debug_level="info"), {"INFO"})

    def test_console_log(self):
        receiver = self.receiver()
        self.configure(receiver.port)
        self.write("a.log", self.numbered(1, 10, WIDTH))
        daemon = self.start(log=False, wait=False)
        receiver.wait_messages(10)
        daemon.stop()
        self.assertIn("(INFO) Initalizing Linux Agent\n", daemon.out.read_text())
        self.assertFalse(self.log_path.exists())

    def test_each_start_begins_an_empty_log(self):
        receiver = self.receiver()
        self.configure(receiver.port)
        for _ in range(2):
            self.start().stop()
            self.assertEqual(self.log_path.read_text().count("Initalizing Linux Agent"), 1)

    def test_log_is_emptied_at_ten_mebibytes(self):
        receiver = self.receiver()
        self.configure(receiver.port)
        daemon = self.start()
        daemon.wait_log("No events to read")
        with open(self.log_path, "ab", buffering=0) as log:
            log.write(b"#" * 99 + b"\n" + b"%" * (TRIM_AT - 100))
        wait_for(lambda: self.log_path.stat().st_size < TRIM_AT // 2, "an emptied log")
        self.write("a.log", self.numbered(1, 10, WIDTH))
        receiver.wait_messages(10)
        daemon.wait_log("event(s) to SIEM")
        daemon.stop()
        self.assertNotIn("####", daemon.log())
        self.assertNotIn("%%%%", daemon.log())
        self.assertFalse(self.log_path.with_name("collector.log.tmp").exists())

    def find_daemon(self):
        """The process whose command line names our configuration."""
        for pid in filter(str.isdigit, os.listdir("/proc")):
            try:
                words = Path(f"/proc/{pid}/cmdline").read_bytes().split(b"\0")
            except OSError:
                continue
            ours = str(self.conf_path).encode() in words
            if ours and words[0].endswith(b"velmor_siem_collector"):
                return int(pid)
        return None

    def detached(self, *args, **settings):
        receiver = self.receiver()
        self.configure(receiver.port, **settings)
        self.write("a.log", self.numbered(1, 10, WIDTH))
        daemon = self.start(*args, wait=False)
        self.assertEqual(daemon.wait(), 0)
        receiver.wait_messages(10)
        pid = self.find_daemon()
        self.assertIsNotNone(pid)
        try:
            # The files themselves: in a changed root their names are others, and a /dev of the
            # daemon's own has the same device under another inode.
            self.assertTrue(os.path.samefile(f"/proc/{pid}/cwd", "/"))
            for fd in (0, 1):
                self.assertEqual(os.stat(f"/proc/{pid}/fd/{fd}").st_rdev,
                                 os.stat("/dev/null").st_rdev)
            # The lock went over to the process that stays.
            second = self.start("-l", "info", wait=False)
            self.assertEqual(second.wait(), 1)
        finally:
            os.kill(pid, signal.SIGTERM)
            wait_for(lambda: self.find_daemon() is None, "the end of the detached daemon")

    def test_detached_by_option(self):
        self.detached("-d")

    def test_detached_by_configuration(self):
        self.detached(daemonize=1)

    def test_configuration_can_forbid_detaching(self):
        receiver = self.receiver()
        self.configure(receiver.port, daemonize=0)
        daemon = self.start("-d")
        daemon.wait_log("No events to read")
        daemon.stop()

    def test_closed_standard_streams(self):
        receiver = self.receiver()
        self.configure(receiver.port)
        self.write("a.log", self.numbered(1, 10, WIDTH))
        command = daemon_command(self) + [
            "sh", "-c", 'exec "$@" <&- >&- 2>&-', "sh", str(BUILD / "bin/velmor_siem_collector"),
            "-c", str(self.conf_path)]
        process = subprocess.Popen(command, stdin=subprocess.DEVNULL, cwd=self.folder)
        self.addCleanup(process.wait)
        self.addCleanup(process.kill)
        receiver.wait_messages(10)
        for stream in range(3):  # also none of the files that the libraries open before main()
            device = os.stat(f"/proc/{process.pid}/fd/{stream}").st_rdev
            self.assertEqual(device, os.stat(os.devnull).st_rdev, f"standard stream {stream}")
        process.terminate()
        self.assertEqual(process.wait(60), 15)
        self.assertEqual(receiver.messages(), self.expected(1, 10, WIDTH))

    @staticmethod
    def inherited_by_children(daemon):
        """Descriptors behind the standard streams that are not closed on exec."""
        inherited = []
        for fd in os.listdir(f"/proc/{daemon.pid}/fdinfo"):
            try:
                with open(f"/proc/{daemon.pid}/fdinfo/{fd}", encoding="ascii") as info:
                    flags = re.search(r"^flags:\s*([0-7]+)$", info.read(), re.MULTILINE)
                name = os.readlink(f"/proc/{daemon.pid}/fd/{fd}")
            except OSError:
                continue  # closed meanwhile
            if int(fd) > 2 and not int(flags[1], 8) & os.O_CLOEXEC:
                inherited.append((fd, name))
        return inherited

    def test_no_descriptor_leaks_into_children_or_over_time(self):
        receiver = self.receiver()
        self.configure(receiver.port, sleep=0)
        self.write("a.log", self.numbered(1, 10, WIDTH))
        daemon = self.start()
        receiver.wait_messages(10)
        self.assertEqual(self.inherited_by_children(daemon), [])
        count = len(os.listdir(f"/proc/{daemon.pid}/fd"))
        for n in range(2, 12):
            self.write("a.log", self.numbered(n * 10 - 9, n * 10, WIDTH))
            receiver.wait_messages(n * 10)
        wait_for(lambda: len(os.listdir(f"/proc/{daemon.pid}/fd")) <= count, "no more descriptors")
        daemon.stop()

    def test_run_from_another_folder(self):
        receiver = self.receiver()
        self.configure(receiver.port)
        self.write("a.log", self.numbered(1, 10, WIDTH))
        daemon = self.start(conf=self.conf_path.name)
        receiver.wait_messages(10)
        daemon.stop()


if __name__ == "__main__":
    main()
