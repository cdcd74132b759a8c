"""Random programs over a tailed directory, against a small model of the tail loop.

The model is written from the descriptions and shares nothing with the daemon. After each step it
has every line that the daemon logs, in order, every event that it sends and every byte of the
bookmark file. Whatever changes the files does so while the daemon is stopped in its idle pause, so
that the machine's load decides nothing.
"""
import fnmatch
import os
import random
import re
import signal
import zlib
from pathlib import Path

import kit_path  # noqa: F401
from daemon_kit import DaemonTest, main, wait_for

RECORD = "%015d|%015d|%015d|%-150s"
STAMP = re.compile(r"^\w{3} \d\d \d\d:\d\d:\d\d \d{4}:")
IDLE = "No events to read, sleeping 1 second(s)"


def checksum(data, offset):
    """Of 256 bytes; missing ones are zeros."""
    return zlib.crc32(data[offset:offset + 256].ljust(256, b"\0"))


def tail_of(data, position):
    """The 256 bytes that end one byte before the end. A file too short for that is read where the
    stream stands, since its seek fails."""
    offset = len(data) - 257 if data else 0
    return checksum(data, offset if offset >= 0 else position)


def cut_batch(text, delimiter, at_end):
    """The events of one buffer's worth of text, and how many bytes were read for them."""
    size = 1024
    while True:
        window, events, start, search = text[:size], [], 0, 0
        while len(events) < 500:
            found = window.find(delimiter, search)
            if found < 0:
                break
            first, search = search == 0, found + len(delimiter)
            if at_end:
                events.append(window[start:search])
                start = search
            elif not first:
                events.append(window[start:found])
                start = found
        if events or len(window) < size:
            return events, len(window)
        size *= 2


class Tailed:
    def __init__(self, path):
        self.path, self.location, self.seen = path, 0, True


