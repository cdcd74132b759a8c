"""The link to the agent: absent, faulty, up, replaced, and taken down."""
import os
import re
import signal
import socket
import struct

import kit_path  # noqa: F401
from daemon_kit import main
from managed_kit import ManagedTest

SERVING = (
    "Initializing LPC", "Successfully loaded LPC runtime", "LPC initialized",
    "Registered IUpdateCallback", "Registered IPropertyCollection",
    "Registered IPolicyEnforcement", "Registered IPolicyDataAccessor",
    "Registered IPolicyDataAccessor", "Started updater service",
    "Started property collection service", "Started policy enforcement service")


class Link(ManagedTest):
    def started(self, **options):
        receiver = self.receiver()
        self.configure(receiver.port, **options)
        self.write("a.log", self.numbered(1, 100))
        return receiver, self.start()

    def serving(self, **options):
        """A daemon that is ready for the agent's calls: it begins to listen a little earlier."""
        daemon = self.started(**options)[1]
        daemon.wait_log("Started policy enforcement service")
        return daemon

    def lines_of_the_link(self, daemon):
        """The messages between the arguments and the plugins, without time and level."""
        messages = [re.sub(r"^.{20}:", "", line) for line in daemon.log().split("\n")]
        begin = [i for i, m in enumerate(messages) if "query-retry" in m][0] + 1
        words = ("LPC", "Registered", "register", "service", "Loopback")
        return [m for m in messages[begin:] if any(w in m for w in words)]

    def test_serving_is_logged_in_order(self):
        receiver, daemon = self.started()
        self.assertEqual(receiver.wait_messages(100), self.expected(1, 100))
        daemon.wait_log("Started policy enforcement service")
        lines = self.lines_of_the_link(daemon)
        self.assertRegex(lines[0], r"^\(DEBUG\) LPC Process UID: LOGRELAY1000:\d+:0001$")
        at = -1
        for text in SERVING:
            at = next(i for i, line in enumerate(lines) if i > at and text in line)
        daemon.stop()
        log = daemon.log()
        self.assertLess(log.index("Shutdown bookmark for"), log.index("DeInitializing LPC"))
        self.assertLess(log.index("DeInitializing LPC"),
                        log.index("Successfully released LPC runtime"))

    def test_the_pass_phrase_is_the_helper_library_s(self):
        daemon = self.serving()
        self.assertEqual(self.ask("passphrase"), [{"bytes": 64, "accepted": True}])
        (self.agent / "LOGRELAY1000.passphrase").write_bytes(b"another")
        self.assertEqual(self.ask("passphrase", status=1), [{"bytes": 64, "accepted": False}])
        daemon.stop()

    def test_a_missing_helper_library_is_no_hindrance(self):
        (self.agent / "libvlrlpchelper.so.4").unlink()
        daemon = self.serving()
        self.assertEqual(self.ask("passphrase", status=1), [{"bytes": 64, "accepted": False}])
        daemon.stop()

    def faulty(self, fault, *texts):
        self.install_agent(fault)
        receiver, daemon = self.started()
        self.assertEqual(receiver.wait_messages(100), self.expected(1, 100))
        log = daemon.log()
        for text in texts + ("(ERROR) Initializing LPC failed",):
            self.assertIn(text, log)
        self.assertNotIn("Registered", log)
        self.assertNotIn("LPC initialized", log)
        self.assertEqual(self.ask("processes"), [])
        daemon.stop()

    def test_a_runtime_without_a_symbol_is_refused(self):
        self.faulty("missing-symbol",
                    "Unable to retrieve exported function address from LPC runtime")

    def test_a_runtime_that_cannot_initialize_is_refused(self):
        self.faulty("initialize", "Successfully loaded LPC runtime")

    def test_a_runtime_that_cannot_be_enabled_is_refused(self):
        self.faulty("enable", "Successfully loaded LPC runtime")

    def test_a_file_that_is_no_library_is_refused(self):
        library = self.agent / "libvlrlpc.so"
        library.unlink()
        library.write_text("no library\n")
        receiver, daemon = self.started()
        receiver.wait_messages(100)
        self.assertIn(f"Unable to load LPC runtime {library}", daemon.log())
        self.assertIn("(ERROR) Initializing LPC failed", daemon.log())
        daemon.stop()

    def test_a_missing_library_is_an_agent_not_installed(self):
        library = self.agent / "libvlrlpc.so"
        library.unlink()
        receiver, daemon = self.started()
        receiver.wait_messages(100)
        self.assertIn(f"Unable to load LPC runtime {library}", daemon.log())
        self.assertIn("(INFO) LPC not installed", daemon.log())
        self.assertNotIn("Registered", daemon.log())
        daemon.stop()

    def test_a_slow_runtime_delays_only_the_start(self):
        self.install_agent("slow-load=2")
        receiver, daemon = self.started()
        self.assertEqual(receiver.wait_messages(100), self.expected(1, 100))
        self.assertIn("Started policy enforcement service", daemon.log())
        daemon.stop()

    def test_a_stop_during_a_slow_load_is_not_lost(self):
        self.install_agent("slow-load=2")
        receiver = self.receiver()
        self.configure(receiver.port)
        daemon = self.start()
        daemon.wait_log("Initializing LPC")
        daemon.stop(signal.SIGINT)
        self.assertIn("DeInitializing LPC", daemon.log())

    def test_the_runtime_is_unloaded_and_loaded_again(self):
        receiver, daemon = self.started()
        receiver.wait_messages(100)
        for round_number in range(1, 4):
            daemon.wait_log("Started policy enforcement service", round_number)
            self.ask("reload")
            daemon.wait_log("Successfully loaded LPC runtime", round_number + 1)
            daemon.wait_log("Started policy enforcement service", round_number + 1)
            self.assertTrue(self.ask("exists")[0]["exists"])
        first = 100 * round_number + 1
        self.write("a.log", self.numbered(first, first + 99))
        receiver.wait_messages(200)
        self.assertEqual(daemon.log().count("Successfully released LPC runtime"), round_number)
        daemon.stop()

    def test_the_agent_may_say_again_that_it_is_there(self):
        daemon = self.serving()
        self.ask("installed")
        daemon.wait_log("Started policy enforcement service", 2)
        self.assertTrue(self.ask("exists")[0]["exists"])
        daemon.stop()

    def test_properties_are_those_of_the_file(self):
        daemon = self.serving(throttle=77)
        sections = self.ask("properties")[0]
        self.assertEqual(list(sections), ["General", "Config"])
        self.assertRegex(sections["General"]["szProductVer"], r"^\d+\.\d+\.\d+\.\d+$")
        self.assertEqual(sections["General"]["Language"], "0000")
        self.assertEqual(sections["Config"]["throttle"], "77")
        self.assertEqual(sections["Config"]["ft_dir"], str(self.input))
        daemon.stop()

    def test_the_update_callback_answers(self):
        daemon = self.serving()
        version = self.ask("update", "--get", "Version", "--value", "old")[0]
        self.assertEqual((version["result"], version["value"]), (0, "9.1.3"))
        location = self.ask("update", "--get", "Location", "--value", "old")[0]
        self.assertEqual((location["result"], location["value"]), (0, "old"))
        other = self.ask("update", "--get", "version", "--value", "old")[0]
        self.assertEqual((other["result"], other["value"]), (1, "old"))
        self.assertEqual(self.ask("update", "--notify")[0], {"result": 0, "state": 1, "value": ""})
        self.assertEqual(self.ask("update", "--set", "Version", "--value", "1")[0]["result"], 0)
        daemon.stop()
        for text in ("IRequesting the content location", "Requesting for content version",
                     "Unknown request", "UpdateNotify method getting called",
                     "SetProductInfo method getting called"):
            self.assertIn(text, daemon.log())

    def test_garbage_from_the_agent_s_side_hurts_nobody(self):
        receiver, daemon = self.started()
        receiver.wait_messages(100)
        process = self.ask("processes")[0]["process"]
        call = self.call("IPolicyEnforcement", b"")
        hostile = "22 serialization::archive 19 2 99999999999".encode("utf-32-le")
        for data in (b"", b"\xff" * 64, struct.pack("<II", 2, 0xffffffff),
                     struct.pack("<II", 2, 1 << 20) + b"short", call,
                     self.call("Nobody", b"x"), self.call("IPolicyEnforcement", b"odd"),
                     self.call("IPropertyCollection", hostile),
                     self.call("IUpdateCallback", hostile * 3, hostile)):
            with socket.socket(socket.AF_UNIX) as link:
                link.connect(str(self.agent / f"{process}.sock"))
                try:
                    link.sendall(data)
                    link.shutdown(socket.SHUT_WR)
                    while link.recv(4096):
                        pass
                except OSError:
                    pass  # it may hang up before it has heard everything
        self.assertTrue(self.ask("exists")[0]["exists"])
        self.write("a.log", self.numbered(101, 110))
        receiver.wait_messages(110)
        daemon.stop()

    def call(self, service, *parameters):
        """A frame with a call, as the loopback runtime reads it."""
        def text(data):
            return struct.pack("<I", len(data)) + data
        body = text(service.encode()) + struct.pack("<II", 0, len(parameters))
        body += b"".join(text(p) for p in parameters)
        return struct.pack("<II", 2, len(body)) + body


