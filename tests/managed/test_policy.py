"""Policies: what they change in the file, what they must not, and that no event is lost over them.
"""
import os
import signal
import subprocess
import threading
import time

import kit_path  # noqa: F401
from daemon_kit import BUDGET_SECONDS, main, wait_for
from managed_kit import ManagedTest

GLOBAL = "[LOGRELAY1000]"


class Policy(ManagedTest):
    def managed(self, *sections, **options):
        self.sink = self.receiver()
        self.configure(self.sink.port, *sections, **options)
        daemon = self.start()
        daemon.wait_log("Started policy enforcement service")
        return daemon

    def leftovers(self):
        return [p.name for p in self.conf_path.parent.iterdir()
                if p.name.startswith(self.conf_path.name) and p != self.conf_path]

    def test_an_identical_policy_changes_nothing(self):
        daemon = self.managed()
        before = self.conf_path.read_bytes(), self.conf_path.stat().st_mtime_ns
        self.push(GLOBAL, "Receiver IP=127.0.0.1", "Encryption=false", "Tail Mode=begin",
                  "Log File=*.log", "No Such Name=x")
        daemon.wait_log("No policy update, configs are identical")
        self.assertEqual(before, (self.conf_path.read_bytes(), self.conf_path.stat().st_mtime_ns))
        for text in ("Values match(rec_ip): 127.0.0.1", "Values match(rec_encrypt): 0",
                     "Values match(ft_start_top): 1", "Values match(ft_filter): *.log"):
            self.assertIn(text, daemon.log())
        self.assertNotIn("Calling shutdown on plugin", daemon.log())
        daemon.stop()

    def test_a_policy_moves_the_directory_while_events_flow(self):
        daemon = self.managed()
        other = self.folder / "other"
        other.mkdir()
        self.write("a.log", self.numbered(1, 500))
        self.sink.wait_messages(500)
        (other / "b.log").write_text(self.numbered(501, 1000))
        self.push(GLOBAL, f"Log Directory={other}")
        got = self.sink.wait_messages(1000)
        self.assertEqual(got, self.expected(1, 1000))
        self.assertIn(f"ft_dir={other}", self.conf_lines())
        self.assertIn("(WARN) Updating local configuration, 1 descrepancies.", daemon.log())
        self.assertEqual(self.leftovers(), [])
        daemon.stop()

    def test_owner_and_mode_stay(self):
        daemon = self.managed()
        os.chmod(self.conf_path, 0o640)
        owner = self.other_owner()
        os.chown(self.conf_path, *owner)
        self.push(GLOBAL, "Tail Mode=end")
        status = self.conf_path.stat()
        self.assertEqual((status.st_uid, status.st_gid, status.st_mode & 0o7777), (*owner, 0o640))
        self.assertIn("ft_start_top=0", self.conf_lines())
        daemon.stop()

    def test_a_link_stays_a_link(self):
        self.sink = self.receiver()
        real = self.conf_path.with_name("real.conf")
        self.configure(self.sink.port, path=real)
        self.conf_path.symlink_to(real)
        daemon = self.start()
        daemon.wait_log("Started policy enforcement service")
        self.push(GLOBAL, "Tail Mode=end")
        self.assertTrue(self.conf_path.is_symlink())
        self.assertIn("ft_start_top=0", real.read_text().split("\n"))
        daemon.stop()

    def test_a_new_section_is_appended_and_read(self):
        daemon = self.managed()
        other = self.folder / "other"
        other.mkdir()
        (other / "b.txt").write_text(self.numbered(1, 50))
        before = self.conf_path.read_text()
        self.push(GLOBAL, "[File.2]", "Tail Mode=begin", f"Log Directory={other}",
                  "Log File=*.txt", "Event Delimeter=<newline>")
        self.assertEqual(self.conf_path.read_text(), before + "\ntype=filetail\n"
                         "ft_delim_end_of_event=1\nft_delim=<newline>\n"
                         f"ft_dir={other}\nft_filter=*.txt\nft_start_top=1\n")
        self.assertEqual(self.sink.wait_messages(50), self.expected(1, 50))
        daemon.stop()

    def test_fewer_sections_rebuild_the_plugins(self):
        other = self.folder / "other"
        other.mkdir()
        daemon = self.managed({}, {"ft_dir": other}, {"ft_dir": self.folder / "third"})
        before = self.conf_path.read_text()
        self.push("[File.2]", f"Log Directory={self.input}", "Log File=*.log", "Event Delimeter=",
                  "[File.1]", f"Log Directory={other}", "Log File=*.log", "Tail Mode=begin")
        self.assertEqual(
            self.conf_path.read_text(), before[:before.index("type=")] + "type=filetail\n"
            f"ft_delim_end_of_event=1\nft_dir={other}\nft_filter=*.log\nft_start_top=1\n\n"
            f"type=filetail\nft_delim_end_of_event=1\nft_delim=[newline]\nft_dir={self.input}\n"
            "ft_filter=*.log\n")
        self.assertIn("An Ozu plugin has been deleted.  Recreating full plugin configuration",
                      daemon.log())
        daemon.stop()

    def test_no_policy_can_inject_a_key(self):
        daemon = self.managed()
        before = self.conf_path.read_bytes()
        self.push(GLOBAL, "Receiver IP=10.0.0.1\\nrec_port=1", "Log File=*.x\\rft_dir=/",
                  "Event Delimeter=a\\0b", "Tail Mode=\uf70a", "[File.1\\ntype=filetail]",
                  "Log Directory=/etc")
        daemon.wait_log("No policy update, configs are identical")
        self.assertEqual(self.conf_path.read_bytes(), before)
        for name in ("Receiver IP", "Log File", "Event Delimeter", "Tail Mode", "Log Directory"):
            self.assertIn(f"(ERROR) Refused policy setting {name} of section", daemon.log())
        daemon.stop()

    def test_strange_policies_are_survived(self):
        daemon = self.managed()
        big = "x" * (1 << 20)
        self.push("[File.99999999999999999999999]", "Log File=*.huge",
                  "[File.-7]", "Log File=*.negative", "[File]", "[File.]", "[]", "Log File=*.none",
                  GLOBAL, f"Receiver IP={big}", "Log Directory=/\u00e4\u20ac\U0001f600")
        lines = self.conf_lines()
        self.assertIn(f"rec_ip={big}", lines)
        self.assertIn("ft_dir=/\u00e4\u20ac\U0001f600", lines)
        self.assertEqual([n for n in lines if n.startswith("ft_filter")],
                         ["ft_filter=*.none", "ft_filter=*.negative", "ft_filter=*.huge"])
        self.push(GLOBAL, f"Receiver IP={big}", "Log Directory=/\u00e4\u20ac\U0001f600")
        daemon.wait_log("No policy update, configs are identical")
        self.push(GLOBAL, "Receiver IP=127.0.0.1", f"Log Directory={self.input}")
        self.write("a.none", self.numbered(1, 20))
        self.assertEqual(self.sink.wait_messages(20), self.expected(1, 20))
        daemon.stop()

    def test_no_accessor_and_user_policies_change_nothing(self):
        daemon = self.managed()
        before = self.conf_path.read_bytes()
        self.assertTrue(self.ask("push", "--null-accessor")[0]["result"])
        daemon.wait_log("(ERROR) accessor object null")
        self.assertTrue(self.push(GLOBAL, "Tail Mode=end", options=["--user"])[0]["result"])
        self.assertEqual(self.conf_path.read_bytes(), before)
        self.assertEqual(daemon.log().count("Enforce Policy called"), 1)
        daemon.stop()

    def test_a_file_that_cannot_be_replaced_keeps_the_configuration(self):
        daemon = self.managed()
        # A folder in the new file's place.
        self.conf_path.with_name(self.conf_path.name + ".new").mkdir()
        before = self.conf_path.read_bytes()
        self.push(GLOBAL, "Tail Mode=end")
        daemon.wait_log("(ERROR) Configuration not updated:")
        self.assertEqual(self.conf_path.read_bytes(), before)
        self.assertNotIn("Calling shutdown on plugin", daemon.log())
        self.write("a.log", self.numbered(1, 20))
        self.sink.wait_messages(20)
        daemon.stop()

    def test_a_policy_wakes_a_daemon_without_plugins(self):
        self.sink = self.receiver()
        self.configure(self.sink.port)
        text = self.conf_path.read_text()
        self.conf_path.write_text(text[:text.index("type=")])
        daemon = self.start()
        daemon.wait_log("Error: not a valid config. No plugins defined.")
        self.write("a.log", self.numbered(1, 20))
        self.push("[File.1]", f"Log Directory={self.input}", "Log File=*.log",
                  "Event Delimeter=<newline>", "Tail Mode=begin")
        self.assertEqual(self.sink.wait_messages(20), self.expected(1, 20))
        daemon.stop()