class Model:
    """A plugin without its threads: one pass after the other, over the real directory."""

    def __init__(self, directory, pattern, delimiter, at_end, from_top, throttle):
        self.directory, self.pattern = directory, pattern
        self.delimiter, self.at_end = delimiter, at_end
        self.from_top, self.throttle = from_top, throttle
        self.files, self.records, self.log, self.sent = [], [], [], []

    def say(self, level, text):
        self.log.append(f"({level}) {text}")

    def find(self, path):
        return next((r for r in self.records if r[0] == path), None)

    def store(self, file, data, position):
        record = [file.path, file.location, checksum(data, 0), tail_of(data, position)]
        known = self.find(file.path)
        if known:
            known[:] = record
        else:
            self.records.append(record)
        line = RECORD % (*record[1:], record[0])
        self.say("DEBUG", f"Wrote '{line}' to bookmark file")

    def forget(self, path):
        record = self.find(path)
        if record:
            self.say("DEBUG", f"Delete '{path}' from bookmark file")
            self.records.remove(record)

    def look_up(self, file):
        record = self.find(file.path)
        if not record or not os.path.isfile(file.path):
            return False
        _, location, head, tail = record
        data = Path(file.path).read_bytes()
        say, now = self.say, checksum(data, 0)
        say("DEBUG", f"Found file info in bookmark for: {file.path}")
        say("DEBUG", f"\tFile location: bookmark - {location}, file size - {len(data)}")
        say("DEBUG", f"\tFile head: bookmark - {head}, file - {now}")
        say("DEBUG", f"\tFile tail: bookmark - {tail}, file - {tail_of(data, 0)}")
        if len(data) < location or head != now:
            file.location = 0
            say("INFO", "Started reading file over cause the start of the file didn't match: "
                + file.path)
        else:
            file.location = location
            say("INFO", f"Resume reading file: {file.path} starting at: {location}")
        say("DEBUG", f"\tFile location set to: {file.location}")
        return True

    def add(self, path):
        file = Tailed(path)
        data = Path(path).read_bytes()
        if not self.look_up(file):
            file.location = 0 if self.from_top else len(data)
        self.say("INFO", f"Loaded file for tailing: {path} starting at byte: {file.location}")
        self.store(file, data, 0)
        self.files.append(file)

    def scan(self):
        for file in self.files:
            file.seen = False
        self.say("DEBUG", f"Getting files from dir {self.directory} with filter {self.pattern}")
        for name in filter(lambda name: fnmatch.fnmatchcase(name, self.pattern),
                           os.listdir(self.directory)):
            self.say("DEBUG", f"Adding file: {name} because it did match the filter: "
                     + self.pattern)
            path = self.directory + name
            tracked = [file for file in self.files if file.path == path]
            if os.path.isfile(path):
                for file in tracked:
                    file.seen = True
                if not tracked:
                    self.add(path)
        self.drop_vanished()
        for file in [file for file in self.files if not self.look_up(file)]:
            self.forget(file.path)

    def drop_vanished(self):
        slot = 0
        while slot < len(self.files):
            file = self.files[slot]
            if not file.seen:
                self.say("DEBUG", f"Removing {file.path} because it was not detected in the "
                         "directory")
                self.forget(file.path)
                del self.files[slot]  # the next one has moved into a slot that is passed over
            slot += 1

    def read(self, file):
        """One file of a pass; the number of its events."""
        if not os.path.exists(file.path):
            return 1  # its ERROR is not repeated within a second, so it is not compared
        if os.path.isdir(file.path):
            return 0
        data = Path(file.path).read_bytes()
        count = 0
        while count < self.throttle:
            begin = file.location
            events, size = cut_batch(data[begin:], self.delimiter, self.at_end)
            if not events:
                break
            position = begin + size
            for event in events:
                file.location += len(event)
                text = event.decode().replace("\n", " ").replace("\r", " ")
                self.say("DEBUG", f"Sending RUV data read from: {file.path}:{text}")
                self.say("DEBUG", "engage ruv spin lock")
                self.say("DEBUG", "released ruv spin lock")
                self.sent.append(text)
                self.store(file, data, position)
                position = file.location
            count += len(events)
        return count

    def run_until_idle(self):
        total = -1
        while total != 0:
            self.scan()
            total = 0
            for file in self.files:
                count = self.read(file)
                self.say("DEBUG", f"Sent {count} event(s) to SIEM from {file.path}")
                total += count
            self.say("DEBUG", f"Sent {total} event(s) to SIEM")
        self.say("DEBUG", IDLE)

    def image(self):
        return "".join(RECORD % (*r[1:], r[0]) + "\n" for r in self.records).encode()


class Hands:
    """What writes, cuts, renames and deletes in the directory, and edits the bookmark file."""

    NAMES = ("a.log", "ab.log", "a.log.1", "b.log", ".a.log", "axx", "c.txt")

    def __init__(self, chance, model, bookmark_file):
        self.chance, self.model, self.bookmark_file = chance, model, bookmark_file

    def text(self, lines):
        chance, end, text = self.chance, self.model.delimiter, b""
        for _ in range(lines):
            size = chance.choice((0, 1, 5, 20, 40, 120, 1100))
            text += bytes(chance.choice(b"abc 123") for _ in range(size))
            text += chance.choice((end, end, b"\r" + end))
        return text + chance.choice((b"", b"part"))

    def edit_bookmarks(self):
        records = self.model.records
        if records:
            self.chance.choice(records)[1] = self.chance.choice((0, 1, 5, 99999))
            self.bookmark_file.write_bytes(self.model.image())

    def act(self):
        chance, path = self.chance, Path(self.model.directory + self.chance.choice(self.NAMES))
        deed = chance.randrange(20)
        if deed == 0:
            self.edit_bookmarks()
        elif path.is_dir():
            path.rmdir()
        elif deed == 1 and not path.exists():
            path.mkdir()
        elif deed < 11 or not path.exists():
            with open(path, "ab") as file:
                file.write(self.text(chance.choice((0, 1, 2, 10, 40))))
        elif deed < 13:
            os.truncate(path, chance.randint(0, path.stat().st_size))
        elif deed < 15:
            path.write_bytes(self.text(chance.choice((0, 3, 30))))
        elif deed < 16:
            path.unlink()
        elif deed == 16:
            for file in filter(Path.is_file, Path(self.model.directory).iterdir()):
                file.unlink()
        else:
            other = Path(self.model.directory + chance.choice(self.NAMES))
            if not other.is_dir():
                path.rename(other)


