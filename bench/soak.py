"""The soak, as scripts/soak tells it."""

import asyncio
import collections
import contextlib
import os
import pty
import random
import select
import signal
import socket
import struct
import sys
import tempfile
import threading
import time
import tty
from functools import reduce
from pathlib import Path

from harness import ROOT, Failed, Navtwine, allow_many_descriptors, children_of, has_connection, wait_until

PASSWORD = "lantern"
CROWD = 1000
MAILBOX = 11           # messages
OWN_THREADS = 3 + 3    # main, server, stopper; uplink, serial line, the counted client
LONGEST_LOGIN = 33     # seconds for which the server waits for an answer, and a little


def now_ms():
    return time.monotonic_ns() // 1_000_000


class Stream:
    """What one consumer receives: every line must be whole and its number above the last one's."""

    def __init__(self, keep=False):
        self.rest, self.last, self.lines = b"", 0, 0
        self.faults = collections.Counter()
        self.arrivals = {} if keep else None  # number: milliseconds

    def take(self, data):
        moment = now_ms()
        *lines, self.rest = (self.rest + data).split(b"\r\n")
        for line in lines:
            self._check(line, moment)

    def _check(self, line, moment):
        self.lines += 1
        body, star, checksum = line[1:].rpartition(b"*")
        if line[:1] != b"$" or not star or checksum != b"%02X" % reduce(lambda a, b: a ^ b, body, 0):
            self.faults["cut line"] += 1
            return
        number = int(body.split(b",")[1])
        if number <= self.last:
            self.faults["twice" if number == self.last else "twice or out of order"] += 1
        self.last = max(number, self.last)
        if self.arrivals is not None:
            self.arrivals.setdefault(number, moment)


# -- the well-behaved client, the collector, the serial line ---------------------------------------------------

class Worker(threading.Thread):
    """One of the consumers whose stream is checked from beginning to end."""

    def __init__(self, keep=False):
        super().__init__(daemon=True)
        self.stream, self.ending, self.error = Stream(keep), False, None

    def run(self):
        try:
            self.work()
        except OSError as error:
            if not self.ending:
                self.error = error

    def end(self):
        self.ending = True
        self.join(5)


class GoodClient(Worker):
    def __init__(self, port):
        super().__init__(keep=True)
        self.port, self.logged_in = port, threading.Event()

    def work(self):
        with socket.create_connection(("127.0.0.1", self.port), 10) as client:
            for expected, answer in ((b"PASSWORD\r\n", PASSWORD.encode() + b"\r\n"), (b"OK\r\n", b"")):
                if client.recv(len(expected), socket.MSG_WAITALL) != expected:
                    raise OSError("the login went wrong")
                client.sendall(answer)
            self.logged_in.set()
            client.settimeout(0.5)
            while not self.ending:
                with contextlib.suppress(TimeoutError):
                    data = client.recv(65536)
                    if not data:
                        raise OSError("the server ended the connection")
                    self.stream.take(data)


class Collector(Worker):
    """The uplink's other end. Comes and goes unless `calm`."""

    def __init__(self):
        super().__init__()
        self.listener = socket.create_server(("127.0.0.1", 0))
        self.port = self.listener.getsockname()[1]
        self.sessions, self.refused, self.calm, self.connected = 0, 0, False, False

    def work(self):
        while not self.ending:
            self.listener.settimeout(0.5)
            with contextlib.suppress(TimeoutError):
                uplink, _ = self.listener.accept()
                with uplink:
                    self.session(uplink)
                self.connected = False
                if not self.calm and random.random() < 0.3:
                    self.stay_away()

    def stay_away(self):
        self.listener.close()
        end = time.monotonic() + random.uniform(5, 20)
        while time.monotonic() < end and not self.ending and not self.calm:
            time.sleep(0.2)
        self.listener = socket.create_server(("127.0.0.1", self.port))

    def session(self, uplink):
        uplink.settimeout(10)
        uplink.sendall(b"PASSWORD\r\n")
        if uplink.recv(100) != PASSWORD.encode() + b"\r\n":
            raise OSError("the uplink knows another password")
        if not self.calm and random.random() < 0.2:
            self.refused += 1
            uplink.sendall(b"ERROR\r\n")
            return
        uplink.sendall(b"OK\r\n")
        self.sessions += 1
        self.connected = True
        self.stream.rest = b""
        uplink.settimeout(0.5)
        end = time.monotonic() + random.uniform(5, 25)
        while not self.ending and (self.calm or time.monotonic() < end):
            with contextlib.suppress(TimeoutError):
                data = uplink.recv(65536)
                if not data:
                    raise OSError("the uplink ended the connection")
                self.stream.take(data)
        if random.random() < 0.5:
            vanish(uplink)