class Concurrent(ManagedTest):
    def begin_push(self, policy, *options):
        return subprocess.Popen(self.command("push", "--policy", policy, *options),
                                stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                stderr=subprocess.PIPE, env=self.agent_environment())

    def watch_the_file(self, done):
        """Reads the file over and over; every time it must be a whole one."""
        while not done.is_set():
            text = self.conf_path.read_text()
            self.watched += 1
            if not (text.endswith("\n") and "\nft_delim=<newline>\nft_start_top=" in text):
                self.torn.append(text)
            time.sleep(0.002)

    def test_two_hundred_pushes_under_load(self):
        pushes = 200
        receiver = self.receiver()
        self.configure(receiver.port, debug_level="info", throttle=500)
        daemon = self.start()
        daemon.wait_log("Started policy enforcement service")
        self.watched, self.torn = 0, []
        done = threading.Event()
        threads = [threading.Thread(target=self.watch_the_file, args=(done,)),
                   threading.Thread(target=self.write_events, args=(done,))]
        for thread in threads:
            thread.start()
        try:
            # Two words for one level: with "warn" the library's trace of each event could fill the
            # log up to where it is emptied.
            first = self.policy(GLOBAL, "OZU Group Log Level=INFO", name="first")
            second = self.policy(GLOBAL, "OZU Group Log Level=info", name="second")
            answers = self.ask("push", "--policy", first, "--policy", second, "--count", pushes,
                               "--pause", 20)
        finally:
            done.set()
            for thread in threads:
                thread.join()
        self.assertEqual([a["result"] for a in answers], [True] * pushes)
        got = receiver.wait_messages(self.written, BUDGET_SECONDS * 4)
        daemon.stop()
        self.assertEqual(len(got), self.written)
        self.assertEqual(got, self.expected(1, self.written))
        self.assertEqual((self.torn[:1], self.watched > 0), ([], True))
        self.assertIn("debug_level=info", self.conf_lines())
        self.assertEqual(daemon.log().count("Calling shutdown on plugin: 0"), pushes + 1)

    def write_events(self, done):
        """Some thousands a second, in small pieces, until told to stop. Where the pushes take long
        it slows down, so that what is to be delivered stays within reason."""
        self.written = 0
        while not done.is_set():
            self.write("a.log", self.numbered(self.written + 1, self.written + 100))
            self.written += 100
            time.sleep(0.02 if self.written < 60000 else 0.5)

    def test_nothing_is_left_behind_by_restarts(self):
        receiver = self.receiver()
        self.configure(receiver.port, debug_level="info", wake_on_change=1)
        daemon = self.start()
        daemon.wait_log("Started policy enforcement service")
        policies = [self.policy(GLOBAL, f"Tail Mode={m}", name=m) for m in ("end", "begin")]

        def restart(times):
            self.ask("push", "--policy", policies[0], "--policy", policies[1], "--count", times)
            self.ask("reload")

        def held():
            """What the process holds, by name."""
            names = []
            for fd in os.listdir(f"/proc/{daemon.pid}/fd"):
                try:
                    names.append(os.readlink(f"/proc/{daemon.pid}/fd/{fd}").split("[")[0])
                except OSError:
                    pass  # closed meanwhile
            return sorted(names), len(os.listdir(f"/proc/{daemon.pid}/task"))

        self.write("a.log", self.numbered(1, 100))
        receiver.wait_messages(100)
        restart(4)
        daemon.wait_log("Started policy enforcement service", 2)
        self.write("a.log", self.numbered(101, 200))
        receiver.wait_messages(200)
        before = held()
        for n in range(3):
            restart(6)
            daemon.wait_log("Started policy enforcement service", 3 + n)
        self.write("a.log", self.numbered(201, 300))
        self.assertEqual(receiver.wait_messages(300), self.expected(1, 300))
        # The thread that has reloaded the runtime ends a moment later.
        wait_for(lambda: len(held()[0]) <= len(before[0]) and held()[1] <= before[1],
                 f"no more than {before}, there is {held()}")
        daemon.stop()

    def test_two_policies_at_once_do_not_overlap(self):
        receiver = self.receiver()
        self.configure(receiver.port)
        daemon = self.start()
        daemon.wait_log("Started policy enforcement service")
        policies = [self.policy(GLOBAL, f"Log File=*.{name}", name=name) for name in "ab"]
        running = [self.begin_push(policy, "--count", 20) for policy in policies]
        for process in running:
            out, err = process.communicate(timeout=BUDGET_SECONDS * 2)
            self.assertEqual((process.returncode, out.count(b'"result":true')), (0, 20), err)
        log = daemon.log()
        updates = [line for line in log.split("\n") if "Updated 'ft_filter'" in line]
        self.assertEqual(log.count("(WARN) Updating local configuration, 1 descrepancies."),
                         len(updates))
        last = updates[-1][-1]
        self.assertIn(f"ft_filter=*.{last}", self.conf_lines())
        self.write(f"x.{last}", self.numbered(1, 20))
        self.assertEqual(receiver.wait_messages(20), self.expected(1, 20))
        daemon.stop()

    def test_a_policy_may_come_while_the_daemon_starts(self):
        receiver = self.receiver()
        self.configure(receiver.port)
        self.write("a.log", self.numbered(1, 200))
        policy = self.policy(GLOBAL, "Tail Mode=end")
        waiting = self.begin_push(policy)
        daemon = self.start(wait=False)
        _, err = waiting.communicate(timeout=BUDGET_SECONDS * 2)
        # It may find the runtime up and the service not yet there; then it comes again.
        if waiting.returncode != 0:
            self.assertIn(b"Service not available", err)
            daemon.wait_log("Started policy enforcement service")
            self.push(GLOBAL, "Tail Mode=end")
        self.assertIn("ft_start_top=0", self.conf_lines())
        receiver.wait_messages(200)
        self.write("a.log", self.numbered(201, 300))
        self.assertEqual(receiver.wait_messages(300), self.expected(1, 300))
        daemon.stop()

    def test_a_stop_may_come_while_policies_do(self):
        receiver = self.receiver()
        self.configure(receiver.port)
        policies = [self.policy(GLOBAL, f"Tail Mode={m}", name=m) for m in ("end", "begin")]
        for pause in (0.0, 0.01, 0.05, 0.1):
            daemon = self.start()
            daemon.wait_log("Started policy enforcement service")
            pushing = self.begin_push(policies[0], "--policy", policies[1], "--count", 100000)
            daemon.wait_log("Enforce Policy called")
            time.sleep(pause)
            daemon.stop(signal.SIGTERM)
            pushing.communicate(timeout=BUDGET_SECONDS)
            self.assertEqual(pushing.returncode, 1)
            self.assertIn(self.conf_lines()[-2], ("ft_start_top=0", "ft_start_top=1", ""))
            self.assertIn("DeInitializing LPC", daemon.log())

    def test_a_killed_agent_and_a_killed_daemon_leave_a_whole_file(self):
        receiver = self.receiver()
        self.configure(receiver.port)
        policies = [self.policy(GLOBAL, f"Log File=*.{n}", name=n) for n in ("log", "txt")]
        for round_number in range(6):
            daemon = self.start()
            daemon.wait_log("Started policy enforcement service")
            pushing = self.begin_push(policies[0], "--policy", policies[1], "--count", 100000)
            daemon.wait_log("Updating local configuration", 3)
            if round_number % 2:
                pushing.kill()
                wait_for(lambda: pushing.poll() is not None, "the end of the agent")
            daemon.kill()
            pushing.communicate(timeout=BUDGET_SECONDS)
            lines = [line for line in self.conf_lines() if line]
            self.assertEqual(len(lines), 13, lines)
            self.assertIn(lines[10], ("ft_filter=*.log", "ft_filter=*.txt"))


if __name__ == "__main__":
    main()
