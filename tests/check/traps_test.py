"""Every trap has a seeded configuration that reports just it; the examples report nothing."""

import json
import os
import pathlib
import re
import subprocess
import sys
import tempfile
import unittest

CHECK = sys.argv.pop(1)
ROOT = pathlib.Path(__file__).resolve().parents[2]

GLOBALS = [
    "rec_ip=192.0.2.10",
    "rec_port=8082",
    "rec_encrypt=1",
    "bookmark_dir=/var/lib/velmor-siem-collector",
    "debug_level=info",
    "log_path=/var/log/velmor/siem_collector.log",
    "sleep=5",
    "throttle=500",
]
SECTION = ["type=filetail", "ft_dir=/srv/app/", "ft_filter=app.log", "ft_delim=<newline>"]


def text(lines):
    return "".join(line + "\n" for line in lines)


def without(lines, key):
    return [line for line in lines if not line.startswith(key + "=")]


def changed(line):
    """The clean file with the line of the same key replaced; as bytes."""
    key = line.split("=", 1)[0]
    lines = [line if old.split("=", 1)[0] == key else old for old in GLOBALS + SECTION]
    assert line in lines, line
    return text(lines)


def plus_global(*lines):
    return text(GLOBALS + list(lines) + SECTION)


def plus_section(*lines):
    return text(GLOBALS + SECTION + list(lines))


# Trap -> files that must each report that trap once and nothing else.
SEEDS = {
    "T01": [text(GLOBALS + SECTION)[:-1]],
    "T02": [text(GLOBALS + SECTION).replace("sleep=5\n", "sleep=5\r\n")],
    "T03": [plus_global("daemonize =1"), plus_section(" hostid=a")],
    "T04": [changed("rec_ip= 192.0.2.10"), changed("ft_filter= app.log")],
    "T05": [changed("rec_ip=192.0.2.10 "), changed("ft_dir=/srv/app/ ")],
    "T06": [plus_global("rec_ipp=1"), plus_section("ft_filtre=a"), plus_global("nonsense=1")],
    "T07": [plus_section("daemonize=1")],
    "T08": [plus_global("hostid=a")],
    "T09": [plus_global("daemonize"), plus_section("hostid")],
    "T10": [plus_section("ft_s=1"), plus_section("host=a")],
    "T11": [plus_global("=1"), plus_section("=big_fix")],
    "T12": [plus_global(" # a comment")],
    "T13": [plus_global("sleep=6"), plus_section("ft_filter=b.log")],
    "T14": [plus_global("Daemonize=1"), plus_section("FT_START_TOP=1")],
    "T15": [plus_global("daemonize=\x001")],
    "T16": ["\ufeff# first\n" + text(GLOBALS + SECTION)],
    "T17": [changed('rec_ip="receiver"'), plus_section("hostid='a'")],
    "T20": [text(without(GLOBALS, "rec_ip") + SECTION)],
    "T21": [text(without(GLOBALS, "rec_port") + SECTION)],
    "T22": [changed("rec_port=0"), changed("rec_port=65536"), changed("rec_port=-1")],
    "T23": [changed("rec_encrypt=true"), changed("sleep=five"), plus_global("daemonize=yes")],
    "T24": [changed("sleep=5s"), changed("rec_port=8082/tcp")],
    "T25": [changed("rec_encrypt=3"), changed("rec_encrypt=-1")],
    "T26": [changed("rec_ip=https://receiver"), changed("rec_ip=192.0.2.1:8082"),
            changed("rec_ip=[2001:db8::1]")],
    "T30": [text(without(GLOBALS, "bookmark_dir") + SECTION)],
    "T31": [changed("bookmark_dir=var/bookmarks")],
    "T32": [changed("bookmark_dir=/var/lib/bookmarks/")],
    "T33": [changed("bookmark_dir=/" + "b" * 243)],
    "T34": [changed("debug_level=warning"), changed("debug_level=Info"), changed("debug_level=")],
    "T35": [text(without(GLOBALS, "debug_level") + SECTION)],
    "T36": [changed("log_path=collector.log")],
    "T37": [changed("log_path=/var/log/$(id).log")],
    "T38": [text(without(GLOBALS, "sleep") + SECTION), changed("sleep=0"), changed("sleep=-1")],
    "T39": [text(without(GLOBALS, "throttle") + SECTION), changed("throttle=0")],
    "T40": [changed("sleep=3601")],
    "T41": [changed("debug_level=debug"), changed("debug_level=DIAG")],
    "T45": [plus_global("reconnect_wait=0"), plus_global("reconnect_wait=301")],
    "T46": [plus_global("rec_confirm=0"), plus_global("rec_confirm=-5")],
    "T47": [changed("rec_encrypt=0").replace("type=", "rec_tls_name=a\ntype=", 1)],
    "T48": [plus_global("rec_tls_min=1.1"), plus_global("rec_tls_min=TLSv1.2")],
    "T49": [plus_global("rec_tls_cert=/a"), plus_global("rec_tls_key=/a")],
    "T50": [plus_global("small_file_guard=2"), plus_global("rotation_drain=yes"),
            plus_global("wake_on_change=")],
    "T51": [plus_global("rec_tls_ca=ca.pem")],
    "T60": [text(GLOBALS)],
    "T61": [text(GLOBALS + ["type=syslog"]), text(GLOBALS + ["type="] + SECTION[1:])],
    "T62": [text(GLOBALS + without(SECTION, "ft_dir"))],
    "T63": [text(GLOBALS + without(SECTION, "ft_filter"))],
    "T64": [text(GLOBALS + without(SECTION, "ft_delim"))],
    "T65": [changed("ft_dir=srv/app")],
    "T66": [changed("ft_dir=/srv/my app")],
    "T67": [changed("ft_dir=/" + "d" * 143)],
    "T68": [changed("ft_filter=app/app.log")],
    "T69": [changed("ft_filter=*"), changed("ft_filter=app.log*"), changed("ft_filter=my-app.*")],
    "T70": [changed("ft_delim=(unclosed"), changed("ft_delim=*")],
    "T71": [changed("ft_delim=x*"), changed("ft_delim=(?=\\d{4}-)")],
    "T72": [plus_section("ft_start_top=yes")],
    "T73": [plus_section("ft_delim_end_of_event=2")],
    "T74": [plus_section("subtype=bigfix")],
    "T75": [plus_section(*SECTION), plus_section("type=filetail", "ft_dir=/srv/app",
                                                  "ft_filter=*.log", "ft_delim=<tab>"),
            changed("ft_filter=app*.log") + text(["type=filetail", "ft_dir=/srv/app",
                                                 "ft_filter=app.l*g", "ft_delim=<tab>"])],
    "T76": [changed("ft_dir=/var/log/velmor").replace("app.log", "siem*.log")],
    "T77": [changed("ft_dir=/var/lib/velmor-siem-collector").replace("app.log", "ft_book?ark")],
    "T78": [changed("ft_delim=newline"), changed("ft_delim=space")],
    "T79": [changed("rec_ip="), changed("bookmark_dir="), changed("ft_filter="),
            changed("sleep="), plus_global("rec_tls_ca=")],
    "T80": [plus_section("hostid=" + "h" * 65536)],
}


