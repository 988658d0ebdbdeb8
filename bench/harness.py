"""What the scripts share: navtwine as a child process, its figures from /proc, and TCP clients."""

import contextlib
import os
import resource
import selectors
import signal
import socket
import subprocess
import tempfile
import threading
import time
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
BUILD = ROOT / "build" / "release"
NAVTWINE = BUILD / "navtwine"
STANDIN = BUILD / "tools"  # the folder: it goes first on PATH
ALL_TYPES = ["--gga", "--rmc", "--gsa", "--zda", "--gbs", "--gll", "--gsv", "--vtg"]


class Failed(Exception):
    """What went wrong, in words for a person."""


def allow_many_descriptors():
    hard = resource.getrlimit(resource.RLIMIT_NOFILE)[1]
    resource.setrlimit(resource.RLIMIT_NOFILE, (hard, hard))


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def wait_until(condition, seconds, step=0.05):
    """True as soon as `condition()` is; False when it was not in time."""
    end = time.monotonic() + seconds
    while not (met := condition()) and time.monotonic() < end:
        time.sleep(step)
    return bool(met)


def tcp_sockets():
    """(own port, the peer's port, state) of the machine's sockets; the states are the kernel's net/tcp_states.h."""
    for line in Path("/proc/net/tcp").read_text().splitlines()[1:]:
        _, local, remote, state = line.split()[:4]
        yield int(local.split(":")[1], 16), int(remote.split(":")[1], 16), int(state, 16)


def is_listening(port):
    """Looked up, not tried: a connection would be a client."""
    return any(local == port and state == 10 for local, _, state in tcp_sockets())


def has_connection(port, peer):
    """Whether the server at `port` has what its client at port `peer` believes to have: established, or waiting to
    be closed."""
    return any((local, remote) == (port, peer) and state in (1, 8) for local, remote, state in tcp_sockets())


def children_of(process):
    """The process numbers below `process`, its own not included."""
    found = []
    with contextlib.suppress(OSError):
        for task in os.listdir(f"/proc/{process}/task"):
            for child in Path(f"/proc/{process}/task/{task}/children").read_text().split():
                found += [int(child), *children_of(int(child))]
    return found


def end_process(process, first_signal=signal.SIGTERM, seconds=5):
    """Ends a Popen and what it started, and nothing else. Returns its status."""
    below = children_of(process.pid)
    if process.poll() is None:
        process.send_signal(first_signal)
        try:
            process.wait(seconds)
        except subprocess.TimeoutExpired:
            below += children_of(process.pid)
            process.kill()
            process.wait()
    for child in below:
        with contextlib.suppress(OSError):
            if os.readlink(f"/proc/{child}/exe"):
                os.kill(child, signal.SIGKILL)
    return process.returncode


class Navtwine:
    """One run of the program; a context manager. The log of the run is `log()`."""

    def __init__(self, *options, path=STANDIN, environment=None, descriptors=None, port=None):
        self.port = port or free_port()
        self.log_file = tempfile.TemporaryFile()
        variables = {**os.environ, "PATH": f"{path}:/usr/bin:/bin", **(environment or {})}
        limit = None
        if descriptors:
            limit = lambda: resource.setrlimit(resource.RLIMIT_NOFILE, (descriptors, descriptors))
        command = [NAVTWINE, "--server", "--server-port", str(self.port), "--interval", "1", "-e"]
        self.process = subprocess.Popen([*command, *ALL_TYPES, *options], env=variables, preexec_fn=limit,
                                        stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                                        stderr=self.log_file)
        self.pid = self.process.pid

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.stop()

    def wait_until_listening(self):
        if not wait_until(lambda: self.process.poll() is not None or is_listening(self.port), 10, 0.005):
            raise Failed("navtwine does not listen")
        if self.process.poll() is not None:
            raise Failed(f"navtwine ended at once, status {self.process.returncode}: {self.log()[-500:]}")
        return self

    def stop(self):
        return end_process(self.process, signal.SIGINT)

    def log(self):
        return os.pread(self.log_file.fileno(), self.log_bytes(), 0).decode(errors="replace")

    def log_bytes(self):
        return os.fstat(self.log_file.fileno()).st_size

    def cpu_seconds(self):
        """Of all threads that live, to the nanosecond; a thread that has ended is not in it."""
        total = 0
        for task in os.listdir(f"/proc/{self.pid}/task"):
            with contextlib.suppress(OSError):
                total += int(Path(f"/proc/{self.pid}/task/{task}/schedstat").read_text().split()[0])
        return total / 1e9

    def memory(self):
        """KiB: resident, private and written to, address space."""
        figures = {}
        for name in ("smaps_rollup", "status"):
            for line in Path(f"/proc/{self.pid}/{name}").read_text().splitlines()[1:]:
                key, _, value = line.partition(":")
                if value.endswith("kB"):
                    figures[key] = int(value.split()[0])
        return {"rss": figures["Rss"], "dirty": figures["Private_Dirty"], "size": figures["VmSize"]}

    def threads(self):
        return len(os.listdir(f"/proc/{self.pid}/task"))

    def descriptors(self):
        return len(os.listdir(f"/proc/{self.pid}/fd"))


class Clients:
    """Well-behaved clients: a thread of ours takes and counts what they get. A context manager.

    `pause`: seconds from one connection to the next; 0: all at once."""

    def __init__(self, port, count, keep=False, pause=0.002):
        self.selector = selectors.DefaultSelector()
        self.chunks = {} if keep else None  # socket: [(when it came, bytes)]
        self.received = {}  # socket: bytes
        self.first = {}     # socket: when its first byte came, time.monotonic()
        self.closed = set()
        self.began = time.monotonic()
        self.ending = False
        for _ in range(count):
            client = socket.socket()
            client.setblocking(False)
            client.connect_ex(("127.0.0.1", port))
            self.received[client] = 0
            self.selector.register(client, selectors.EVENT_READ)
            if pause:
                time.sleep(pause)
        self.thread = threading.Thread(target=self._take, daemon=True)
        self.thread.start()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.ending = True
        self.thread.join()
        for client in self.received:
            client.close()
        self.selector.close()

    def _take(self):
        while not self.ending:
            for key, _ in self.selector.select(0.2):
                self._take_from(key.fileobj)

    def _take_from(self, client):
        try:
            data = client.recv(65536)
        except OSError:
            data = b""
        if data:
            self.first.setdefault(client, time.monotonic())
            self.received[client] += len(data)
            if self.chunks is not None:
                self.chunks.setdefault(client, []).append((time.monotonic(), data))
        else:
            self.closed.add(client)
            self.selector.unregister(client)

    def served(self):
        return len(self.first)

    def wait_until_all_served(self, seconds=60):
        if not wait_until(lambda: self.served() == len(self.received), seconds):
            raise Failed(f"only {self.served()} of {len(self.received)} clients received anything")
        return max(self.first.values(), default=self.began) - self.began

    def close_some(self, clients):
        """Ends these from our side."""
        for client in clients:
            self.selector.unregister(client)
            client.close()
            self.received.pop(client)
            self.first.pop(client, None)
