"""The soak, as scripts/soak tells it."""

import asyncio
import collections
import contextlib
import itertools
import os
import pty
import random
import signal
import socket
import struct
import sys
import tempfile
import time
import tty
from functools import reduce
from operator import xor
from pathlib import Path

from harness import OWN_THREADS, ROOT, Navtwine, allow_many_descriptors, children_of, row, run, tcp_sockets

PASSWORD = b"lantern"
CROWD = 1000
ALL_THREADS = OWN_THREADS + 3  # the uplink, the serial line, the counted client
RATE = 5                       # lines of gpspipe a second
WARM_UP = 30                   # seconds
CALM = 15                      # seconds in which everything is counted
PATIENCE = 20                  # seconds for an answer of the server


def say(text):
    print(f"{time.strftime('%H:%M:%S')}  {text}", flush=True)


async def until(condition, seconds):
    """As soon as `condition()` is true; goes on when that was not in time."""
    end = time.monotonic() + seconds
    while not condition() and time.monotonic() < end:
        await asyncio.sleep(0.02)


# -- what all clients do ---------------------------------------------------------------------------------------

class Stream:
    """What one consumer gets: every line must be whole and its number above the last one's."""

    def __init__(self, faults):
        self.faults, self.rest, self.last = faults, b"", 0
        self.count_anew()

    def count_anew(self):
        self.lines = self.missing = self.oldest = 0

    def take(self, data):
        *lines, self.rest = (self.rest + data).split(b"\r\n")
        for line in lines:
            self.take_line(line)

    def take_line(self, line):
        body, _, checksum = line[1:].rpartition(b"*")
        if line[:1] != b"$" or checksum != b"%02X" % reduce(xor, body, 0):
            self.faults["cut line"] += 1
            return
        number = int(body.split(b",")[1])
        if number <= self.last:
            self.faults["line twice or out of order"] += 1
        elif self.last:
            self.missing += number - self.last - 1
        self.last = number
        self.lines += 1
        self.oldest = max(self.oldest, time.monotonic() - number / RATE)

    async def read(self, reader, seconds=None):
        """Takes what comes for so long."""
        with contextlib.suppress(TimeoutError):
            async with asyncio.timeout(seconds):
                while data := await reader.read(65536):
                    self.take(data)
                raise ConnectionResetError("the program ended the connection")


async def expect(reader, line):
    async with asyncio.timeout(PATIENCE):
        got = await reader.readline()
    if got != line:
        raise ConnectionAbortedError(f"{got[:20]} instead of {line}")


async def log_in(reader, writer):
    await expect(reader, b"PASSWORD\r\n")
    writer.write(PASSWORD + b"\r\n")
    await expect(reader, b"OK\r\n")


def vanish(writer):
    """Closing it will be a reset, as after a reboot."""
    writer.get_extra_info("socket").setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))


# -- the crowd -------------------------------------------------------------------------------------------------

async def polite(stream, reader, writer):
    await log_in(reader, writer)
    await stream.read(reader, random.uniform(1, 20))
    writer.close()
    await writer.wait_closed()


async def vanishing(stream, reader, writer):
    await log_in(reader, writer)
    await stream.read(reader, random.uniform(0, 8))
    vanish(writer)


async def never_reading(_, reader, writer):
    await log_in(reader, writer)
    writer.transport.pause_reading()
    await asyncio.sleep(random.uniform(5, 60))


async def rubbish(_, reader, writer):
    if random.random() < 0.5:
        await log_in(reader, writer)
    for _ in range(random.randrange(1, 10)):
        if writer.is_closing():
            return  # not a password: the server has ended it
        writer.write(random.randbytes(random.choice([1, 255, 256, 257, 4000])))
        await asyncio.sleep(random.uniform(0, 0.5))
    if not writer.is_closing():
        vanish(writer)


async def wrong_password(_, reader, writer):
    for _ in range(3):
        await expect(reader, b"PASSWORD\r\n")
        await asyncio.sleep(random.uniform(0, 1))
        writer.write(b"latern\r\n")
        await expect(reader, b"ERROR\r\n")
    await expect(reader, b"")