def run_check(path, *options):
    done = subprocess.run([CHECK, "--json", *options, path], stdin=subprocess.DEVNULL,
                          capture_output=True, timeout=60)
    return done.returncode, json.loads(done.stdout)


class Traps(unittest.TestCase):
    def setUp(self):
        self.scratch = tempfile.TemporaryDirectory()
        self.addCleanup(self.scratch.cleanup)
        self.dir = pathlib.Path(self.scratch.name)

    def check_text(self, content, *options):
        path = self.dir / "collector.conf"
        path.write_bytes(content.encode("utf-8"))
        return run_check(str(path), *options)

    def ids(self, content, *options):
        return [f["id"] for f in self.check_text(content, *options)[1]["findings"]]

    def table(self):
        listed = subprocess.run([CHECK, "--explain", "all"], capture_output=True, text=True)
        return re.findall(r"^(T\d\d) \((error|warning)\)", listed.stdout, re.M)

    def test_clean_file_reports_nothing(self):
        status, report = self.check_text(text(GLOBALS + SECTION), "--no-host")
        self.assertEqual((status, report["findings"]), (0, []))

    def test_each_seed_reports_exactly_its_trap(self):
        levels = dict(self.table())
        for trap, seeds in SEEDS.items():
            for seed in seeds:
                with self.subTest(trap=trap, seed=seed[-200:]):
                    status, report = self.check_text(seed, "--no-host")
                    self.assertEqual([f["id"] for f in report["findings"]], [trap])
                    self.assertEqual(status, 78 if levels[trap] == "error" else 0)

    def test_every_trap_has_a_seed(self):
        host = {"T85", "T86", "T87", "T88", "T89", "T90", "T91"}
        self.assertEqual({t for t, _ in self.table()}, set(SEEDS) | host)
        self.assertGreaterEqual(len(self.table()), 40)

    def test_line_numbers_and_nearest_name(self):
        finding = self.check_text(plus_global("rec_ipp=1"), "--no-host")[1]["findings"][0]
        self.assertEqual(finding["line"], len(GLOBALS) + 1)
        self.assertIn("did you mean rec_ip?", finding["detail"])

    def test_a_number_with_a_tail_tells_what_is_read(self):
        finding = self.check_text(changed("throttle=1,000"), "--no-host")[1]["findings"][0]
        self.assertEqual((finding["id"], finding["detail"]),
                         ("T24", "throttle=1,000 is read as 1"))

    def test_delimiters_may_hold_blanks_and_quotes(self):
        for word in ('" "', " ", "a ", " a"):
            self.assertEqual(self.ids(changed("ft_delim=" + word), "--no-host"), [], word)

    def test_values_with_an_equals_sign(self):
        self.assertEqual(self.ids(changed("ft_filter=a=b.log"), "--no-host"), [])

    def test_example_files_report_nothing(self):
        seen = 0
        for name in [*ROOT.glob("examples/*.conf"), *ROOT.glob("packaging/etc/*.conf")]:
            status, report = run_check(str(name), "--no-host")
            self.assertEqual((status, report["findings"]), (0, []), name)
            seen += 1
        self.assertGreater(seen, 0)

    def test_written_example_reports_nothing(self):
        example = subprocess.run([CHECK, "--init"], capture_output=True, text=True).stdout
        self.assertEqual(self.ids(example, "--no-host"), [])


