"""What bench, soak and chain share: navtwine as a child process, its figures from /proc, and the table of results."""

import contextlib
import os
import re
import signal
import socket
import subprocess
import sys
import tempfile
import time
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
BUILD = ROOT / "build" / "release"
STANDIN = BUILD / "tools"  # the folder of the stand-in gpspipe, for PATH
ALL_TYPES = ["--gga", "--rmc", "--gsa", "--zda", "--gbs", "--gll", "--gsv", "--vtg"]
OWN_THREADS = 3            # main, the server, the one that ends gpspipe

ESTABLISHED, CLOSE_WAIT, LISTEN = 1, 8, 10  # of the kernel's net/tcp_states.h
VERDICT = {None: "", True: "ok", False: "FAILED"}

rows = []


class Failed(Exception):
    """What went wrong, in words for a person."""


def row(name, figure, limit="", ok=None):
    """A row of the table; `ok`: whether the figure keeps its limit, None when it has none."""
    rows.append((name, figure, limit, ok))
    print(f"{name:<64} {figure!s:>30}  {limit:<44} {VERDICT[ok]}", flush=True)


def run(main):
    """Ends the process: with status 0 when `main` returns and every row is well."""
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(1))
    try:
        main()
        if bad := [name.strip() for name, _, _, ok in rows if ok is False]:
            raise Failed("; ".join(bad))
    except (Failed, OSError) as failure:
        sys.exit(f"FAILED: {failure}")
    except KeyboardInterrupt:
        sys.exit("FAILED: interrupted, or out of time")


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def wait_until(condition, seconds, step=0.02):
    """True as soon as `condition()` is; False when it was not in time."""
    end = time.monotonic() + seconds
    while not (met := condition()) and time.monotonic() < end:
        time.sleep(step)
    return bool(met)


def peers(port, *states):
    """The other ends' ports of the machine's TCP sockets at `port` that are in one of the states."""
    sockets = [line.split()[1:4] for line in Path("/proc/net/tcp").read_text().splitlines()[1:]]
    return [int(remote[-4:], 16) for local, remote, state in sockets
            if int(local[-4:], 16) == port and int(state, 16) in states]


def is_listening(port):
    """Looked up, not tried: a connection would be a client."""
    return bool(peers(port, LISTEN))


def children_of(process):
    """The process numbers below `process`, its own not included."""
    found = []
    with contextlib.suppress(OSError):
        for task in os.listdir(f"/proc/{process}/task"):
            for child in Path(f"/proc/{process}/task/{task}/children").read_text().split():
                found += [int(child), *children_of(int(child))]
    return found


def end_process(process, first_signal=signal.SIGTERM):
    """Ends a Popen and what it started, and nothing else. Returns its status."""
    below = children_of(process.pid)
    process.send_signal(first_signal)
    try:
        process.wait(5)
    except subprocess.TimeoutExpired:
        process.kill()
        process.wait()
    for child in below:
        with contextlib.suppress(OSError):
            os.kill(child, signal.SIGKILL)
    return process.returncode


class Navtwine:
    """The program with its server, all types and no interval. A context manager, from when it listens.

    The environment's NAVTWINE_OPTIONS are its last options. `gpspipe`: the folder of the one to use; `prefix`: a
    command that starts the program, prlimit or strace."""

    def __init__(self, *options, gpspipe=STANDIN, prefix=(), **environment):
        self.port = free_port()
        self.log_file = tempfile.TemporaryFile()
        command = [*prefix, BUILD / "navtwine", "--server", "--server-port", str(self.port), "--interval", "1", "-e",
                   *ALL_TYPES, *options, *os.environ.get("NAVTWINE_OPTIONS", "").split()]
        self.process = subprocess.Popen(
            command, env={**os.environ, "PATH": f"{gpspipe}:/usr/bin:/bin", **environment},
            stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=self.log_file)
        self.pid = self.process.pid

    def __enter__(self):
        wait_until(lambda: self.process.poll() is not None or is_listening(self.port), 10, 0.001)
        if self.process.poll() is not None or not is_listening(self.port):
            status = self.stop()
            raise Failed(f"navtwine does not listen, status {status}: {self.log()[-500:]}")
        return self

    def __exit__(self, *_):
        self.stop()

    def stop(self):
        return end_process(self.process, signal.SIGINT)

    def log(self):
        log = self.log_file.fileno()
        return os.pread(log, os.fstat(log).st_size, 0).decode(errors="replace")

    def processor_seconds(self):
        """Of all its threads, those that have ended too: the clock that clock_getcpuclockid(3) gives."""
        return time.clock_gettime(~self.pid << 3 | 2)

    def reader_seconds(self):
        return int(Path(f"/proc/{self.pid}/task/{self.pid}/schedstat").read_text().split()[0]) / 1e9

    def wake_ups(self):
        """How often its threads went to sleep, which is how often something woke them."""
        status = [task.read_text() for task in Path(f"/proc/{self.pid}/task").glob("*/status")]
        return sum(int(re.search(r"^voluntary_ctxt_switches:\s(\d+)$", text, re.M)[1]) for text in status)

    def memory(self):
        """KiB: Rss is resident, Private_Dirty of it its own and written to, VmSize address space."""
        text = "".join(Path(f"/proc/{self.pid}/{name}").read_text() for name in ("smaps_rollup", "status"))
        return {key: int(kib) for key, kib in re.findall(r"^(Rss|Private_Dirty|VmSize):\s+(\d+) kB", text, re.M)}

    def threads(self):
        return len(os.listdir(f"/proc/{self.pid}/task"))

    def descriptors(self):
        return len(os.listdir(f"/proc/{self.pid}/fd"))
