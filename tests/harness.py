# What the tests of the program share: the program itself, a gpspipe of the test's own, and whom it talks to.
import errno
import os
import pty
import re
import select
import shlex
import signal
import socket
import subprocess
import tempfile
import time
from pathlib import Path

NAVTWINE = shlex.split(os.environ.get("NAVTWINE", ""))  # an emulator may stand in front
FAULTY = shlex.split(os.environ.get("FAULTY_NAVTWINE", ""))  # tools/faultyCalls.cpp
EMULATED = len(NAVTWINE) > 1
SERVER = "--server --server-port $PORT -e --interval 1 --gga "
TO_COLLECTOR = "--client --client-remote-host 127.0.0.1 --client-port $COLLECTOR "
ALL = SERVER + TO_COLLECTOR + "--serial $LINE "
REPEAT = "while echo '$GPGGA,1'; do sleep 0.2; done"


def eventually(holds, limit=30.0):
    """Wait for something true and return it; the limit is generous, since machines under test are busy."""
    deadline = time.monotonic() + limit
    while not (found := holds()) and time.monotonic() < deadline:
        time.sleep(0.01)
    return found


def runs(process):
    """Whether a process is there. A zombie, which nobody reaps in some containers, has no command line any more."""
    file = Path(f"/proc/{process}/cmdline")
    return file.exists() and file.read_bytes() != b""


class Peer:
    """One end of a connection; what is read has a character a byte."""

    def __init__(self, stream):
        self.stream = stream
        self.closed = False

    def send(self, text):
        self.stream.sendall(text.encode("latin-1"))

    def read_until(self, text, limit=30.0):
        """Read until the text has come, the peer closes, or the limit is over."""
        data = ""
        deadline = time.monotonic() + limit
        while not self.closed and text not in data and (left := deadline - time.monotonic()) > 0:
            if select.select([self.stream], [], [], left)[0]:
                try:
                    new = os.read(self.stream.fileno(), 65536).decode("latin-1")
                except OSError:
                    new = ""
                self.closed = new == ""
                data += new
        return data

    def hears(self, text):
        return text in self.read_until(text)


class Program:
    """The program, or the one with the faults, with a gpspipe of the test's own.

    Arguments may have $PORT in them, a port to listen on; $COLLECTOR, the port of an uplink's other side; and $LINE, a
    pseudo-terminal, whose far end is `line`. pytest shows the output, one text with the log, when a test fails.
    """

    def __init__(self, arguments, gpspipe="exec sleep 1000", faults=None, before=":"):
        self.temporary = tempfile.TemporaryDirectory(prefix="navtwine-test-", ignore_cleanup_errors=True)
        self.folder = Path(self.temporary.name)
        script = self.folder / "gpspipe"
        script.write_text(f"#!/bin/sh\ncd {self.folder}; echo $$ >new; mv new pid\n{gpspipe}\n")
        script.chmod(0o700)
        self.reserved = socket.socket()  # nobody but a server can take its port
        self.reserved.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        self.reserved.bind(("127.0.0.1", 0))
        self.port = self.reserved.getsockname()[1]
        self.collector = socket.create_server(("127.0.0.1", 0))
        self.collector.settimeout(30)
        master, self.line_port = pty.openpty()
        self.line = Peer(os.fdopen(master, "rb", buffering=0))
        self.device = os.ttyname(self.line_port)
        self.peers = []
        self.last = "INFO: execution complete\n"  # which the forced end after five seconds does not say
        numbers = re.sub("[A-Z]+", lambda name: str(getattr(errno, name[0], 0)), faults or "")
        environment = dict(os.environ, PATH=f"{self.folder}:{os.environ['PATH']}", PORT=str(self.port), FAULTS=numbers,
                           COLLECTOR=str(self.collector.getsockname()[1]), LINE=self.device,
                           MALLOC_PERTURB_="165", GLIBC_TUNABLES="glibc.malloc.tcache_count=0")  # used after freed
        words = shlex.join(NAVTWINE if faults is None else FAULTY)
        self.touch("output")
        words += f" {arguments} {os.environ.get('NAVTWINE_OPTIONS', '')}"
        self.process = subprocess.Popen(["/bin/sh", "-c", f"exec </dev/null >>output 2>&1; {before}; exec {words}"],
                                        cwd=self.folder, env=environment)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        try:
            if self.process.poll() is None:
                self.interrupt()
            assert not re.search("a password stays in freed memory|a large stack", self.output())
        finally:
            self.process.kill()  # the last resort
            print(f"Output of {self.process.args[2]}:\n{self.output()}")

    def interrupt(self, limit=4.5):
        """End it with SIGINT, in the three seconds that users are promised and some for a busy machine."""
        self.process.send_signal(signal.SIGINT)
        assert self.process.wait(30 if EMULATED else limit) == 0
        assert self.last in self.output()

    def output(self):
        return (self.folder / "output").read_bytes().decode("latin-1")

    def says(self, *texts):
        """Wait for texts in the output."""
        return all(eventually(lambda: text in self.output()) for text in texts)

    def logs(self, pattern):
        """Wait for what matches a regular expression in the output."""
        return eventually(lambda: re.search(pattern, self.output()))

    def gpspipe(self):
        """The number of gpspipe's process, as soon as there is one."""
        eventually((self.folder / "pid").exists)
        return int((self.folder / "pid").read_text())

    def connect(self, first=""):
        """A client, as soon as somebody listens; one that has a text to send has seen the prompt."""
        client = Peer(socket.socket())
        assert eventually(lambda: client.stream.connect_ex(("127.0.0.1", self.port)) == 0)
        self.peers.append(client)
        if first:
            client.read_until("PASSWORD\r\n")
            client.send(first)
        return client

    def accept(self, first=""):
        """The next session of the uplink."""
        self.peers.append(Peer(self.collector.accept()[0]))
        self.peers[-1].send(first)
        return self.peers[-1]

    def connect_at_once(self, count):
        """Clients that connect while all threads of the program are stopped; six fit into the kernel's queue."""
        assert self.says("waiting for client connections...\n")
        self.process.send_signal(signal.SIGSTOP)
        os.waitpid(self.process.pid, os.WUNTRACED)
        for _ in range(count):
            self.connect()
        self.process.send_signal(signal.SIGCONT)

    def touch(self, file):
        (self.folder / file).touch()

    def descriptors(self):
        """The files that are open, by number; without those that an emulator keeps far up."""
        listed = subprocess.run(["ls", "-l", f"/proc/{self.process.pid}/fd"], capture_output=True, text=True).stdout
        return dict(re.findall(r" (\d\d?) -> (\S+)\n", listed))

    def busiest_thread(self, seconds=3):
        """How much of the time one thread ran or waited for a processor, and how often a second all threads ran."""
        def schedules():
            tasks = Path(f"/proc/{self.process.pid}/task").glob("*/schedstat")
            return {task: [int(number) for number in task.read_text().split()] for task in tasks}
        before = schedules()
        assert sum(ran for ran, _, _ in before.values()) > 0, "the kernel does not tell"
        time.sleep(seconds)
        passed = [[late - early for early, late in zip(before.get(task, [0, 0, 0]), now)]
                  for task, now in schedules().items()]
        return max(ran + waited for ran, waited, _ in passed) / 1e9 / seconds, sum(row[2] for row in passed) / seconds