class HostTraps(Traps):
    """What the files of a host say; on directories of our own."""

    def setUp(self):
        super().setUp()
        self.logs = self.dir / "logs"
        self.logs.mkdir()
        self.rules = self.dir / "rotate"
        self.rules.mkdir()

    def host_ids(self, *more_globals, delim="<newline>", directory=None, name="*.log"):
        content = text(GLOBALS + list(more_globals) +
                       ["type=filetail", f"ft_dir={directory or self.logs}", f"ft_filter={name}",
                        f"ft_delim={delim}"])
        return self.ids(content, "--logrotate", str(self.rules))

    def log(self, name, content=None):
        (self.logs / name).write_text((content or name + " line\n") * 40)

    def test_clean_host(self):
        self.log("app.log")
        self.assertEqual(self.host_ids(), [])

    def test_directory_is_missing(self):
        self.assertEqual(self.host_ids(directory=self.dir / "absent"), ["T85"])

    def test_blank_in_a_name(self):
        self.log("my app.log")
        self.assertEqual(self.host_ids(), ["T86"])

    def test_small_file(self):
        (self.logs / "app.log").write_text("short\n")
        self.assertEqual(self.host_ids(), ["T87"])
        self.assertEqual(self.host_ids("small_file_guard=1"), [])

    def test_delimiter_never_occurs(self):
        self.log("app.log")
        self.assertEqual(self.host_ids(delim="\\r\\n"), ["T88"])

    def test_rotation_rule_sends_hup(self):
        self.log("app.log")
        (self.rules / "collector").write_text(
            "/var/log/velmor/*.log {\n postrotate\n pkill -HUP velmor_siem_collector\n"
            " endscript\n}\n")
        self.assertEqual(self.host_ids(), ["T89"])

    def test_copytruncate(self):
        self.log("app.log")
        for rule in (f"{self.logs}/app.log {{\n copytruncate\n}}\n",
                     f'/srv/other.log\n"{self.logs}/*.log"\n{{\n daily\n copytruncate\n}}\n',
                     f"copytruncate\n{self.logs.parent}/*/app.* {{\n daily\n}}\n",
                     f"{self.logs}/new.log{{\n copytruncate\n}}\n"):
            (self.rules / "app").write_text(rule)
            with self.subTest(rule):
                self.assertEqual(self.host_ids(), ["T90"])

    def test_copytruncate_of_other_files(self):
        self.log("app.log")
        for rule in (f"{self.logs}/deeper/*.log {{\n copytruncate\n}}\n",
                     f"{self.logs}/app.txt {{\n copytruncate\n}}\n",
                     f"{self.logs}/app.log {{\n daily\n}}\n/srv/x.log {{\n copytruncate\n}}\n",
                     f"{self.logs}/app.log {{\n # copytruncate\n nocopytruncate\n}}\n"):
            (self.rules / "app").write_text(rule)
            with self.subTest(rule):
                self.assertEqual(self.host_ids(), [])

    def test_equal_heads(self):
        self.log("a.log", "the same banner in every file\n")
        self.log("b.log", "the same banner in every file\n")
        self.assertEqual(self.host_ids(), ["T91"])

    def test_pipes_are_not_opened(self):
        self.log("app.log")
        os.mkfifo(self.logs / "pipe.log")
        self.assertEqual(self.host_ids(), [])


if __name__ == "__main__":
    unittest.main()