class AgainstTheModel(DaemonTest):
    STEPS = 7

    def messages_of(self, daemon):
        """The log from the first scan on, without stamps, directory offsets and "." and ".."."""
        uncompared = re.compile(r"file: \(\d+\)\.\.? because|Error: Reading file ")
        lines = [STAMP.sub("", line) for line in daemon.log().split("\n")]
        begin = next(n for n, line in enumerate(lines) if "Getting files from dir" in line)
        return [re.sub(r"Adding file: \(\d+\)", "Adding file: ", line) for line in lines[begin:]
                if line.startswith("(") and not uncompared.search(line)]

    @staticmethod
    def is_stopped(daemon):
        return all(re.search(r"\) [Tt] ", (thread / "stat").read_text())
                   for thread in Path(f"/proc/{daemon.pid}/task").iterdir())

    def hold(self, daemon):
        """Stops the daemon where it is; returns its messages when that is the idle pause."""
        daemon.send(signal.SIGSTOP)
        wait_for(lambda: self.is_stopped(daemon), "a stopped daemon")
        messages = self.messages_of(daemon)
        if messages[-1].endswith(IDLE):
            return messages
        daemon.send(signal.SIGCONT)
        return None

    def settle(self, daemon, model, step):
        """Brings both to the idle pause and compares; leaves the daemon stopped there."""
        messages = wait_for(lambda: self.hold(daemon), "the idle pause")
        model.run_until_idle()
        while len(model.log) < len(messages):
            model.run_until_idle()  # the daemon has looked again meanwhile
        for number, (got, expected) in enumerate(zip(messages, model.log)):
            self.assertEqual(got, expected, f"line {number}, step {step}")
        self.assertEqual(len(messages), len(model.log))
        bookmarks = self.bookmarks / "ft_bookmark"
        self.assertEqual(bookmarks.read_bytes() if bookmarks.exists() else b"", model.image())

    def begin(self, model):
        daemon = self.start()
        daemon.wait_log(IDLE)
        model.files, model.log = [], []
        model.scan()  # before the worker's first pass
        return daemon

    def run_program(self, seed, pattern="*", delimiter="<newline>", separator=b"\n", at_end=1,
                    from_top=1, throttle=1000):
        receiver, chance = self.receiver(), random.Random(seed)
        self.configure(receiver.port, {"ft_filter": pattern, "ft_delim": delimiter,
                                       "ft_delim_end_of_event": at_end, "ft_start_top": from_top},
                       throttle=throttle)
        model = Model(f"{self.input}/", pattern, separator, at_end, from_top, throttle)
        hands = Hands(chance, model, self.bookmarks / "ft_bookmark")
        hands.act()
        daemon = self.begin(model)
        for step in range(self.STEPS):
            self.settle(daemon, model, step)
            if step == self.STEPS // 2:
                daemon.send(signal.SIGCONT)
                daemon.stop()
                hands.act()
                daemon = self.begin(model)
                continue
            for _ in range(chance.randint(1, 4)):
                hands.act()
            seen = daemon.log().count(IDLE)
            daemon.send(signal.SIGCONT)
            daemon.wait_log(IDLE, seen + 1)
        self.settle(daemon, model, self.STEPS)
        daemon.send(signal.SIGCONT)
        self.assertEqual(receiver.wait_messages(len(model.sent)), model.sent)
        daemon.stop()

    def test_lines(self):
        self.run_program(4)

    def test_lines_of_some_files_from_their_end(self):
        self.run_program(6, pattern="a*", from_top=0, throttle=3)

    def test_delimiter_at_the_start(self):
        self.run_program(2, pattern="*.log", delimiter="END", separator=b"END", at_end=0)


if __name__ == "__main__":
    main()
