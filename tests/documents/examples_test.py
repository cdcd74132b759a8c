"""The documents' examples work: configurations are clean, commands exist, shell blocks parse."""

import pathlib
import re
import shutil
import subprocess
import sys
import tempfile
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "support"))
from first_commands import first_commands  # noqa: E402

BIN = pathlib.Path(sys.argv.pop(1))
ROOT = pathlib.Path(__file__).resolve().parents[2]
DOCUMENTS = sorted([*ROOT.glob("*.md"), *ROOT.glob("docs/*.md"), *ROOT.glob("tools/**/*.md")])
OURS = ["ruv_receiver", "ruv_send", "siem_collector_check", "siem_collector_status"]
# What a fragment of a configuration is completed with before it is checked.
HEAD = ("rec_ip=192.0.2.10\nrec_port=8082\nbookmark_dir=/var/lib/velmor-siem-collector\n"
        "debug_level=info\nsleep=5\nthrottle=500\n")
TAIL = "type=filetail\nft_dir=/srv/app\nft_filter=app.log\nft_delim=<newline>\n"


def fenced(text, language):
    blocks = re.findall(rf"^([ ]*)```{language}\n(.*?)^[ ]*```", text, re.M | re.S)
    return [re.sub(rf"^{indent}", "", body, flags=re.M) for indent, body in blocks]


def indented(text):
    """Indented blocks outside fences, as the readers' shell would get them."""
    text = re.sub(r"^[ ]*```.*?^[ ]*```", "", text, flags=re.M | re.S)
    blocks, lines = [], []
    before_blank = True
    for line in text.split("\n") + [""]:
        if re.match(r"^ {4,}\S", line) and (lines or before_blank):
            lines.append(line.strip())
        elif lines:
            blocks.append("\n".join(lines))
            lines = []
        before_blank = not line.strip()
    return blocks


def without_continuations(text):
    return re.sub(r"\\\n\s*", " ", text)


class Examples(unittest.TestCase):
    def setUp(self):
        scratch = tempfile.TemporaryDirectory()
        self.addCleanup(scratch.cleanup)
        self.dir = pathlib.Path(scratch.name)
        self.help = {tool: subprocess.run([BIN / tool, "--help"], capture_output=True, text=True,
                                          stdin=subprocess.DEVNULL).stdout for tool in OURS}

    def check(self, content):
        path = self.dir / "example.conf"
        path.write_text(content)
        done = subprocess.run([BIN / "siem_collector_check", "--no-host", "--deny-warnings", path],
                              capture_output=True, text=True, timeout=60)
        return done.returncode, done.stdout

    def test_configurations_are_clean(self):
        seen = 0
        for document in DOCUMENTS:
            for block in fenced(document.read_text(), "ini"):
                content = block
                if "rec_ip=" not in content:
                    content = HEAD + content
                if "type=" not in content:
                    content += TAIL
                with self.subTest(document=document.name, block=block):
                    self.assertEqual(self.check(content)[0], 0, self.check(content)[1])
                seen += 1
        self.assertGreaterEqual(seen, 3)

    def test_options_in_commands_exist(self):
        seen = 0
        for document in DOCUMENTS:
            text = document.read_text()
            for block in fenced(text, "(?:sh|shell|bash|console)?") + indented(text):
                for line in without_continuations(block).split("\n"):
                    for tool in OURS:
                        used = re.match(rf"(?:\$ |# )?(?:\S*/)?{tool}\b(.*)", line)
                        if not used:
                            continue
                        seen += 1
                        for option in re.findall(r"(?<=\s)--[a-z][a-z0-9-]*", used[1]):
                            with self.subTest(document=document.name, line=line):
                                self.assertIn(option, self.help[tool])
        self.assertGreater(seen, 5)

    def test_quick_start_tells_the_same_commands(self):
        installation, commands = first_commands()
        quick_start = (ROOT / "docs" / "quick-start.md").read_text()
        told = indented(quick_start.split("\n## ")[0])
        self.assertEqual(told, [installation, *commands])

    def test_named_files_of_the_tree_exist(self):
        for document in DOCUMENTS:
            text = re.sub(r"^```.*?^```", "", document.read_text(), flags=re.M | re.S)
            for name in re.findall(r"`((?:core|config|filetail|ruv|lpc|lpc_interface|tools|tests|"
                                   r"docs|scripts|bench|packaging|examples)/[\w./-]*\w)`", text):
                with self.subTest(document=document.name, name=name):
                    self.assertTrue((ROOT / name).exists() or list(ROOT.glob(name + ".*")), name)

    @unittest.skipUnless(shutil.which("bash"), "needs bash")
    def test_shell_blocks_parse(self):
        seen = 0
        for document in DOCUMENTS:
            for block in fenced(document.read_text(), "(?:sh|shell|bash)"):
                done = subprocess.run(["bash", "-n"], input=block, capture_output=True, text=True)
                with self.subTest(document=document.name, block=block):
                    self.assertEqual(done.returncode, 0, done.stderr)
                seen += 1
        self.assertGreater(seen, 0)


if __name__ == "__main__":
    unittest.main()