class SerialLine(Worker):
    """The far end of a pseudo-terminal; takes nothing while `stalled`."""

    def __init__(self):
        super().__init__()
        self.master, self.slave = pty.openpty()
        tty.setraw(self.slave)
        self.device, self.stalled, self.stalls = os.ttyname(self.slave), False, 0

    def work(self):
        while not self.ending:
            if self.stalled or not select.select([self.master], [], [], 0.2)[0]:
                time.sleep(0.1)
            else:
                self.stream.take(os.read(self.master, 65536))


def vanish(connection):
    """So that closing it is a reset, as after a reboot."""
    connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))


# -- the crowd -------------------------------------------------------------------------------------------------

class Crowd:
    """A thousand places, in each of which one client after another does as its kind does."""

    def __init__(self, port):
        self.port, self.ending = port, False
        self.ended = collections.Counter()
        self.faults = collections.Counter()
        self.lines, self.inside, self.most, self.forgotten = 0, 0, 0, 0

    async def run_for(self, seconds):
        self.ending = False
        places = [asyncio.create_task(self.place()) for _ in range(CROWD)]
        try:
            await asyncio.sleep(seconds)
        finally:
            self.ending = True
            for place in places:
                place.cancel()
            for outcome in await asyncio.gather(*places, return_exceptions=True):
                if isinstance(outcome, Exception):
                    self.faults[f"the soak itself: {outcome!r}"] += 1

    async def place(self):
        await asyncio.sleep(random.uniform(0, 10))
        kinds = [self.polite, self.vanishing, self.never_reading, self.rubbish, self.wrong_password, self.stuck]
        while not self.ending:
            kind = random.choices(kinds, weights=[35, 15, 15, 10, 10, 15])[0]
            await self.one(kind)
            await asyncio.sleep(random.uniform(0, 2))

    async def one(self, kind):
        connection = socket.socket()
        connection.setblocking(False)
        if kind == self.never_reading:
            connection.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 2048)
        writer = None
        try:
            await asyncio.wait_for(asyncio.get_running_loop().sock_connect(connection, ("127.0.0.1", self.port)), 20)
            reader, writer = await asyncio.open_connection(sock=connection)
            self.inside += 1
            self.most = max(self.most, self.inside)
            await kind(reader, writer)
            self.ended[kind.__name__.replace("_", " ")] += 1
        except TimeoutError:
            self.unanswered(connection if writer else None)
        except (OSError, asyncio.IncompleteReadError) as error:
            self.faults[f"{kind.__name__}: {type(error).__name__}"] += 1
        finally:
            if writer:
                self.inside -= 1
                writer.transport.abort()
            connection.close()

    def unanswered(self, connection):
        """When the queue of connections overflows, the kernel forgets some while their clients believe in them."""
        if connection is None:
            self.faults["not connected"] += 1
        elif has_connection(self.port, connection.getsockname()[1]):
            self.faults["not answered"] += 1
        else:
            self.forgotten += 1

    async def expect(self, reader, text):
        line = await asyncio.wait_for(reader.readline(), 20)
        if line != text:
            self.faults[f"{line[:20]} instead of {text}"] += 1
            raise ConnectionAbortedError

    async def log_in(self, reader, writer):
        await self.expect(reader, b"PASSWORD\r\n")
        writer.write(PASSWORD.encode() + b"\r\n")
        await self.expect(reader, b"OK\r\n")

    async def read_for(self, seconds, reader):
        stream = Stream()
        with contextlib.suppress(TimeoutError):
            async with asyncio.timeout(seconds):
                while data := await reader.read(65536):
                    stream.take(data)
                raise ConnectionResetError
        self.lines += stream.lines
        self.faults.update(stream.faults)

    async def polite(self, reader, writer):
        await self.log_in(reader, writer)
        await self.read_for(random.uniform(1, 20), reader)
        writer.close()
        await writer.wait_closed()

    async def vanishing(self, reader, writer):
        await self.log_in(reader, writer)
        await self.read_for(random.uniform(0, 8), reader)
        vanish(writer.get_extra_info("socket"))

    async def never_reading(self, reader, writer):
        await self.log_in(reader, writer)
        writer.transport.pause_reading()
        await asyncio.sleep(random.uniform(5, 60))

    async def rubbish(self, reader, writer):
        if random.random() < 0.5:
            await self.log_in(reader, writer)
        for _ in range(random.randrange(1, 10)):
            if writer.is_closing():
                return  # not a password: the server has ended it
            writer.write(random.randbytes(random.choice([1, 255, 256, 257, 4000])))
            await asyncio.sleep(random.uniform(0, 0.5))
        if not writer.is_closing():
            vanish(writer.get_extra_info("socket"))

    async def wrong_password(self, reader, writer):
        for _ in range(3):
            await self.expect(reader, b"PASSWORD\r\n")
            await asyncio.sleep(random.uniform(0, 1))
            writer.write(b"latern\r\n")
            await self.expect(reader, b"ERROR\r\n")
        if await asyncio.wait_for(reader.read(), 20):
            self.faults["something came after three wrong passwords"] += 1

    async def stuck(self, reader, writer):
        await self.expect(reader, b"PASSWORD\r\n")
        if random.random() < 0.5:
            writer.write(PASSWORD[:3].encode())
        with contextlib.suppress(TimeoutError):
            await asyncio.wait_for(reader.read(), random.uniform(1, LONGEST_LOGIN + 5))


