"""Policies while the rest of a renamed file is sent: the restart in place must not lose it."""
import signal

import kit_path  # noqa: F401
from daemon_kit import main, wait_for
from managed_kit import ManagedTest

GLOBAL = "[LOGRELAY1000]"
GROUP, LAST_OF_THE_REST, LAST = 10, 1500, 1600


class Rotation(ManagedTest):
    def test_policies_in_the_middle_of_a_rest(self):
        # Each group waits for its answer: the rest takes its time, however fast the machine is.
        sink = self.receiver("--delay", 1)
        self.configure(sink.port, rotation_drain=1, rec_confirm=GROUP, debug_level="info")
        daemon = self.start()
        daemon.wait_log("Started policy enforcement service")
        path = self.write("a.log", self.numbered(1, 100, 40))
        sink.wait_messages(100)
        self.wait_bookmark("a.log", path.stat().st_size)
        daemon.send(signal.SIGSTOP)
        self.write("a.log", self.numbered(101, LAST_OF_THE_REST, 40))
        path.rename(self.input / "a.log.1")
        self.write("a.log", self.numbered(LAST_OF_THE_REST + 1, LAST, 40))
        daemon.send(signal.SIGCONT)
        restarts = 0
        for mode in ("end", "begin", "end", "begin"):
            before = sink.count()
            wait_for(lambda seen=before: sink.count() > seen or sink.count() >= LAST, "an event")
            self.push(GLOBAL, f"Tail Mode={mode}")
            if sink.count() < LAST_OF_THE_REST:
                restarts += 1  # it came in the middle, and the rest goes on behind it
        wait_for(lambda: len(set(sink.messages())) == LAST, "every event")
        daemon.stop()
        once = list(dict.fromkeys(sink.messages()))
        self.assertEqual(once, self.expected(1, LAST, 40))
        self.assertLessEqual(sink.count() - LAST, 4 * GROUP)
        begun = daemon.log().count("Reading the rest of renamed file")
        self.assertGreater(begun, restarts)


if __name__ == "__main__":
    main()
