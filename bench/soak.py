"""The soak, as scripts/soak tells it."""

import asyncio
import collections
import contextlib
import itertools
import os
import random
import re
import signal
import socket
import struct
import sys
import time
from pathlib import Path

from harness import eventually
from measuring import NUMBERED, Navtwine, Stream, row, run

CROWD = 1000
RATE = 3       # lines of gpspipe a second
WARM_UP = 30   # seconds
CALM = 15      # seconds in which everything is counted
PATIENCE = 20  # seconds for an answer of the server
PROMPT, PASSWORD, OK = b"PASSWORD\r\n", b"lantern\r\n", b"OK\r\n"

# What a client of the crowd sends after the prompt, what it must hear by then, how often.
LOGINS = ((PASSWORD, PROMPT + OK, 13), (3 * b"latern\r\n", 3 * (PROMPT + b"ERROR\r\n"), 2), (b"lan", PROMPT, 3),
          (random.randbytes(4000), PROMPT, 2))


async def read(stream, reader, seconds):
    """Takes what comes for so long."""
    with contextlib.suppress(TimeoutError):
        async with asyncio.timeout(seconds):
            while data := await reader.read(65536):
                stream.take(data, time.monotonic_ns())
            raise ConnectionResetError("the program ended the connection")


class Soak(Navtwine):
    """The program with all consumers, and what they live through."""

    def __init__(self):
        super().__init__("--server-passwd lantern --client --client-remote-host 127.0.0.1 --client-port $COLLECTOR "
                         "--client-passwd lantern --serial $LINE", f"export RATE={RATE} MESSAGES=1; {NUMBERED}",
                         "ulimit -Sn 512")  # which it raises itself
        self.streams = {name: Stream() for name in ("counted client", "collector", "serial line")}
        self.faults, self.is_calm, self.has_uplink, self.sessions = collections.Counter(), False, False, 0
        self.visits, self.most, self.forgotten = 0, 0, 0  # of the crowd

    # -- who comes and goes ------------------------------------------------------------------------------------

    async def place(self):
        """One client of the crowd after the other."""
        await asyncio.sleep(random.uniform(0, 10))
        while True:
            stream, client = Stream(), socket.socket()
            client.bind(("127.0.0.1", 0))
            port = client.getsockname()[1]
            try:
                await self.visit(stream, client)
                self.visits += 1
            except TimeoutError:
                # When the queue of connections overflows, the kernel forgets some whose clients believe in them.
                known = rf":{self.port:04X} 0100007F:{port:04X} 0[18] "
                self.faults["not answered"] += bool(re.search(known, Path("/proc/net/tcp").read_text()))
                self.forgotten += 1
            except (OSError, EOFError) as error:
                self.faults[repr(error)] += 1
            finally:
                client.close()
                self.faults["faulty lines"] += stream.faults
            await asyncio.sleep(random.uniform(0, 2))

    async def visit(self, stream, client):
        """It logs in, fails to or is stuck, reads or sleeps, then leaves or vanishes."""
        answer, expected, _ = random.choices(LOGINS, [share for *_, share in LOGINS])[0]
        sleeps = answer != PASSWORD or random.random() < 0.2
        client.setblocking(False)
        if sleeps:
            client.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 2048)
        if random.random() < 0.5:  # to close it is a reset then, as after a reboot
            client.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        async with asyncio.timeout(PATIENCE):
            await asyncio.get_running_loop().sock_connect(client, ("127.0.0.1", self.port))
            reader, writer = await asyncio.open_connection(sock=client)
        try:
            async with asyncio.timeout(PATIENCE):
                heard = await reader.readexactly(len(PROMPT))
            async with asyncio.timeout(PATIENCE):
                writer.write(answer)
                heard += await reader.readexactly(len(expected) - len(PROMPT))
            if heard != expected:
                raise EOFError(f"{answer[:20]} is answered by {heard}")
            if sleeps:
                writer.transport.pause_reading()
                await asyncio.sleep(random.uniform(1, 40))
            else:
                await read(stream, reader, random.uniform(0, 20))
        finally:
            writer.transport.abort()

    async def collect(self, reader, writer):
        """A session of the uplink, which ends after a while, but not in a calm."""
        writer.write(PROMPT)
        await reader.readexactly(len(PASSWORD))
        writer.write(OK)
        self.sessions += 1
        self.has_uplink = True
        self.streams["collector"].rest = b""
        end = time.monotonic() + random.uniform(5, 25)
        while self.is_calm or time.monotonic() < end:
            await read(self.streams["collector"], reader, 0.5)
        self.has_uplink = False
        writer.transport.abort()

    def follow(self, name, peer):
        file = peer.stream.fileno()
        asyncio.get_running_loop().add_reader(
            file, lambda: self.streams[name].take(os.read(file, 65536), time.monotonic_ns()))

    # -- the course of it --------------------------------------------------------------------------------------

    async def misfortune(self, gpspipe_signal, main_signal, stall):
        with contextlib.suppress(ProcessLookupError):
            os.kill(self.gpspipe(), gpspipe_signal)
        self.process.send_signal(main_signal)
        if stall:
            asyncio.get_running_loop().remove_reader(self.line.stream.fileno())
            await asyncio.sleep(10)
            self.follow("serial line", self.line)

    async def storm(self, seconds):
        print(f"storm for {seconds} s", flush=True)
        self.is_calm = False
        crowd = [asyncio.create_task(self.place()) for _ in range(CROWD)]
        with contextlib.suppress(TimeoutError):
            async with asyncio.timeout(seconds):
                for misfortune in itertools.cycle(((signal.SIGKILL, 0, False), (0, signal.SIGHUP, False), (0, 0, True),
                                                   (signal.SIGSTOP, signal.SIGHUP, False))):
                    await asyncio.sleep(random.uniform(2, 6))
                    await self.misfortune(*misfortune)
                    self.most = max(self.most, self.handlers())
        return crowd

    async def calm(self, crowd):
        """Figures without the crowd; what the consumers get in this time is counted."""
        for place in crowd:
            place.cancel()
        await asyncio.wait(crowd)
        self.faults.update(repr(place.exception()) for place in crowd if not place.cancelled())
        self.follow("serial line", self.line)
        self.is_calm = True
        await asyncio.to_thread(eventually, lambda: self.handlers() == 1 and self.has_uplink, 60)
        await asyncio.sleep(5)
        print(f"calm for {CALM} s", flush=True)
        for stream in self.streams.values():
            stream.count_anew()
        await asyncio.sleep(CALM)
        children = Path(f"/proc/{self.process.pid}/task/{self.process.pid}/children").read_text().split()
        descriptors = os.listdir(f"/proc/{self.process.pid}/fd")
        return (self.handlers(), len(descriptors), len(children)), self.resident()

    async def soak(self, seconds):
        self.follow("serial line", self.line)
        client = self.connect(PASSWORD.decode())
        self.streams["counted client"].rest = client.read_until("OK\r\n").partition("OK\r\n")[2].encode()
        self.follow("counted client", client)
        await asyncio.start_server(self.collect, sock=self.collector)
        left, resident = await self.calm(await self.storm(WARM_UP))
        used = -self.processor_seconds()
        crowd = await self.storm(seconds)
        used += self.processor_seconds()
        left_now, resident_now = await self.calm(crowd)
        row("processor time in the storm", f"{used / seconds:.2f} of one", "at most 0.5", used <= seconds / 2)
        row("clients that came and went, most at once", f"{self.visits}, {self.most}", "at least 600 at once",
            self.most >= 600)
        row("  forgotten by the kernel in the server's queue", self.forgotten, "at most a tenth",
            self.forgotten <= self.visits / 10)
        row("  what went wrong for them", dict(+self.faults) or "nothing", "nothing", not +self.faults)
        row("sessions of the uplink", self.sessions, "at least 2", self.sessions >= 2)
        for name, of in self.streams.items():
            latest = max(of.late, default=0) / 1000
            row(f"{name}: faulty lines; in the last calm, lines, missing, latest",
                f"{of.faults}; {of.lines}, {of.missing}, {latest:.1f} s", "none; 40 or more, none, 4 s",
                of.lines >= 40 and of.faults == of.missing == 0 and latest <= 4)
        row("handlers, descriptors, gpspipes in the calm", left_now, f"{left}, as after the warm-up", left_now == left)
        row("resident in the calm", f"{resident_now} KiB", f"at most {resident} KiB, a tenth and 512",
            resident_now <= 1.1 * resident + 512)
        await self.storm(20)
        await self.interrupted()

    async def interrupted(self):
        """With clients in every state, the serial line stalled and gpspipe silent."""
        asyncio.get_running_loop().remove_reader(self.line.stream.fileno())
        await self.misfortune(signal.SIGSTOP, 0, False)
        began = time.monotonic()
        await asyncio.to_thread(self.interrupt)
        seconds = time.monotonic() - began
        row("SIGINT ended it", f"after {seconds:.1f} s", "at most 3 s", seconds <= 3)


def main():
    with Soak() as soak:
        asyncio.run(soak.soak(60 * int(sys.argv[1])))


run(main)