async def stuck(_, reader, writer):
    """In its login."""
    await expect(reader, b"PASSWORD\r\n")
    if random.random() < 0.5:
        writer.write(PASSWORD[:3])
    if random.random() < 0.5:
        writer.write_eof()  # the server then finds the connection ready for ever
    with contextlib.suppress(TimeoutError):
        async with asyncio.timeout(random.uniform(1, 40)):
            await reader.read()


KINDS = {polite: 35, vanishing: 15, never_reading: 15, rubbish: 10, wrong_password: 10, stuck: 15}


class Crowd:
    """A thousand places, in each of which one client after another does as its kind does."""

    def __init__(self, port):
        self.port = port
        self.ended, self.faults = collections.Counter(), collections.Counter()
        self.inside = self.most = self.forgotten = 0

    async def stay(self):
        """Until cancelled."""
        async with asyncio.TaskGroup() as places:
            for _ in range(CROWD):
                places.create_task(self.place())

    async def place(self):
        await asyncio.sleep(random.uniform(0, 10))
        while True:
            [kind] = random.choices(list(KINDS), KINDS.values())
            with contextlib.closing(socket.socket()) as connection:
                await self.visit(kind, connection)
            await asyncio.sleep(random.uniform(0, 2))

    async def visit(self, kind, connection):
        connection.setblocking(False)
        if kind == never_reading:
            connection.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 2048)
        address = ("127.0.0.1", self.port)
        writer = None
        try:
            async with asyncio.timeout(PATIENCE):
                await asyncio.get_running_loop().sock_connect(connection, address)
            reader, writer = await asyncio.open_connection(sock=connection)
            self.inside += 1
            self.most = max(self.most, self.inside)
            await kind(Stream(self.faults), reader, writer)
            self.ended[kind.__name__] += 1
        except TimeoutError:
            self.note_unanswered(connection if writer else None)
        except OSError as error:
            self.faults[f"{kind.__name__}: {error!r}"] += 1
        finally:
            if writer:
                self.inside -= 1
                writer.transport.abort()

    def note_unanswered(self, connection):
        """When the queue of connections overflows, the kernel forgets some while their clients believe in them."""
        if connection is None:
            self.faults["not connected"] += 1
        elif self.is_known(connection.getsockname()[1]):
            self.faults["not answered"] += 1
        else:
            self.forgotten += 1

    def is_known(self, peer):
        """Whether the server's side has the connection: established, or waiting to be closed."""
        return any(ends == (self.port, peer) and state in (1, 8) for *ends, state in map(tuple, tcp_sockets()))


# -- the consumers that are there from beginning to end --------------------------------------------------------

class Collector:
    """The uplink's other end. Comes and goes unless `calm`."""

    def __init__(self, faults):
        self.stream = Stream(faults)
        self.listener = socket.create_server(("127.0.0.1", 0))
        self.port = self.listener.getsockname()[1]
        self.calm = self.connected = False
        self.sessions = self.refused = 0

    async def serve(self):
        while True:
            self.listener.setblocking(False)
            connection, _ = await asyncio.get_running_loop().sock_accept(self.listener)
            reader, writer = await asyncio.open_connection(sock=connection)
            await self.session(reader, writer)
            self.connected = False
            writer.close()
            if not self.calm and random.random() < 0.3:
                self.listener.close()
                await until(lambda: self.calm, random.uniform(5, 20))
                self.listener = socket.create_server(("127.0.0.1", self.port))

    async def session(self, reader, writer):
        writer.write(b"PASSWORD\r\n")
        await expect(reader, PASSWORD + b"\r\n")
        if not self.calm and random.random() < 0.2:
            self.refused += 1
            writer.write(b"ERROR\r\n")
            return
        writer.write(b"OK\r\n")
        self.sessions += 1
        self.connected = True
        self.stream.rest = b""
        end = time.monotonic() + random.uniform(5, 25)
        while self.calm or time.monotonic() < end:
            await self.stream.read(reader, 0.5)
        if random.random() < 0.5:
            vanish(writer)


