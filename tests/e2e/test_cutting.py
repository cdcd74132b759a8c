"""How text becomes events: delimiters, their position, long lines, odd bytes, the throttle."""
import re

import kit_path  # noqa: F401
from daemon_kit import DaemonTest, main, wait_for

PAD = "." * 300  # a file under 256 bytes that grows would be read again


class Cutting(DaemonTest):
    def events_of(self, text, count, settings=None, **section):
        """The events that the daemon makes of a file's text, when it has made `count`."""
        receiver = self.receiver()
        self.configure(receiver.port, section, **(settings or {}))
        self.write("a.log", text)
        daemon = self.start()
        got = receiver.wait_messages(count)
        daemon.wait_log("No events to read")
        daemon.stop()
        self.log = daemon.log()
        self.assertEqual(len(receiver.messages()), count)
        return got

    def test_newline_at_the_end(self):
        self.assertEqual(self.events_of(f"{PAD}\na\nb\nrest", 3), [PAD + " ", "a ", "b "])

    def test_text_waits_for_its_delimiter(self):
        receiver = self.receiver()
        self.configure(receiver.port)
        self.write("a.log", f"{PAD}\nhalf")
        daemon = self.start()
        receiver.wait_messages(1)
        daemon.wait_log("No events to read")
        self.write("a.log", " and half\n")
        self.assertEqual(receiver.wait_messages(2)[1], "half and half ")
        daemon.stop()

    def test_bracketed_and_other_delimiter_words(self):
        for word, mark in (("[newline]", "\n"), ("<tab>", "\t"), ("[tab]", "\t"), ("<space>", " "),
                           ("[space]", " "), (";", ";")):
            with self.subTest(word=word):
                text = mark.join([PAD, "a", "b", ""])
                sent = "\n" if mark == "\n" else mark
                sent = " " if sent == "\n" else sent
                self.assertEqual(self.events_of(text, 3, ft_delim=word),
                                 [PAD + sent, "a" + sent, "b" + sent])
                for file in (self.bookmarks / "ft_bookmark", self.input / "a.log"):
                    file.unlink()

    def test_regular_expression_at_the_end(self):
        text = f"{PAD}END1\nsecond\nlineEND22\nthird"
        self.assertEqual(self.events_of(text, 2, ft_delim=r"END\d+\n"),
                         [f"{PAD}END1 ", "second lineEND22 "])

    def test_delimiter_at_the_start(self):
        text = f"2026-01-01 {PAD}\n more\n2026-01-02 b\n more\n2026-01-03 c\n"
        got = self.events_of(text, 2, ft_delim=r"\d{4}-\d\d-\d\d", ft_delim_end_of_event=0)
        self.assertEqual(got, [f"2026-01-01 {PAD}  more ", "2026-01-02 b  more "])

    def test_lookahead_at_the_start_makes_progress(self):
        text = f"<1>{PAD}\n<2>b\n<3>c\n"
        got = self.events_of(text, 2, ft_delim=r"(?=<\d>)", ft_delim_end_of_event=0)
        self.assertEqual(got, [f"<1>{PAD} ", "<2>b "])

    def test_pattern_that_does_not_compile_is_reported_once(self):
        receiver = self.receiver()
        self.configure(receiver.port, {"ft_delim": "(["})
        self.write("a.log", f"{PAD}\nb\n")
        daemon = self.start()
        daemon.wait_log("No events to read", count=2)
        daemon.stop()
        self.assertEqual(receiver.count(), 0)
        errors = [line for line in daemon.log().splitlines() if "(ERROR)" in line]
        self.assertEqual(len(errors), 1, errors)

    def test_long_lines(self):
        lines = ["x" * n for n in (1023, 1024, 1025, 2048, 5000, 60000, 65534)]
        got = self.events_of("".join(line + "\n" for line in lines), len(lines))
        self.assertEqual(got, [line + " " for line in lines])

    def test_event_too_long_for_the_wire_arrives_in_pieces(self):
        text = "".join(chr(97 + n % 26) for n in range(150_000))
        got = self.events_of(text + "\nafter\n", 4)
        self.assertEqual("".join(got[:3]), text + " ")
        self.assertEqual([len(m) for m in got], [65535, 65535, 150_001 - 2 * 65535, 6])
        self.assertEqual(self.log.count("(WARN)"), 1)

    def test_carriage_returns_become_blanks(self):
        self.assertEqual(self.events_of(f"{PAD}\r\nb\r\n", 2), [PAD + "  ", "b  "])

    def test_nul_bytes_neither_stall_nor_drift(self):
        text = f"{PAD}\n".encode() + b"\0\0front\nin\0side\n\0\nlast\n"
        got = self.events_of(text, 5)
        self.assertEqual(got[1].lstrip(" "), "front ")
        self.assertEqual(got[2], "in side ")
        self.assertEqual(got[-1], "last ")

    def test_bytes_of_any_encoding_pass_unchanged(self):
        every = bytes(b for b in range(1, 256) if b not in (10, 13))
        got = self.events_of(PAD.encode() + b"\n" + every + b"\n", 2)
        self.assertEqual(got[1].encode("utf-8", "surrogateescape"), every + b" ")

    def test_throttle_lets_other_files_through(self):
        receiver = self.receiver()
        self.configure(receiver.port, throttle=10)
        for name in ("a.log", "b.log"):
            self.write(name, "".join(f"{name} {n} {PAD}\n" for n in range(2000)))
        daemon = self.start()
        got = receiver.wait_messages(4000)
        daemon.stop()
        for name in ("a.log", "b.log"):
            self.assertEqual([m for m in got if m.startswith(name)],
                             [f"{name} {n} {PAD} " for n in range(2000)])
        # A batch of at most 500 is finished, then the next file has its turn.
        turns = re.findall(r"Sent (\d+) event\(s\) to SIEM from ", daemon.log())
        self.assertTrue(all(int(t) <= 500 for t in turns), turns)
        self.assertGreater(len({m[:5] for m in got[:1000]}), 1)

    def test_without_throttle_nothing_is_read(self):
        receiver = self.receiver()
        self.configure(receiver.port, throttle=None)
        self.write("a.log", f"{PAD}\nb\n")
        daemon = self.start()
        daemon.wait_log("No events to read", count=2)
        daemon.stop()
        self.assertEqual(receiver.count(), 0)

    def test_big_fix_gives_every_line_a_date(self):
        text = (f"March 03, 2026 10:00 {PAD}\nno date\nDecember 24, 2026 10:01 dated\nanother\n"
                "one more\n")
        got = self.events_of(text, 5, subtype="big_fix")
        self.assertEqual(got, [f"March 03, 2026 10:00 {PAD} ", "March 03, 2026 no date ",
                               "December 24, 2026 10:01 dated ", "December 24, 2026 another ",
                               "December 24, 2026 one more "])

    def test_big_fix_takes_the_first_bytes_when_no_date_was_seen(self):
        got = self.events_of(f"0123456789abcdef {PAD}\nnext\n", 2, subtype="big")
        self.assertEqual(got[1], "0123456789abc next ")

    def test_collection_time_is_now(self):
        import time
        begin = int(time.time())
        receiver = self.receiver()
        self.configure(receiver.port)
        self.write("a.log", f"{PAD}\n")
        daemon = self.start()
        receiver.wait_messages(1)
        daemon.stop()
        stamp = receiver.events[-1]["data_time"]
        self.assertTrue(begin <= stamp <= int(time.time()), (begin, stamp))

    def test_partial_line_of_growing_file_is_one_event(self):
        receiver = self.receiver()
        self.configure(receiver.port, sleep=0)
        self.write("a.log", f"{PAD}\n")
        daemon = self.start()
        receiver.wait_messages(1)
        for piece in range(20):
            self.write("a.log", f"piece{piece} ")
        self.write("a.log", "\n")
        whole = "".join(f"piece{piece} " for piece in range(20)) + " "
        self.assertEqual(receiver.wait_messages(2)[1], whole)
        wait_for(lambda: receiver.count() == 2, "nothing more")
        daemon.stop()


if __name__ == "__main__":
    main()