class NoAgent(ManagedTest):
    agent_installed = False

    def unmanaged(self):
        receiver = self.receiver()
        self.configure(receiver.port)
        self.write("a.log", self.numbered(1, 100))
        daemon = self.start()
        self.assertEqual(receiver.wait_messages(100), self.expected(1, 100))
        daemon.stop()
        return daemon

    def link_messages(self, daemon):
        return [re.sub(r"^.{20}:", "", line) for line in daemon.log().split("\n") if "LPC" in line]

    def test_the_daemon_runs_unmanaged_and_says_so(self):
        daemon = self.unmanaged()
        messages = self.link_messages(daemon)
        self.assertRegex(messages[0], r"^\(DEBUG\) LPC Process UID: LOGRELAY1000:\d+:0001$")
        self.assertEqual(messages[1:], [
            "(DEBUG) Initializing LPC", "(DEBUG) Unable to find LPC runtime location",
            "(INFO) LPC not installed", "(INFO) DeInitializing LPC"])

    def test_a_location_file_that_is_too_large_counts_as_missing(self):
        self.install_agent()
        config = self.etc / "cmx.d/OZUAGENT3700LYNX/config.xml"
        text = config.read_text()
        config.write_text(text + " " * (8193 - len(text)))
        daemon = self.unmanaged()
        self.assertIn("(INFO) LPC not installed", self.link_messages(daemon))
        config.write_text(text + " " * (8192 - len(text)))
        daemon = self.unmanaged()
        self.assertIn("(INFO) LPC initialized", self.link_messages(daemon))

    def test_a_fifo_as_location_file_does_not_hold_up_the_start(self):
        self.install_agent()
        config = self.etc / "cmx.d/OZUAGENT3700LYNX/config.xml"
        config.unlink()
        os.mkfifo(config)
        self.assertIn("(INFO) LPC not installed", self.link_messages(self.unmanaged()))


if __name__ == "__main__":
    main()
