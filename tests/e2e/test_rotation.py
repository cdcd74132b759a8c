"""The rotation cookbook's matrix: what each way to rotate sends, repeats and loses.

The daemon is held with SIGSTOP while a file is rotated, so that "the unread rest" is exactly what
was written meanwhile.
"""
import gzip
import json
import os
import shutil
import signal
import subprocess

import kit_path  # noqa: F401
from daemon_kit import BUILD, DaemonTest, main, wait_for

WIDTH = 40  # bytes of a line, without its line feed: ten lines are more than 256 bytes


class Rotation(DaemonTest):
    def begin(self, section=None, receiver=(), **settings):
        """Ten events are in the file, sent and stored."""
        self.receiver_ = self.receiver(*receiver)
        self.configure(self.receiver_.port, section or {}, debug_level="info", **settings)
        self.path = self.write("app.log", self.numbered(1, 10, WIDTH))
        self.daemon = self.start()
        self.receiver_.wait_messages(10)
        self.wait_bookmark("app.log", self.path.stat().st_size)

    def held(self):
        """Between this and go_on() the daemon sees nothing."""
        self.daemon.hold()

    def go_on(self):
        self.daemon.send(signal.SIGCONT)

    def finish(self, *ranges):
        """Writes one last event and compares everything that came with the ranges of numbers."""
        expected = [line for first, last in ranges for line in self.expected(first, last, WIDTH)]
        self.receiver_.wait_messages(len(expected))
        self.write("app.log", self.numbered(999, 999, WIDTH))
        got = self.receiver_.wait_messages(len(expected) + 1)
        self.daemon.stop()
        self.assertEqual(got, expected + self.expected(999, 999, WIDTH))

    def rotate_by_rename(self, name):
        self.held()
        self.write("app.log", self.numbered(11, 15, WIDTH))
        self.path.rename(self.input / name)
        self.write("app.log", self.numbered(101, 120, WIDTH))
        self.go_on()

    def test_rename_and_create_loses_the_unread_rest(self):
        self.begin()
        self.rotate_by_rename("app.1")
        self.finish((1, 10), (101, 120))

    def test_rename_and_create_with_drain_loses_nothing(self):
        self.begin(rotation_drain=1)
        self.rotate_by_rename("app.1")
        self.finish((1, 10), (11, 15), (101, 120))

    def status(self):
        """Name of each file -> (position, lag), and the lag of all."""
        done = subprocess.run([BUILD / "bin/siem_collector_status", "--json", "-c", self.conf_path],
                              stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, check=False)
        found = json.loads(done.stdout)
        return {os.path.basename(file["path"]): (file["position"], file["lag_bytes"])
                for file in found["plugins"][0]["files"]}, found["lag_bytes"]

    def test_status_counts_the_rest_that_is_being_sent(self):
        # A Receiver that stops reading leaves the daemon in the middle of the rest.
        self.begin(receiver=("--stall-after", 500, "--receive-buffer", 4096), rotation_drain=1)
        begun = self.path.stat().st_size
        self.held()
        self.write("app.log", self.numbered(11, 120000, WIDTH))
        size = self.path.stat().st_size
        self.path.rename(self.input / "app.1")
        self.assertEqual(self.status(), ({"app.1": (begun, size - begun)}, size - begun))
        self.write("app.log", self.numbered(1, 20, WIDTH))
        fresh = self.path.stat().st_size
        self.go_on()
        self.receiver_.wait_messages(500)
        self.held()
        at = self.bookmark_records()[str(self.path)][0]
        self.assertTrue(begun < at < size, (begun, at, size))
        self.assertEqual(self.status(), ({"app.log": (0, fresh), "app.1": (at, size - at)},
                                         fresh + size - at))
        self.daemon.kill()

    def rotate_while_down(self, stop, *names):
        """The daemon ends behind event 10; the file with 11 to 15 gets the first name."""
        self.begin(rotation_drain=1)
        stop()
        for turn, name in enumerate(names):
            if turn == 0:
                self.write("app.log", self.numbered(11, 15, WIDTH))
            else:
                self.write("app.log", self.numbered(100 * turn + 1, 100 * turn + 20, WIDTH))
            self.path.rename(self.input / name)

    def test_rotated_after_a_stop_with_drain_loses_nothing(self):
        self.rotate_while_down(lambda: self.daemon.stop(), "app.1")
        self.write("app.log", self.numbered(101, 120, WIDTH))
        self.daemon = self.start()
        self.finish((1, 10), (11, 15), (101, 120))

    def test_rotated_after_a_kill_with_drain_loses_nothing(self):
        self.rotate_while_down(lambda: self.daemon.kill(), "app.1")
        self.write("app.log", self.numbered(101, 120, WIDTH))
        self.daemon = self.start()
        self.finish((1, 10), (11, 15), (101, 120))

    def test_rotated_while_down_with_nothing_in_its_place(self):
        self.rotate_while_down(lambda: self.daemon.stop(), "app.1")
        self.daemon = self.start()
        self.receiver_.wait_messages(15)
        self.write("app.log", self.numbered(101, 120, WIDTH))
        self.finish((1, 10), (11, 15), (101, 120))

    def test_of_two_rotations_while_down_the_file_in_between_is_not_sent(self):
        self.rotate_while_down(lambda: self.daemon.stop(), "app.2", "app.1")
        self.write("app.log", self.numbered(201, 220, WIDTH))
        self.daemon = self.start()
        self.finish((1, 10), (11, 15), (201, 220))

    def test_compressed_while_down_loses_the_unread_rest(self):
        self.rotate_while_down(lambda: self.daemon.stop(), "app.1")
        with gzip.open(self.input / "app.1.gz", "wb") as packed:
            packed.write((self.input / "app.1").read_bytes())
        (self.input / "app.1").unlink()
        self.write("app.log", self.numbered(101, 120, WIDTH))
        self.daemon = self.start()
        self.finish((1, 10), (101, 120))

    def test_writer_that_goes_over_later_loses_nothing_with_drain(self):
        self.begin(rotation_drain=1)
        renamed, fresh = self.input / "app.1", self.input / "fresh"
        fresh.touch()
        renamed.hardlink_to(self.path)
        fresh.rename(self.path)  # the name is never without a file
        for number in range(11, 16):
            with open(renamed, "a", encoding="utf-8") as late:
                late.write(self.numbered(number, number, WIDTH))
            self.receiver_.wait_messages(number)
        self.write("app.log", self.numbered(101, 120, WIDTH))
        self.finish((1, 10), (11, 15), (101, 120))

    def test_last_event_without_its_delimiter_is_sent_by_the_drain(self):
        self.begin(rotation_drain=1)
        self.held()
        self.write("app.log", self.numbered(11, 11, WIDTH)[:-1])
        self.path.rename(self.input / "app.1")
        self.write("app.log", self.numbered(101, 120, WIDTH))
        self.go_on()
        got = self.receiver_.wait_messages(31)
        self.daemon.stop()
        self.assertEqual(got, self.expected(1, 10, WIDTH) +
                         [self.numbered(11, 11, WIDTH)[:-1]] + self.expected(101, 120, WIDTH))

    def test_renamed_file_that_matches_is_sent_again_whole(self):
        self.begin({"ft_filter": "app.log*"})
        self.rotate_by_rename("app.log.1")
        got = self.receiver_.wait_messages(10 + 20 + 15)
        self.daemon.stop()
        self.assertEqual(sorted(got), sorted(self.expected(1, 10, WIDTH) +
                                             self.expected(101, 120, WIDTH) +
                                             self.expected(1, 15, WIDTH)))

    def test_renamed_file_that_matches_is_tailed_from_its_end(self):
        self.begin({"ft_filter": "app.log*", "ft_start_top": 1})
        self.daemon.stop()
        self.configure(self.receiver_.port, {"ft_filter": "app.log*", "ft_start_top": 0},
                       debug_level="info")
        self.daemon = self.start()
        self.daemon.wait_log("Resume reading file")
        self.rotate_by_rename("app.log.1")
        self.finish((1, 10), (101, 120))

    def test_copy_and_truncate_loses_what_came_after_the_last_pass(self):
        self.copy_and_truncate()
        self.finish((1, 10), (101, 108))

    def test_copy_and_truncate_with_drain_reads_the_rest_in_the_copy(self):
        self.copy_and_truncate(rotation_drain=1)
        self.finish((1, 10), (11, 15), (101, 108))

    def copy_and_truncate(self, **settings):
        self.begin(**settings)
        self.held()
        self.write("app.log", self.numbered(11, 15, WIDTH))
        shutil.copyfile(self.path, self.input / "app.1")
        os.truncate(self.path, 0)
        self.write("app.log", self.numbered(101, 108, WIDTH))
        self.go_on()

    def test_truncated_and_grown_past_the_old_end_with_the_same_head(self):
        self.begin()
        self.held()
        os.truncate(self.path, 0)
        self.write("app.log", self.numbered(1, 10, WIDTH) + self.numbered(101, 110, WIDTH))
        self.go_on()
        self.finish((1, 10), (101, 110))

    def test_deleted_and_made_anew_between_two_passes(self):
        self.begin()
        self.held()
        self.path.unlink()
        self.write("app.log", self.numbered(101, 120, WIDTH))
        self.go_on()
        self.finish((1, 10), (101, 120))

    def test_deleted_and_made_anew_later(self):
        self.begin()
        self.path.unlink()
        self.daemon.wait_log("Resume reading file")
        self.wait_record_gone()
        self.write("app.log", self.numbered(101, 120, WIDTH))
        self.finish((1, 10), (101, 120))

    def wait_record_gone(self):
        wait_for(lambda: not self.bookmark_records(), "the record of the deleted file to go")

    def test_link_moved_to_another_file(self):
        self.receiver_ = self.receiver()
        self.configure(self.receiver_.port, debug_level="info")
        targets = self.folder / "targets"
        targets.mkdir()
        for name, first in (("one", 1), ("two", 101)):
            (targets / name).write_text(self.numbered(first, first + 9, WIDTH))
        link = self.input / "app.log"
        link.symlink_to(targets / "one")
        self.daemon = self.start()
        self.receiver_.wait_messages(10)
        fresh = self.folder / "fresh"
        fresh.symlink_to(targets / "two")
        fresh.rename(link)
        self.finish((1, 10), (101, 110))

    def small_file(self, **settings):
        self.receiver_ = self.receiver()
        self.configure(self.receiver_.port, debug_level="info", **settings)
        self.path = self.write("app.log", self.numbered(1, 2, WIDTH))
        self.daemon = self.start()
        self.receiver_.wait_messages(2)
        self.wait_bookmark("app.log", self.path.stat().st_size)
        self.write("app.log", self.numbered(3, 12, WIDTH))

    def test_small_file_that_grows_is_sent_again(self):
        self.small_file()
        self.finish((1, 2), (1, 12))

    def test_small_file_that_grows_is_recognised_by_the_guard(self):
        self.small_file(small_file_guard=1)
        self.finish((1, 2), (3, 12))


if __name__ == "__main__":
    main()
