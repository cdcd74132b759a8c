"""A system call on the path fails: once, a few times, at a moment that the seed chooses."""
import errno
import time

from lab import wait_for

# call -> (error, part of the path, latest call that is hit)
CALLS = {
    "open_input": ("open", errno.EMFILE, ".log", 40),
    "open_bookmark": ("open", errno.EACCES, "ft_bookmark", 4),
    "opendir": ("opendir", errno.EMFILE, "", 5),
    "readdir": ("readdir", errno.EIO, "", 20),
    "pread_input": ("pread", errno.EIO, ".log", 60),
    "pread_bookmark": ("pread", errno.EIO, "ft_bookmark", 40),
    "pwrite_bookmark": ("pwrite", errno.ENOSPC, "ft_bookmark", 60),
    "fstat_input": ("fstat", errno.EIO, ".log", 30),
    "stat": ("stat", errno.EIO, "", 60),
    "socket": ("socket", errno.EMFILE, "", 1),
    "connect": ("connect", errno.ENETUNREACH, "", 1),
    "connect_refused": ("connect", errno.ECONNREFUSED, "", 1),
    "sendmsg_reset": ("sendmsg", errno.ECONNRESET, "", 80),
    "sendmsg_timed_out": ("sendmsg", errno.ETIMEDOUT, "", 80),
    "sendmsg_interrupted": ("sendmsg", errno.EINTR, "", 80),
    "recvmsg": ("recvmsg", errno.ECONNRESET, "", 6),
    "poll": ("poll", errno.EINTR, "", 20),
    "malloc": ("malloc", errno.ENOMEM, "", 400),
}
# Work begins with the program itself; a failure of these there is a refused start, not a fault.
FIRST_CALL = {"malloc": 300, "stat": 8, "poll": 2, "opendir": 2}


def failing_call(lab, case, count=1):
    call, error, path, latest = CALLS[case]
    at = lab.rng.randrange(FIRST_CALL.get(call, 1), latest + FIRST_CALL.get(call, 1))
    lab.listen()
    lab.configure(lab.port, debug_level="info", rec_confirm=lab.figures.get("confirm"))
    source = lab.source()
    other = lab.source("b")
    for each in lab.sources:
        each.append(60)
    daemon = lab.run_daemon(scale=None, wait=False,
                            env=lab.fault_environment(call, at, count, error, path))
    for _ in range(4):
        time.sleep(0.5)
        for each in lab.sources:
            each.append(20)
    struck = (lab.folder / "struck").exists()
    lab.figures["struck"] = f"{call}#{at}:{'yes' if struck else 'never'}"
    if daemon.process.poll() is not None and case == "malloc":
        daemon = lab.run_daemon()  # without memory a start may be given up; the next one goes on
    wait_for(lambda: daemon.process.poll() is not None or
             all(lab.arrived(s) == s.written for s in (source, other)), "all events", 120)
    assert daemon.process.poll() is None, f"ended with {daemon.process.poll()}"
    lab.timed_stop(daemon)


ROWS = []
for name in CALLS:
    for count in (1, 5):
        resent = name.startswith(("sendmsg", "recvmsg", "malloc"))
        ROWS.append({"name": f"call.{name}.{'once' if count == 1 else 'five_times'}",
                     "run": failing_call, "arguments": {"case": name, "count": count},
                     # A send that failed may have arrived all the same.
                     "repeated": 5 if resent else 0})
