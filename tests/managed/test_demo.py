"""The demonstration with an agent, as a user runs it."""
import os
import subprocess
import sys

import kit_path  # noqa: F401
from daemon_kit import BUILD, ROOT, main
from managed_kit import ManagedTest


class Demo(ManagedTest):
    agent_installed = False

    def test_the_managed_demo_loses_nothing(self):
        done = subprocess.run(
            [sys.executable, "-B", str(ROOT / "scripts/demo_managed.py")], check=False,
            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
            env={**os.environ, "COLLECTOR_BUILD": str(BUILD)}, timeout=500)
        text = done.stdout.decode("utf-8", "replace")
        self.assertEqual(done.returncode, 0, text)
        self.assertEqual(text.count(" events, 0 lost, 0 repeated"), 2, text)


if __name__ == "__main__":
    main()