# -- misfortune ------------------------------------------------------------------------------------------------

class Misfortune:
    def __init__(self, navtwine, folder, serial_line):
        self.navtwine, self.folder, self.serial_line = navtwine, folder, serial_line
        self.events = []  # (milliseconds, what)

    async def strike_for(self, seconds):
        end = time.monotonic() + seconds
        while time.monotonic() < end:
            await asyncio.sleep(random.uniform(3, 8))
            random.choice([self.kill_gpspipe, self.hang_up, self.stall])()
        self.serial_line.stalled = False

    def kill_gpspipe(self):
        process = int((self.folder / "gpspipe.pid").read_text())
        if process in children_of(self.navtwine.pid):
            self.events.append((now_ms(), "gpspipe killed"))
            os.kill(process, random.choice([signal.SIGKILL, signal.SIGTERM, signal.SIGINT]))

    def hang_up(self):
        self.events.append((now_ms(), "SIGHUP"))
        self.navtwine.process.send_signal(signal.SIGHUP)

    def stall(self):
        self.serial_line.stalled = not self.serial_line.stalled
        self.serial_line.stalls += self.serial_line.stalled

    def count(self, what):
        return sum(kind == what for _, kind in self.events)


# -- the count -------------------------------------------------------------------------------------------------

def judge_missing(ledger, arrivals, events, until):
    """What the well-behaved client did not get of what gpspipe printed, by reason; "fault" is ours."""
    got = sorted(arrivals)
    last_of_run = {run: number for run, number, _ in ledger}
    produced = {number: moment for _, number, moment in ledger}
    missing = collections.Counter()
    for run, number, moment in ledger:
        if number in arrivals or number < got[0] or moment > until:
            continue
        following = [n for n in got if n > number][:MAILBOX]
        hang_up = any(at - 50 <= moment <= at + 2000 for at, kind in events if kind == "SIGHUP")
        if number == last_of_run[run]:
            missing["never printed: gpspipe killed"] += 1
        elif hang_up and moment >= produced[last_of_run[run]] - 2000:
            missing["in the pipe at a SIGHUP"] += 1
        elif len(following) == MAILBOX and arrivals[following[0]] >= produced[following[-1]]:
            missing["mailbox full"] += 1
        else:
            missing["fault"] += 1
    return missing


def read_ledger(folder):
    return [tuple(map(int, line.split())) for line in (folder / "ledger").read_text().splitlines()]


# -- the course of it ------------------------------------------------------------------------------------------

