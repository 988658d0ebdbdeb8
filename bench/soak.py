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

from harness import CLOSE_WAIT, ESTABLISHED, OWN_THREADS, ROOT, Navtwine, children_of, peers, row, run

PASSWORD = b"lantern"
CROWD = 1000
ALL_THREADS = OWN_THREADS + 3  # the uplink, the serial line, the counted client
RATE = 3                       # lines of gpspipe a second
WARM_UP = 30                   # seconds
CALM = 15                      # seconds in which everything is counted
PATIENCE = 20                  # seconds for an answer of the server


def listed(counter):
    return ", ".join(f"{count} {what}" for what, count in counter.items()) or "nothing"


async def until(condition, seconds):
    """As soon as `condition()` is true; goes on when that was not in time."""
    end = time.monotonic() + seconds
    while not condition() and time.monotonic() < end:
        await asyncio.sleep(0.02)


# -- what all clients do ---------------------------------------------------------------------------------------

class Stream:
    """What one consumer gets: every line must be whole and its number above the last one's."""

    def __init__(self):
        self.faults, self.rest, self.last = collections.Counter(), b"", 0
        self.count_anew()

    def count_anew(self):
        self.lines = self.missing = self.oldest = 0

    def take(self, data):
        *lines, self.rest = (self.rest + data).split(b"\r\n")
        for line in lines:
            body, _, checksum = line[1:].rpartition(b"*")
            if line[:1] != b"$" or checksum != b"%02X" % reduce(xor, body, 0):
                self.faults["cut line"] += 1
                continue
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
    writer.write_eof()


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
        self.port, self.forgotten = port, 0
        self.ended, self.faults = collections.Counter(), collections.Counter()

    async def stay(self):
        await asyncio.gather(*(self.place() for _ in range(CROWD)))

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
        stream, writer = Stream(), None
        try:
            async with asyncio.timeout(PATIENCE):
                await asyncio.get_running_loop().sock_connect(connection, ("127.0.0.1", self.port))
            reader, writer = await asyncio.open_connection(sock=connection)
            await kind(stream, reader, writer)
            self.ended[kind.__name__] += 1
        except TimeoutError:
            # When the queue of connections overflows, the kernel forgets some while their clients believe in them.
            if writer and connection.getsockname()[1] not in peers(self.port, ESTABLISHED, CLOSE_WAIT):
                self.forgotten += 1
            else:
                self.faults["not answered" if writer else "not connected"] += 1
        except OSError as error:
            self.faults[f"{kind.__name__}: {error!r}"] += 1
        finally:
            self.faults.update(stream.faults)
            if writer:
                writer.transport.abort()


# -- the consumers that are there from beginning to end --------------------------------------------------------

class Collector:
    """The uplink's other end. Comes and goes unless `calm`."""

    def __init__(self):
        self.stream, self.sessions, self.calm, self.connected = Stream(), 0, False, False
        self.listener = socket.create_server(("127.0.0.1", 0))
        self.port = self.listener.getsockname()[1]

    async def serve(self):
        while True:
            self.listener.setblocking(False)
            connection, _ = await asyncio.get_running_loop().sock_accept(self.listener)
            await self.session(*await asyncio.open_connection(sock=connection))
            if random.random() < 0.3:
                self.listener.close()
                await until(lambda: self.calm, random.uniform(5, 20))
                self.listener = socket.create_server(("127.0.0.1", self.port))

    async def session(self, reader, writer):
        writer.write(b"PASSWORD\r\n")
        await expect(reader, PASSWORD + b"\r\n")
        writer.write(b"OK\r\n")
        self.sessions += 1
        self.connected = True
        end = time.monotonic() + random.uniform(5, 25)
        while self.calm or time.monotonic() < end:
            await self.stream.read(reader, 0.5)
        self.connected = False
        self.stream.rest = b""
        if random.random() < 0.5:
            vanish(writer)
        writer.close()


async def counted_client(port, stream):
    reader, writer = await asyncio.open_connection("127.0.0.1", port)
    await log_in(reader, writer)
    await stream.read(reader)


# -- the course of it ------------------------------------------------------------------------------------------

