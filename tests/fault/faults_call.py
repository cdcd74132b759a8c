"""A call of the C library on the path of an event fails: once, a few times, or from then on for
good, at a moment that the seed chooses."""
import errno
import signal
import time
from dataclasses import dataclass, field

from lab import wait_for

LIMIT_SECONDS = 30  # of a stop, on a machine that may be busy with something else
TLS = {"rec_encrypt": 1}
WOKEN = {"wake_on_change": 1}
MARKS, LOCK = "ft_bookmark", "velmor_siem_collector.loc"


@dataclass(frozen=True)
class Case:
    call: str
    error: int
    path: str = ""       # part of the path of the file that is meant
    latest: int = 1      # last call that may be the first one to fail
    after: str = ""      # part of a path that is opened before the first call that counts
    settings: dict = field(default_factory=dict)
    resent: int = 0      # most events that may come twice
    unmarked: bool = False  # while it lasts no position can be stored or read again
    refused: bool = False   # a start may be given up over it
    lasting: bool = True    # a machine can be so for good


CASES = {
    "open_input": Case("open", errno.EMFILE, "/in/", 40),
    "open_bookmark": Case("open", errno.EACCES, MARKS, 1, unmarked=True),
    "opendir": Case("opendir", errno.EMFILE, "/in", 5),
    "readdir": Case("readdir", errno.EIO, "", 20),
    "pread_input": Case("pread", errno.EIO, "/in/", 60),
    "pread_bookmark": Case("pread", errno.EIO, MARKS, 40, unmarked=True),
    "pwrite_bookmark": Case("pwrite", errno.ENOSPC, MARKS, 60, unmarked=True),
    "ftruncate_bookmark": Case("ftruncate", errno.EIO, MARKS),
    "statx_bookmark": Case("statx", errno.EIO, MARKS, 40, unmarked=True),
    "mkdir_bookmarks": Case("mkdir", errno.EACCES, "bookmarks", refused=True),
    "fstat_input": Case("fstat", errno.EIO, "/in/", 30),
    "stat": Case("stat", errno.EIO, "/in/", 50),
    "lstat_log": Case("lstat", errno.EIO, "collector.log"),
    "open_log": Case("open", errno.EACCES, "collector.log"),
    "realloc": Case("realloc", errno.ENOMEM, "", 4, LOCK, refused=True),
    "malloc": Case("malloc", errno.ENOMEM, "", 300, LOCK, resent=5, refused=True),
    "getaddrinfo": Case("getaddrinfo", 0),
    "socket": Case("socket", errno.EMFILE),
    "setsockopt": Case("setsockopt", errno.EINVAL),
    "getsockname": Case("getsockname", errno.ENOBUFS),
    "connect": Case("connect", errno.ENETUNREACH),
    "connect_refused": Case("connect", errno.ECONNREFUSED),
    "sendmsg_reset": Case("sendmsg", errno.ECONNRESET, "", 80, resent=5),
    "sendmsg_timed_out": Case("sendmsg", errno.ETIMEDOUT, "", 80, resent=5),
    "sendmsg_interrupted": Case("sendmsg", errno.EINTR, "", 80, lasting=False),
    "recvmsg": Case("recvmsg", errno.ECONNRESET, "", 2, resent=5),
    "recv_of_the_probe_for_a_close": Case("recv", errno.EIO, "", 20, resent=5),
    "poll": Case("poll", errno.EINTR, "", 6, LOCK, lasting=False),
    "eventfd": Case("eventfd", errno.EMFILE, "", 2),
    "send_under_tls": Case("send", errno.ECONNRESET, "", 80, settings=TLS, resent=5),
    "recv_under_tls": Case("recv", errno.ECONNRESET, "", 20, settings=TLS, resent=5),
    "inotify_init1": Case("inotify_init1", errno.EMFILE, settings=WOKEN),
    "inotify_add_watch": Case("inotify_add_watch", errno.ENOSPC, settings=WOKEN),
    "read_of_a_wake": Case("read", errno.EIO, "inotify", 4, settings=WOKEN),
}


def begin(lab, name, count):
    """A daemon whose K-th call fails; two files that grow and one that goes."""
    case = CASES[name]
    at = lab.rng.randrange(1, case.latest + 1)
    lab.figures["call"] = f"{case.call}#{at}"
    lab.listen(*(("--tls", "always") if case.settings is TLS else ()))
    lab.configure(lab.port, debug_level="info", **case.settings)
    for each in "abc":
        lab.source(each).append(60)
    return lab.run_daemon(scale=None, wait=False, env=lab.fault_environment(
        case.call, at, count, case.error, case.path, case.after))


def feed(lab):
    for _ in range(4):
        time.sleep(0.5)
        passing = lab.sources[2]
        if passing.path.exists() and lab.arrived(passing) == passing.written:
            passing.path.unlink()
        for source in lab.sources[:2]:
            source.append(20)


def is_given_up(daemon):
    return daemon.process.poll() is not None or "plugin not started" in daemon.log()


def has_struck(lab):
    wait_for((lab.folder / "struck").exists, f"the failure of {lab.figures['call']}", 20)


def failing_call(lab, name, count=1):
    daemon = begin(lab, name, count)
    feed(lab)
    has_struck(lab)
    if CASES[name].refused and is_given_up(daemon):
        if daemon.process.poll() is None:
            lab.timed_stop(daemon)
        daemon = lab.run_daemon()  # the next start goes on
    wait_for(lambda: daemon.process.poll() is not None or
             all(lab.arrived(s) == s.written for s in lab.sources), "all events", 120)
    assert daemon.process.poll() is None, f"ended with {daemon.process.poll()}"
    lab.timed_stop(daemon)


def failing_for_good(lab, name):
    """What cannot be done is not done; but the daemon neither crashes nor hangs over it, and one
    without the fault sends everything."""
    daemon = begin(lab, name, 0)
    feed(lab)
    has_struck(lab)
    if daemon.process.poll() is None:
        took = lab.timed_stop(daemon, lab.rng.choice([signal.SIGTERM, signal.SIGINT]))
        assert took < LIMIT_SECONDS, f"the stop took {took:.1f} s"
        lab.figures["ended"] = "when told"
    else:
        assert 0 <= daemon.process.poll() < 99, f"ended with {daemon.process.poll()}"
        lab.figures["ended"] = f"with {daemon.process.poll()}"
    daemon = lab.run_daemon()
    for source in lab.sources[:2]:
        source.append(10)
    wait_for(lambda: all(lab.arrived(s) == s.written for s in lab.sources), "all events", 120)
    lab.timed_stop(daemon)


ROWS = []
for row, the_case in CASES.items():
    for times, count in (("once", 1), ("five_times", 5)):
        ROWS.append({"name": f"call.{row}.{times}", "run": failing_call,
                     "arguments": {"name": row, "count": count}, "repeated": the_case.resent})
    if not the_case.lasting:
        continue
    # Positions that could not be stored are not known to the next daemon.
    ROWS.append({"name": f"call.{row}.for_good", "run": failing_for_good,
                 "arguments": {"name": row},
                 "repeated": None if the_case.unmarked else the_case.resent})