class Soak:
    def __init__(self, stack, minutes):
        self.seconds = minutes * 60
        self.folder = Path(stack.enter_context(tempfile.TemporaryDirectory()))
        (self.folder / "gpspipe").symlink_to(ROOT / "bench" / "numbered_gpspipe.py")
        self.serial_line, self.collector = SerialLine(), Collector()
        self.navtwine = stack.enter_context(Navtwine(
            "--server-passwd", PASSWORD, "--client", "--client-remote-host", "127.0.0.1", "--client-port",
            str(self.collector.port), "--client-passwd", PASSWORD, "--serial", self.serial_line.device,
            path=self.folder))
        for worker in (self.serial_line, self.collector):
            worker.start()
        self.navtwine.wait_until_listening()
        self.good = GoodClient(self.navtwine.port)
        self.good.start()
        if not self.good.logged_in.wait(10):
            raise Failed(f"the well-behaved client cannot log in: {self.good.error}")
        self.crowd = Crowd(self.navtwine.port)
        self.misfortune = Misfortune(self.navtwine, self.folder, self.serial_line)
        self.problems = []

    def load(self, seconds):
        async def both():
            await asyncio.gather(self.crowd.run_for(seconds), self.misfortune.strike_for(seconds - 3))
        self.collector.calm = False
        asyncio.run(both())
        self.collector.calm = True

    def settled(self):
        """Figures once the crowd has gone: its last handlers wait for a login until their time is up."""
        wait_until(lambda: self.navtwine.threads() == OWN_THREADS and self.collector.connected,
                   LONGEST_LOGIN + 15, 0.5)
        time.sleep(2)
        return {"threads": self.navtwine.threads(), "descriptors": self.navtwine.descriptors(),
                "children": len(children_of(self.navtwine.pid)), "memory": self.navtwine.memory()["rss"]}

    def say(self, text):
        print(f"{time.monotonic() - self.began:5.0f} s  {text}", flush=True)

    def run(self):
        self.began = time.monotonic()
        self.say("warming up")
        self.load(40)
        self.say(f"settling; there were {self.crowd.most} clients at once")
        before = self.settled()
        self.say(f"under load for {self.seconds} s")
        self.load(self.seconds)
        peak = self.navtwine.threads()
        self.say(f"settling; {peak} threads were left of it")
        after = self.settled()
        self.count()
        self.say("SIGINT, with clients in every state and the serial line stalled")
        seconds, status = self.interrupt()
        self.summary(before, after, seconds, status)

    def count(self):
        time.sleep(3)
        until = now_ms() - 2500
        self.missing = judge_missing(read_ledger(self.folder), self.good.stream.arrivals,
                                     self.misfortune.events, until)
        self.counted = len(self.good.stream.arrivals)

    def interrupt(self):
        async def strike():
            load = asyncio.create_task(self.crowd.run_for(60))
            self.serial_line.stalled = True
            await asyncio.sleep(20)
            self.faults_before = self.crowd.faults.copy()
            self.end_workers_quietly()
            began = time.monotonic()
            self.navtwine.process.send_signal(signal.SIGINT)
            while self.navtwine.process.poll() is None and time.monotonic() - began < 30:
                await asyncio.sleep(0.02)
            self.seconds_to_end = time.monotonic() - began
            load.cancel()
            await asyncio.gather(load, return_exceptions=True)
        asyncio.run(strike())
        return self.seconds_to_end, self.navtwine.process.poll()

    def end_workers_quietly(self):
        for worker in (self.good, self.collector, self.serial_line):
            worker.ending = True

    def problem_if(self, condition, text):
        if condition:
            self.problems.append(text)

    def summary(self, before, after, seconds, status):
        log = self.navtwine.log()
        workers = {"the counted client": self.good, "the collector": self.collector,
                   "the serial line": self.serial_line}
        print(f"""
crowd            {sum(self.crowd.ended.values())} clients, {self.crowd.most} at once, \
{self.crowd.lines} lines checked:
                 {dict(self.crowd.ended)}
                 {self.crowd.forgotten} more forgotten by the kernel in the server's queue of five, unknown to it
misfortunes      gpspipe killed {self.misfortune.count('gpspipe killed')} times, \
{self.misfortune.count('SIGHUP')} SIGHUPs, {self.serial_line.stalls} stalls of the serial line
counted client   {self.counted} messages; not received: {dict(self.missing) or 'nothing'}
collector        {self.collector.stream.lines} messages in {self.collector.sessions} sessions, \
{self.collector.refused} logins refused
serial line      {self.serial_line.stream.lines} messages
after the warm-up {before}
at the end        {after}
log              {len(log) // 1024} KiB, {log.count('ERROR:')} ERROR lines
SIGINT           ended it after {seconds:.1f} s with status {status}""")
        self.problem_if(self.missing["fault"], f"{self.missing['fault']} messages missing without a reason")
        self.problem_if(not self.counted, "the counted client got nothing")
        for name, worker in workers.items():
            self.problem_if(worker.error, f"{name}: {worker.error}")
            self.problem_if(worker.stream.faults, f"{name}: {dict(worker.stream.faults)}")
            self.problem_if(not worker.stream.lines, f"{name} got nothing")
        self.problem_if(self.crowd.forgotten > sum(self.crowd.ended.values()) / 100,
                        f"{self.crowd.forgotten} clients forgotten in the queue: it is emptied too slowly")
        self.problem_if(self.faults_before, f"the crowd: {dict(self.faults_before)}")
        for figure in ("threads", "descriptors", "children"):
            self.problem_if(after[figure] != before[figure],
                            f"{figure}: {before[figure]} after the warm-up, {after[figure]} at the end")
        self.problem_if(before["threads"] != OWN_THREADS, f"{before['threads']} threads after the warm-up, "
                        f"not {OWN_THREADS}")
        self.problem_if(after["memory"] > before["memory"] * 1.1 + 512,
                        f"memory grew from {before['memory']} to {after['memory']} KiB")
        self.problem_if("ended early" in log or "pthread_create" in log, "a thread failed: see the log")
        self.problem_if(status != 0 or seconds > 3, f"SIGINT: status {status} after {seconds:.1f} s")
        print("\nsoak: OK" if not self.problems else "\nsoak: FAILED\n  " + "\n  ".join(self.problems))


def main():
    allow_many_descriptors()
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(1))
    try:
        with contextlib.ExitStack() as stack:
            soak = Soak(stack, int(sys.argv[1]))
            soak.run()
            return 1 if soak.problems else 0
    except (Failed, OSError) as failure:
        print(f"soak: FAILED: {failure}")
        return 1


sys.exit(main())
