"""Where reading begins, and where it goes on after everything that happens to files and daemons.

A file that grew from under 256 bytes counts as new and is read again; so every file here begins
with more than that, written at once, except where just this is the subject.
"""
import os
import random
import signal
import socket
import time

import kit_path  # noqa: F401
from daemon_kit import DaemonTest, main, wait_for

WIDTH = 40
LINE = WIDTH + 1


class Positions(DaemonTest):
    def begin(self, **section):
        receiver = self.receiver()
        self.configure(receiver.port, section)
        return receiver

    def test_start_at_the_end(self):
        receiver = self.begin(ft_start_top=0)
        self.write("a.log", self.numbered(1, 20, WIDTH))
        daemon = self.start()
        self.wait_bookmark("a.log", 20 * LINE)
        self.write("a.log", self.numbered(21, 30, WIDTH))
        self.assertEqual(receiver.wait_messages(10), self.expected(21, 30, WIDTH))
        daemon.stop()
        self.assertEqual(receiver.messages(), self.expected(21, 30, WIDTH))

    def test_start_at_the_end_is_the_default(self):
        receiver = self.begin(ft_start_top=None)
        self.write("a.log", self.numbered(1, 20, WIDTH))
        daemon = self.start()
        self.wait_bookmark("a.log", 20 * LINE)
        self.write("a.log", self.numbered(21, 21, WIDTH))
        self.assertEqual(receiver.wait_messages(1), self.expected(21, 21, WIDTH))
        daemon.stop()

    def test_start_at_the_top(self):
        receiver = self.begin()
        self.write("a.log", self.numbered(1, 50, WIDTH))
        daemon = self.start()
        self.assertEqual(receiver.wait_messages(50), self.expected(1, 50, WIDTH))
        self.wait_bookmark("a.log", 50 * LINE)
        daemon.stop()
        self.assertEqual(receiver.count(), 50)

    def test_resume_after_a_stop(self):
        receiver = self.begin()
        self.write("a.log", self.numbered(1, 20, WIDTH))
        daemon = self.start()
        receiver.wait_messages(20)
        daemon.stop()
        self.write("a.log", self.numbered(21, 40, WIDTH))
        daemon = self.start()
        self.assertEqual(receiver.wait_messages(40), self.expected(1, 40, WIDTH))
        daemon.wait_log(f"Resume reading file: {self.input}/a.log starting at: {20 * LINE}")
        daemon.stop()
        self.assertEqual(receiver.count(), 40)

    def test_stop_in_the_middle_loses_and_repeats_nothing(self):
        receiver = self.begin(ft_filter="*.log")
        self.write("a.log", self.numbered(1, 4000, WIDTH))
        for _ in range(3):
            daemon = self.start()
            seen = receiver.count()
            wait_for(lambda: receiver.count() > seen or receiver.count() == 4000, "progress")
            daemon.stop()
        daemon = self.start()
        receiver.wait_messages(4000)
        daemon.stop()
        self.assertEqual(receiver.messages(), self.expected(1, 4000, WIDTH))

    def test_kill_repeats_at_most_one_event_and_loses_none(self):
        receiver = self.begin()
        total, kills = 4000, 4
        self.write("a.log", self.numbered(1, total, WIDTH))
        dice = random.Random(20)
        for _ in range(kills):
            daemon = self.start()
            seen = receiver.count()
            wait_for(lambda: receiver.count() > seen or receiver.count() >= total, "progress")
            time.sleep(dice.random() * 0.05)
            daemon.kill()
        daemon = self.start()
        self.wait_bookmark("a.log", total * LINE)
        daemon.stop()
        wait_for(lambda: receiver.messages()[-1:] == self.expected(total, total, WIDTH), "the end")
        got = receiver.messages()
        without_repeats = [m for i, m in enumerate(got) if i == 0 or m != got[i - 1]]
        self.assertEqual(without_repeats, self.expected(1, total, WIDTH))
        self.assertLessEqual(len(got) - total, kills)

    def test_truncated_file_is_read_from_its_start(self):
        receiver = self.begin()
        self.write("a.log", self.numbered(1, 40, WIDTH))
        daemon = self.start()
        receiver.wait_messages(40)
        self.wait_bookmark("a.log", 40 * LINE)
        with open(self.input / "a.log", "r+b", buffering=0) as file:
            file.truncate(0)
            daemon.wait_log("Started reading file over cause the start of the file didn't match")
            file.write(self.numbered(41, 60, WIDTH).encode())
        got = receiver.wait_messages(60)
        self.assertEqual(got[40:60], self.expected(41, 60, WIDTH))
        daemon.stop()

    def test_rotated_file_is_read_from_its_start(self):
        receiver = self.begin()
        self.write("a.log", self.numbered(1, 20, WIDTH))
        daemon = self.start()
        receiver.wait_messages(20)
        self.wait_bookmark("a.log", 20 * LINE)
        # The new file is larger than the position: only its beginning tells it from the old one.
        self.write("new", self.numbered(21, 60, WIDTH))
        os.rename(self.input / "a.log", self.input / "a.log.1")
        os.rename(self.input / "new", self.input / "a.log")
        self.assertEqual(receiver.wait_messages(60), self.expected(1, 60, WIDTH))
        daemon.stop()
        self.assertEqual(receiver.count(), 60)

    def test_rotation_while_the_daemon_is_down(self):
        receiver = self.begin()
        self.write("a.log", self.numbered(1, 20, WIDTH))
        daemon = self.start()
        receiver.wait_messages(20)
        daemon.stop()
        os.rename(self.input / "a.log", self.input / "a.log.1")
        self.write("a.log", self.numbered(21, 60, WIDTH))
        daemon = self.start()
        self.assertEqual(receiver.wait_messages(60), self.expected(1, 60, WIDTH))
        daemon.stop()

    def test_small_file_that_grows_is_read_again(self):
        receiver = self.begin()
        self.write("a.log", "short\n")
        daemon = self.start()
        receiver.wait_messages(1)
        self.wait_bookmark("a.log", 6)
        self.write("a.log", "next\n")
        self.assertEqual(receiver.wait_messages(3), ["short ", "short ", "next "])
        daemon.stop()

    def test_vanished_file_loses_its_bookmark(self):
        receiver = self.begin()
        for name in ("a.log", "b.log", "c.log"):
            self.write(name, self.numbered(1, 10, WIDTH))
        daemon = self.start()
        receiver.wait_messages(30)
        wait_for(lambda: len(self.bookmark_records()) == 3, "three bookmarks")
        os.unlink(self.input / "b.log")
        wait_for(lambda: set(self.bookmark_records()) == {f"{self.input}/a.log",
                                                         f"{self.input}/c.log"}, "two bookmarks")
        daemon.wait_log(f"Removing {self.input}/b.log because it was not detected")
        # Back again, it is a new file.
        self.write("new", self.numbered(11, 20, WIDTH))
        os.rename(self.input / "new", self.input / "b.log")
        got = receiver.wait_messages(40)
        self.assertEqual(got[30:], self.expected(11, 20, WIDTH))
        daemon.stop()

    def test_many_files_vanish_at_once(self):
        receiver = self.begin()
        for n in range(30):
            self.write(f"{n}.log", self.numbered(n, n, 300))
        self.write("stays.log", self.numbered(100, 100, 300))
        daemon = self.start()
        receiver.wait_messages(31)
        for n in range(30):
            os.unlink(self.input / f"{n}.log")
        wait_for(lambda: list(self.bookmark_records()) == [f"{self.input}/stays.log"],
                 "one bookmark")
        self.write("stays.log", self.numbered(101, 101, 300))
        self.assertEqual(receiver.wait_messages(32)[31:], self.expected(101, 101, 300))
        daemon.stop()

    def test_directory_that_vanishes_and_returns(self):
        receiver = self.begin()
        self.write("a.log", self.numbered(1, 10, WIDTH))
        daemon = self.start()
        receiver.wait_messages(10)
        os.rename(self.input, self.folder / "away")
        daemon.wait_log(f"Failed to get list of files for: {self.input}/")
        os.rename(self.folder / "away", self.input)
        self.write("a.log", self.numbered(11, 20, WIDTH))
        got = receiver.wait_messages(20)
        self.assertEqual(got[-10:], self.expected(11, 20, WIDTH))
        daemon.stop()

    def test_new_file_while_running(self):
        receiver = self.begin()
        daemon = self.start()
        daemon.wait_log("No events to read, sleeping 1 second(s)")
        self.write("late.log", self.numbered(1, 10, WIDTH))
        self.assertEqual(receiver.wait_messages(10), self.expected(1, 10, WIDTH))
        daemon.stop()

    def test_names_that_do_not_match_are_left_alone(self):
        receiver = self.begin()
        self.write("a.log.1", self.numbered(1, 10, WIDTH))
        self.write(".hidden", self.numbered(1, 10, WIDTH))
        self.write("a.log", self.numbered(11, 20, WIDTH))
        daemon = self.start()
        receiver.wait_messages(10)
        daemon.wait_log("No events to read")
        daemon.stop()
        self.assertEqual(receiver.messages(), self.expected(11, 20, WIDTH))

    def test_only_regular_files_produce_events(self):
        receiver = self.begin(ft_filter="*")
        os.mkfifo(self.input / "pipe.log")
        (self.input / "folder.log").mkdir()
        listener = socket.socket(socket.AF_UNIX)
        self.addCleanup(listener.close)
        listener.bind(str(self.input / "socket.log"))
        os.symlink("/dev/zero", self.input / "zero.log")
        os.symlink("gone", self.input / "dangling.log")
        self.write("a.log", self.numbered(1, 10, WIDTH))
        daemon = self.start()
        receiver.wait_messages(10)
        daemon.wait_log("No events to read", count=2)
        daemon.stop()
        self.assertEqual(receiver.messages(), self.expected(1, 10, WIDTH))

    def test_symlink_to_a_file_is_followed(self):
        receiver = self.begin()
        (self.folder / "real").write_text(self.numbered(1, 10, WIDTH))
        os.symlink(self.folder / "real", self.input / "link.log")
        daemon = self.start()
        self.assertEqual(receiver.wait_messages(10), self.expected(1, 10, WIDTH))
        daemon.stop()

    def test_own_log_and_bookmarks_are_not_tailed(self):
        receiver = self.receiver()
        self.log_path = self.input / "collector.log"
        self.bookmarks = self.daemon_writes(self.input)
        self.configure(receiver.port, {"ft_filter": "*"})
        self.write("a.txt", self.numbered(1, 10, WIDTH))
        daemon = self.start()
        receiver.wait_messages(10)
        daemon.wait_log("No events to read", count=2)
        daemon.stop()
        self.assertEqual(receiver.messages(), self.expected(1, 10, WIDTH))

    def test_changed_bookmark_is_the_truth(self):
        receiver = self.begin()
        self.write("a.log", self.numbered(1, 20, WIDTH))
        daemon = self.start()
        receiver.wait_messages(20)
        self.wait_bookmark("a.log", 20 * LINE)
        daemon.stop(signal.SIGINT)
        store = self.bookmarks / "ft_bookmark"
        text = store.read_text()
        store.write_text(f"{10 * LINE:015d}" + text[15:])
        daemon = self.start()
        got = receiver.wait_messages(30)
        self.assertEqual(got[20:], self.expected(11, 20, WIDTH))
        daemon.stop()

    def test_without_a_usable_bookmark_file_nothing_is_repeated(self):
        file = self.bookmarks / "ft_bookmark"
        file.mkdir(parents=True)
        receiver = self.receiver()
        self.configure(receiver.port)
        for count, line in enumerate(("one\n", "two\n", "three\n"), 1):
            self.write("a.log", line)
            if count == 1:
                daemon = self.start()
            receiver.wait_messages(count)
            daemon.wait_log("No events to read", daemon.log().count("No events to read") + 1)
        daemon.stop()
        self.assertEqual(receiver.messages(), ["one ", "two ", "three "])
        self.assertIn(f"Error opening bookmark file ({file}) for reading: (21)Is a directory\n",
                      daemon.log())
        self.assertIn(f"Error opening bookmark file ({file}) for update: Is a directory\n",
                      daemon.log())

    def test_bookmark_record_is_the_documented_one(self):
        receiver = self.begin()
        self.write("a.log", self.numbered(1, 20, WIDTH))
        daemon = self.start()
        receiver.wait_messages(20)
        self.wait_bookmark("a.log", 20 * LINE)
        daemon.stop()
        data = (self.input / "a.log").read_bytes()
        import zlib
        head, end = zlib.crc32(data[:256]), zlib.crc32(data[-257:-1])
        record = f"{len(data):015d}|{head:015d}|{end:015d}|{str(self.input / 'a.log'):<150}\n"
        self.assertEqual((self.bookmarks / "ft_bookmark").read_text(), record)


if __name__ == "__main__":
    main()