class Soak:
    def __init__(self, stack):
        self.counted, self.collector, self.serial_line = Stream(), Collector(), Stream()
        self.streams = {"counted client": self.counted, "collector": self.collector.stream,
                        "serial line": self.serial_line}
        self.far_end, near_end = pty.openpty()
        tty.setraw(near_end)
        folder = Path(stack.enter_context(tempfile.TemporaryDirectory()))
        (folder / "gpspipe").symlink_to(ROOT / "bench" / "numbered_gpspipe.py")
        # It raises the limit of open files itself: 512 would not do for the crowd.
        self.navtwine = stack.enter_context(Navtwine(
            "--server-passwd", PASSWORD, "--client", "--client-remote-host", "127.0.0.1", "--client-port",
            str(self.collector.port), "--client-passwd", PASSWORD, "--serial", os.ttyname(near_end),
            gpspipe=folder, prefix=["prlimit", "--nofile=512:"]))
        self.crowd = Crowd(self.navtwine.port)
        self.misfortunes, self.most = collections.Counter(), 0

    async def run(self, seconds):
        self.let_serial_line_flow()
        consumers = [asyncio.create_task(counted_client(self.navtwine.port, self.counted)),
                     asyncio.create_task(self.collector.serve())]
        await until(lambda: all(stream.lines for stream in self.streams.values()), 40)
        await self.storm(WARM_UP)
        before = await self.calm()
        self.counted.count_anew()
        used = -self.navtwine.processor_seconds()
        await self.storm(seconds)
        used += self.navtwine.processor_seconds()
        row("processor time in the storm", f"{used / seconds:.2f} of one", "at most 0.5", used <= seconds / 2)
        row("lines that the counted client got in the storm", self.counted.lines,
            f"at least half of {seconds * RATE}", self.counted.lines >= seconds * RATE / 2)
        after = await self.calm()
        broken = [task.exception() for task in consumers if task.done()]
        row("counted client and collector", broken or "connected", "connected", not broken)
        self.judge(before, after)
        await self.interrupt()
        for task in consumers:
            task.cancel()
        await asyncio.gather(*consumers, return_exceptions=True)

    async def storm(self, seconds):
        print(f"storm for {seconds} s", flush=True)
        self.collector.calm = False
        misfortunes = random.sample([self.kill_gpspipe, self.hang_up, self.silence, self.stall], 4)
        crowd = asyncio.create_task(self.crowd.stay())
        with contextlib.suppress(TimeoutError):
            async with asyncio.timeout(seconds):
                for misfortune in itertools.cycle(misfortunes):
                    await asyncio.sleep(random.uniform(2, 6))
                    self.misfortunes[misfortune.__name__] += 1
                    await misfortune()
                    self.most = max(self.most, self.navtwine.threads() - ALL_THREADS)
        self.let_serial_line_flow()
        self.collector.calm = True
        await self.end(crowd)

    async def end(self, crowd):
        crowd.cancel()
        await asyncio.wait([crowd])
        assert crowd.cancelled(), crowd.exception()

    def let_serial_line_flow(self):
        asyncio.get_running_loop().add_reader(self.far_end, lambda: self.serial_line.take(os.read(self.far_end, 65536)))

    def signal_gpspipe(self, signal_number):
        for process in children_of(self.navtwine.pid)[-1:]:  # the first is its shell
            os.kill(process, signal_number)

    async def kill_gpspipe(self):
        self.signal_gpspipe(random.choice([signal.SIGKILL, signal.SIGTERM]))

    async def hang_up(self):
        self.navtwine.process.send_signal(signal.SIGHUP)

    async def silence(self):
        """SIGHUP while gpspipe says nothing and does not end by itself."""
        self.signal_gpspipe(signal.SIGSTOP)
        await self.hang_up()

    async def stall(self):
        asyncio.get_running_loop().remove_reader(self.far_end)
        await asyncio.sleep(10)
        self.let_serial_line_flow()

    async def calm(self):
        """Figures without the crowd; what the consumers get in this time is counted."""
        await until(lambda: self.navtwine.threads() == ALL_THREADS and self.collector.connected, 50)
        await asyncio.sleep(5)
        print(f"calm for {CALM} s", flush=True)
        for stream in self.streams.values():
            stream.count_anew()
        await asyncio.sleep(CALM)
        return {"threads": self.navtwine.threads(), "descriptors": self.navtwine.descriptors(),
                "processes": len(children_of(self.navtwine.pid)), "KiB": self.navtwine.memory()["Rss"]}

    def judge(self, before, after):
        crowd = self.crowd
        for name, stream in self.streams.items():
            row(f"{name}: faults from beginning to end", listed(stream.faults), "nothing", not stream.faults)
            row("  in the calm at the end", f"{stream.lines} lines, {stream.missing} missing", "none missing",
                stream.missing == 0 and stream.lines >= 0.9 * CALM * RATE)
            row("  the oldest when it came", f"{stream.oldest:.1f} s", "at most 4 s", stream.oldest <= 4)
        row("sessions of the collector", self.collector.sessions, "at least 2", self.collector.sessions >= 2)
        row("misfortunes", listed(self.misfortunes), "four kinds", len(self.misfortunes) == 4)
        row("clients of the crowd, most handlers at once", f"{crowd.ended.total()}, {self.most}",
            f"at least {0.8 * CROWD:.0f}", self.most >= 0.8 * CROWD)
        row("  as they ended", listed(crowd.ended), "six kinds", len(crowd.ended) == len(KINDS))
        row("  what went wrong for them", listed(crowd.faults), "nothing", not crowd.faults)
        row("  forgotten by the kernel in the server's queue", crowd.forgotten, "at most 10 % of them",
            crowd.forgotten <= crowd.ended.total() / 10)
        row("threads in the calm", after["threads"], str(ALL_THREADS), after["threads"] == ALL_THREADS)
        for figure in ("descriptors", "processes"):
            row(f"{figure} in the calm", after[figure], f"{before[figure]}, as after the warm-up",
                after[figure] == before[figure])
        most = int(before["KiB"] * 1.1 + 512)
        row("resident in the calm", f"{after['KiB']} KiB", f"at most {most} ({before['KiB']} after the warm-up)",
            after["KiB"] <= most)

    async def interrupt(self):
        """With clients in every state, the serial line stalled and gpspipe silent."""
        print("SIGINT in 20 s", flush=True)
        asyncio.get_running_loop().remove_reader(self.far_end)
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
        asyncio.run(Soak(stack).run(60 * int(sys.argv[1])))


run(main)