class SerialLine:
    """The far end of a pseudo-terminal."""

    def __init__(self, faults):
        self.stream, self.stalls = Stream(faults), 0
        self.far_end, self.slave = pty.openpty()
        tty.setraw(self.slave)
        self.device = os.ttyname(self.slave)

    def flow(self):
        asyncio.get_running_loop().add_reader(
            self.far_end, lambda: self.stream.take(os.read(self.far_end, 65536)))

    def stall(self):
        self.stalls += asyncio.get_running_loop().remove_reader(self.far_end)


async def counted_client(port, stream):
    reader, writer = await asyncio.open_connection("127.0.0.1", port)
    await log_in(reader, writer)
    await stream.read(reader)


# -- the course of it ------------------------------------------------------------------------------------------

class Soak:
    def __init__(self, stack):
        self.faults = {name: collections.Counter() for name in ("counted client", "collector", "serial line")}
        self.counted = Stream(self.faults["counted client"])
        self.collector = Collector(self.faults["collector"])
        self.serial_line = SerialLine(self.faults["serial line"])
        self.streams = [self.counted, self.collector.stream, self.serial_line.stream]
        folder = Path(stack.enter_context(tempfile.TemporaryDirectory()))
        (folder / "gpspipe").symlink_to(ROOT / "bench" / "numbered_gpspipe.py")
        # It raises the limit of open files itself: 512 would not do for the crowd.
        self.navtwine = stack.enter_context(Navtwine(
            "--server-passwd", PASSWORD, "--client", "--client-remote-host", "127.0.0.1", "--client-port",
            str(self.collector.port), "--client-passwd", PASSWORD, "--serial", self.serial_line.device,
            gpspipe=folder, prefix=["prlimit", "--nofile=512:"]))
        allow_many_descriptors()
        self.crowd = Crowd(self.navtwine.port)
        self.misfortunes = collections.Counter()

    async def run(self, seconds):
        consumers = {"counted client": counted_client(self.navtwine.port, self.counted),
                     "collector": self.collector.serve()}
        self.tasks = {name: asyncio.create_task(consumer) for name, consumer in consumers.items()}
        self.serial_line.flow()
        await until(lambda: all(stream.lines for stream in self.streams), 40)
        say(f"warming up for {WARM_UP} s")
        await self.storm(WARM_UP)
        before = await self.calm()
        say(f"storm for {seconds} s")
        self.counted.count_anew()
        used = self.navtwine.processor_seconds()
        await self.storm(seconds)
        row("processor time in the storm", f"{(self.navtwine.processor_seconds() - used) / seconds:.2f} of one",
            "at most 0.5", self.navtwine.processor_seconds() - used <= seconds / 2)
        row("lines that the counted client got in the storm", self.counted.lines, f"at least half of {seconds * RATE}",
            self.counted.lines >= seconds * RATE / 2)
        after = await self.calm()
        self.judge(before, after)
        await self.interrupt()
        for task in self.tasks.values():
            task.cancel()
        await asyncio.gather(*self.tasks.values(), return_exceptions=True)

    async def storm(self, seconds):
        self.collector.calm = False
        crowd = asyncio.create_task(self.crowd.stay())
        misfortunes = random.sample([self.kill_gpspipe, self.hang_up, self.silence, self.stall], 4)
        with contextlib.suppress(TimeoutError):
            async with asyncio.timeout(seconds):
                for misfortune in itertools.cycle(misfortunes):
                    await asyncio.sleep(random.uniform(2, 6))
                    await misfortune()
        self.serial_line.flow()
        await self.end(crowd)
        self.collector.calm = True

    async def end(self, crowd):
        crowd.cancel()
        [outcome] = await asyncio.gather(crowd, return_exceptions=True)
        if isinstance(outcome, Exception):
            self.crowd.faults[f"the soak itself: {outcome!r}"] += 1

    def signal_gpspipe(self, signal_number):
        for process in children_of(self.navtwine.pid)[-1:]:  # after its shell
            os.kill(process, signal_number)

    async def kill_gpspipe(self):
        self.misfortunes["gpspipe killed"] += 1
        self.signal_gpspipe(random.choice([signal.SIGKILL, signal.SIGTERM]))

    async def hang_up(self):
        self.misfortunes["SIGHUP"] += 1
        self.navtwine.process.send_signal(signal.SIGHUP)

    async def silence(self):
        """A receiver that says nothing, and a gpspipe that does not end by itself."""
        self.misfortunes["SIGHUP in silence"] += 1
        self.signal_gpspipe(signal.SIGSTOP)
        try:
            await asyncio.sleep(1)
        finally:
            self.navtwine.process.send_signal(signal.SIGHUP)

    async def stall(self):
        self.misfortunes["serial line stalled"] += 1
        self.serial_line.stall()
        await asyncio.sleep(10)
        self.serial_line.flow()

    async def calm(self):
        """Figures without the crowd; what the consumers get in this time is counted."""
        say("waiting for calm")
        await until(lambda: self.navtwine.threads() == ALL_THREADS and self.collector.connected, 50)
        await asyncio.sleep(5)
        for stream in self.streams:
            stream.count_anew()
        say(f"calm for {CALM} s")
        await asyncio.sleep(CALM)
        return {"threads": self.navtwine.threads(), "descriptors": self.navtwine.descriptors(),
                "processes": len(children_of(self.navtwine.pid)), "KiB": self.navtwine.memory()["resident"]}

    def judge(self, before, after):
        crowd, log = self.crowd, self.navtwine.log()
        for name, stream in zip(self.faults, self.streams):
            row(f"{name}: from beginning to end", dict(self.faults[name]) or "whole, rising, once", "no faults",
                not self.faults[name])
            row("  in the calm at the end", f"{stream.lines} lines, {stream.missing} missing", "none missing",
                stream.missing == 0 and stream.lines >= 0.9 * CALM * RATE)
            row("  the oldest when it came", f"{stream.oldest:.1f} s", "at most 3 s", stream.oldest <= 3)
        for name, task in self.tasks.items():
            row(f"{name}: connected", task.exception() if task.done() else "yes", "yes", not task.done())
        row("sessions of the collector", f"{self.collector.sessions}, {self.collector.refused} refused", "at least 2",
            self.collector.sessions >= 2)
        for name, count in self.misfortunes.items():
            row(f"misfortune: {name}", count)
        row("clients of the crowd, most at once", f"{crowd.ended.total()}, {crowd.most}", "at least 90 % of 1,000",
            crowd.most >= 0.9 * CROWD)
        for kind in KINDS:
            row(f"  {kind.__name__}", crowd.ended[kind.__name__], "some", crowd.ended[kind.__name__] > 0)
        row("  what went wrong for them", dict(crowd.faults) or "nothing", "nothing", not crowd.faults)
        row("  forgotten by the kernel in the server's queue", crowd.forgotten, "at most 1 % of them",
            crowd.forgotten <= crowd.ended.total() / 100)
        row("threads in the calm", after["threads"], str(ALL_THREADS), after["threads"] == ALL_THREADS)
        for figure in ("descriptors", "processes"):
            row(f"{figure} in the calm", after[figure], f"{before[figure]}, as after the warm-up",
                after[figure] == before[figure])
        most = int(before["KiB"] * 1.1 + 512)
        row("resident in the calm", f"{after['KiB']} KiB", f"at most {most} ({before['KiB']} after the warm-up)",
            after["KiB"] <= most)
        failed = log.count("ended early") + log.count("pthread_create")
        row("threads that failed, by the log", failed, "0", failed == 0)
        row("log", f"{len(log) // 1024} KiB, {log.count('ERROR:')} errors")

    async def interrupt(self):
        """With clients in every state, the serial line stalled and gpspipe silent."""
        say("SIGINT in 20 s")
        self.collector.calm = False
        self.serial_line.stall()
        crowd = asyncio.create_task(self.crowd.stay())
        await asyncio.sleep(20)
        self.signal_gpspipe(signal.SIGSTOP)
        began = time.monotonic()
        self.navtwine.process.send_signal(signal.SIGINT)
        await until(lambda: self.navtwine.process.poll() is not None, 30)
        seconds, status = time.monotonic() - began, self.navtwine.process.poll()
        row("SIGINT ended it", f"after {seconds:.1f} s, status {status}", "at most 3 s, status 0",
            seconds <= 3 and status == 0)
        await self.end(crowd)


def main():
    with contextlib.ExitStack() as stack:
        soak = Soak(stack)
        asyncio.run(soak.run(60 * int(sys.argv[1])))


run(main)
