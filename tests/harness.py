"""What the tests of the program share: the program itself, a gpspipe of the test's own, and whom it talks to."""
import errno
import os
import pty
import select
import shlex
import shutil
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
TO_COLLECTOR = " --client --client-remote-host 127.0.0.1 --client-port "


def eventually(holds, limit=30.0):
    """Waits for something true, which it returns; the limit is generous, since machines under test are busy."""
    deadline = time.monotonic() + limit
    while not (found := holds()) and time.monotonic() < deadline:
        time.sleep(0.01)
    return found


def runs(process):
    """Whether a process is there. A zombie, which nobody reaps in some containers, has no command line any more."""
    file = Path(f"/proc/{process}/cmdline")
    return file.exists() and file.read_bytes() != b""


def faults_of(words):
    """As faulty_navtwine takes them. "server-thr: accept4 2 EINTR EAGAIN": in the thread whose name has "server-thr" in
    it, accept4 goes well twice, then fails with EINTR and at once again with EAGAIN; SHORT is a short count."""
    faults = []
    thread, call, after = "", "", 0
    for word in words.split():
        if word.endswith(":"):
            thread = word[:-1]
        elif word.isupper():
            faults.append(f"{thread}|{call}|{after}|{getattr(errno, word, 0)}")
            after = 0
        elif word.lstrip("-").isdigit():
            after = int(word)
        else:
            call = word
    return faults


class Peer:
    """One end of a connection; whatever is read and written has a character a byte."""
    def __init__(self, stream):
        self.stream = stream
        self.closed = False

    def send(self, text):
        try:
            os.write(self.stream.fileno(), text.encode("latin-1"))
        except OSError:
            pass  # the other side may be gone already: what comes back decides

    def is_ready(self, limit=0.0):
        return bool(select.select([self.stream], [], [], limit)[0])

    def read_until(self, text, limit=30.0):
        """Reads until the text has come, the peer closes, or the limit is over."""
        data = ""
        deadline = time.monotonic() + limit
        while not self.closed and text not in data and (left := deadline - time.monotonic()) > 0:
            if self.is_ready(left):
                try:
                    new = os.read(self.stream.fileno(), 65536).decode("latin-1")
                except OSError:
                    new = ""
                self.closed = new == ""
                data += new
        return data

    def hears(self, text):
        return text in self.read_until(text)


class Port(Peer):
    """A free port of 127.0.0.1: for datagrams, or for a server to come."""
    def __init__(self, kind=socket.SOCK_STREAM):
        super().__init__(socket.socket(type=kind))
        self.stream.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        self.stream.bind(("127.0.0.1", 0))
        self.number = self.stream.getsockname()[1]


class Collector(Port):
    def __init__(self):
        super().__init__()
        self.stream.listen(5)
        self.stream.settimeout(30)

    def accept(self, first=""):
        session = Peer(self.stream.accept()[0])
        session.send(first)
        return session


class SerialLine(Peer):
    """The far end of a serial line."""
    def __init__(self):
        master, self.port = pty.openpty()
        super().__init__(os.fdopen(master, "rb", buffering=0))
        self.device = os.ttyname(self.port)


class Program:
    """The program. Its standard output and standard error are one text, which pytest shows when a test fails."""
    def __init__(self, arguments, gpspipe="exec sleep 1000", faults=None, before=":"):
        self.folder = Path(tempfile.mkdtemp(prefix="navtwine-test-"))
        script = self.folder / "gpspipe"
        script.write_text(f"#!/bin/sh\ncd {self.folder}; echo $$ >new; mv new pid\n{gpspipe}\n")
        script.chmod(0o700)
        self.reserved = Port()
        self.port = self.reserved.number
        self.last = "INFO: execution complete\n"  # which the forced end after five seconds does not say
        words = NAVTWINE if faults is None else FAULTY
        environment = dict(os.environ, PATH=f"{self.folder}:{os.environ['PATH']}", PORT=str(self.port),
                           FAULT=",".join(faults_of(faults or "")))
        with open(self.folder / "output", "ab") as output:
            self.process = subprocess.Popen(["/bin/sh", "-c", f"{before}; exec {shlex.join(words)} {arguments}"],
                                            cwd=self.folder, env=environment, stdin=subprocess.DEVNULL,
                                            stdout=output, stderr=output)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        try:
            if self.process.poll() is None:
                self.interrupt()
            assert "[a password stays in freed memory]" not in self.output()
        finally:
            self.process.kill()  # the last resort
            self.process.wait()
            print(f"Output of navtwine {' '.join(self.process.args[2:])}:\n{self.output()}")
            shutil.rmtree(self.folder, ignore_errors=True)

    def interrupt(self, limit=4.5):
        """SIGINT, with the three seconds that users are promised and some for a busy machine."""
        self.process.send_signal(signal.SIGINT)
        assert self.process.wait(30 if EMULATED else limit) == 0
        assert self.last in self.output()

    def output(self):
        return (self.folder / "output").read_bytes().decode("latin-1")

    def says(self, *texts):
        """Waits for texts in the output."""
        return all(eventually(lambda: text in self.output()) for text in texts)

    def gpspipe(self):
        """The number of gpspipe's process, as soon as there is one."""
        eventually(lambda: (self.folder / "pid").exists())
        return int((self.folder / "pid").read_text())

    def connect(self, first=""):
        """A client, as soon as somebody listens; with a text to send, one that has seen the prompt."""
        client = Peer(socket.socket())
        assert eventually(lambda: client.stream.connect_ex(("127.0.0.1", self.port)) == 0)
        if first:
            client.read_until("PASSWORD\r\n")
            client.send(first)
        return client

    def touch(self, file):
        (self.folder / file).touch()

    def descriptors(self):
        """The files that are open, by number; without those that an emulator keeps far up."""
        found = {}
        for entry in Path(f"/proc/{self.process.pid}/fd").iterdir():
            try:
                found[int(entry.name)] = os.readlink(entry)
            except FileNotFoundError:
                pass  # closed meanwhile
        return {number: file for number, file in found.items() if number < 100}

    def processors_wanted(self, seconds=3):
        """How many processors the program wants, whether it gets them or not."""
        def wanted():
            tasks = Path(f"/proc/{self.process.pid}/task").glob("*/schedstat")
            return sum(int(time) for task in tasks for time in task.read_text().split()[:2]) / 1e9
        before = wanted()
        assert before > 0, "the kernel does not tell"
        time.sleep(seconds)
        return (wanted() - before) / seconds
