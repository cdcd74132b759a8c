"""rec_confirm with the real daemon: the connection ends after any byte, in either direction.

tests/ruv/group_offsets_test.cpp ends it after every byte of a group; here the offsets are drawn by
a seed, which a failure prints (CUT_SEED repeats it), and the daemon's whole road is in between:
reading, grouping, the bookmark, reconnecting.
"""
import os
import random
import shutil
import unittest

import kit_path  # noqa: F401
from cutting_relay import TO_RECEIVER, TO_SENDER, Cut, Relay
from daemon_kit import DaemonTest, main
from test_tls_options import Authority

GROUP = 10
EVENTS = 2000
WIDTH = 60
CUTS = 24
FAST = 300


class ConfirmCuts(DaemonTest):
    def draw_cuts(self, opening, answers):
        """Cuts from the first byte of a connection to some groups behind its opening."""
        seed = int(os.environ.get("CUT_SEED", 20))
        rng, cuts = random.Random(seed), []
        group = GROUP * (24 + WIDTH) + 16
        for number in range(CUTS):
            reset = rng.random() < 0.5
            if number == 0:
                # A Receiver that nothing is known of may be one that cannot confirm.
                cuts.append(Cut(TO_RECEIVER, rng.randrange(opening, opening + group), reset))
            elif rng.random() < 0.6:
                cuts.append(Cut(TO_RECEIVER, rng.randrange(1, opening + 4 * group), reset))
            else:
                cuts.append(Cut(TO_SENDER, rng.randrange(1, answers + 4 * 8), reset))
        print(f"seed {seed}:", "; ".join(map(str, cuts)))
        return cuts

    def deliver(self, cuts, options=(), **settings):
        receiver = self.receiver(*options)
        relay = Relay(receiver.port, cuts)
        self.addCleanup(relay.stop)
        self.configure(relay.port, debug_level="info", rec_confirm=GROUP, reconnect_wait=1,
                       **settings)
        path = self.write("a.log", self.numbered(1, EVENTS, WIDTH))
        daemon = self.start(scale=FAST)
        self.wait_bookmark("a.log", path.stat().st_size)
        daemon.stop()
        receiver.stop()
        got, expected = receiver.messages(), self.expected(1, EVENTS, WIDTH)
        self.assertEqual(sorted(set(got)), expected, "nothing is lost and nothing is torn")
        repeated = len(got) - len(expected)
        print(f"{len(relay.made)} cuts made, {relay.connections} connections, "
              f"{repeated} events repeated")
        self.assertLessEqual(repeated, GROUP * len(relay.made))
        self.assertEqual(relay.made, cuts)
        self.assertEqual({event["version"] for event in receiver.events}, {6})
        return daemon

    def test_plain(self):
        self.deliver(self.draw_cuts(opening=32, answers=500))

    @unittest.skipUnless(shutil.which("openssl"), "needs the openssl command")
    def test_authenticated_tls(self):
        authority = Authority(self.folder, "authority")
        cert, key = authority.issue("r", "IP:127.0.0.1")
        # The handshake is part of the stream here: some 600 bytes there and 1,400 back.
        self.deliver(self.draw_cuts(opening=700, answers=2000),
                     ("--tls", "always", "--cert", cert, "--key", key),
                     rec_encrypt=1, rec_tls_ca=authority.cert)

    def test_a_cut_probe_does_not_end_the_confirming(self):
        """A Receiver that dies amid a reconnect's probe looks like one that cannot confirm."""
        cuts = [Cut(TO_RECEIVER, 5000, True), Cut(TO_SENDER, 4, True), Cut(TO_SENDER, 40, True),
                Cut(TO_RECEIVER, 5000, True)]
        self.assertIn("no answer of version 6, which rec_confirm needs", self.deliver(cuts).log())


if __name__ == "__main__":
    main()
