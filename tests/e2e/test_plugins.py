"""Sections of the configuration: several plugins, host ids, and what makes no plugin."""
import kit_path  # noqa: F401
from daemon_kit import DaemonTest, main

WIDTH = 40


class Plugins(DaemonTest):
    def test_two_plugins_deliver_side_by_side(self):
        receiver = self.receiver()
        other = self.folder / "other"
        other.mkdir()
        self.configure(receiver.port, {}, {"ft_dir": other, "ft_filter": "*.txt"})
        self.write("a.log", self.numbered(1, 500, WIDTH))
        (other / "b.txt").write_text(self.numbered(1001, 1500, WIDTH))
        daemon = self.start()
        got = receiver.wait_messages(1000)
        daemon.stop()
        low = [m for m in got if m < "event 001"]
        high = [m for m in got if m >= "event 001"]
        self.assertEqual(low, self.expected(1, 500, WIDTH))
        self.assertEqual(high, self.expected(1001, 1500, WIDTH))
        log = daemon.log()
        order = [log.index(text) for text in (
            "Calling shutdown on plugin: 0", f"Filetail shutdown called: {self.input}/",
            f"Shutdown bookmark for {self.input}/a.log", "Calling shutdown on plugin: 1",
            f"Filetail shutdown called: {other}/", f"Shutdown bookmark for {other}/b.txt")]
        self.assertEqual(order, sorted(order))

    def test_host_id_names_the_source(self):
        receiver = self.receiver()
        other = self.folder / "other"
        other.mkdir()
        self.configure(receiver.port, {"hostid": "web-1"}, {"ft_dir": other, "hostid": "web-2"})
        self.write("a.log", self.numbered(1, 10, WIDTH))
        (other / "b.log").write_text(self.numbered(11, 20, WIDTH))
        daemon = self.start()
        receiver.wait_messages(20)
        daemon.stop()
        sources = {e["message"][:12]: (e["source_kind"], e["source"]) for e in receiver.events}
        self.assertEqual(sources["event 000001"], ("HostID", "web-1"))
        self.assertEqual(sources["event 000020"], ("HostID", "web-2"))
        channels = {e["source"]: e["dsidchanid"] for e in receiver.events}
        self.assertEqual(len(set(channels.values())), 2)

    def test_without_host_id_the_channel_is_zero(self):
        receiver = self.receiver()
        self.configure(receiver.port, {"hostid": ""})
        self.write("a.log", self.numbered(1, 10, WIDTH))
        daemon = self.start()
        receiver.wait_messages(10)
        daemon.stop()
        self.assertEqual({e["dsidchanid"] for e in receiver.events}, {0})

    def test_unknown_type_is_reported_and_the_rest_works(self):
        receiver = self.receiver()
        self.configure(receiver.port, {"type": "syslog", "ft_filter": "*"}, {})
        self.write("a.log", self.numbered(1, 10, WIDTH))
        daemon = self.start()
        receiver.wait_messages(10)
        daemon.wait_log("Error: Unknown type in configuration file: syslog")
        daemon.stop()
        self.assertEqual(receiver.count(), 10)

    def test_without_a_valid_plugin_the_daemon_stays_up_idle(self):
        receiver = self.receiver()
        self.configure(receiver.port, {"type": "nothing"})
        daemon = self.start()
        daemon.wait_log("Error: not a valid config. No plugins defined.")
        self.assertIsNone(daemon.process.poll())
        daemon.stop()

    def test_first_line_may_be_a_section(self):
        receiver = self.receiver()
        self.conf_path.write_text(f"type=filetail\nft_dir={self.input}\nft_filter=*.log\n"
                                  "ft_delim=<newline>\n")
        daemon = self.start(log=False, wait=False)
        daemon.send(15)
        self.assertIn(daemon.wait(), (0, 15, -15))
        self.assertEqual(receiver.count(), 0)

    def test_invalid_start_top_leaves_the_default(self):
        receiver = self.receiver()
        self.configure(receiver.port, {"ft_start_top": "yes"})
        self.write("a.log", self.numbered(1, 10, WIDTH))
        daemon = self.start()
        self.wait_bookmark("a.log", 10 * (WIDTH + 1))
        daemon.wait_log(f"Invalid ft_start_top value for {self.input}/")
        daemon.stop()
        self.assertEqual(receiver.count(), 0)

    def test_keys_that_begin_a_name_match_it(self):
        receiver = self.receiver()
        self.configure(receiver.port, {"ft_start_top": None, "ft_start": "1"})
        self.write("a.log", self.numbered(1, 10, WIDTH))
        daemon = self.start()
        receiver.wait_messages(10)
        daemon.stop()

    def test_unknown_key_of_a_section_is_reported(self):
        receiver = self.receiver()
        self.configure(receiver.port, {"colour": "green"})
        self.write("a.log", self.numbered(1, 10, WIDTH))
        daemon = self.start()
        receiver.wait_messages(10)
        daemon.wait_log("Error: invalid key value pair in config file: colour=green")
        daemon.stop()

    def test_section_without_directory_pattern_or_delimiter_is_not_started(self):
        for key in ("ft_dir", "ft_filter", "ft_delim"):
            with self.subTest(missing=key):
                receiver = self.receiver()
                self.configure(receiver.port, {key: None})
                self.write("a.log", self.numbered(1, 10, WIDTH), "w")
                daemon = self.start()
                daemon.wait_log("(ERROR)")
                daemon.stop()
                self.assertEqual(receiver.count(), 0)


if __name__ == "__main__":
    main()
