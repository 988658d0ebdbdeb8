"""The real chain, as scripts/chain tells it."""

import contextlib
import json
import math
import os
import pty
import re
import select
import socket
import struct
import subprocess
import sys
import tempfile
import time
import tty
from pathlib import Path

from harness import eventually
from measuring import Navtwine, row, run, standin

EPOCHS = 20    # fed, of a longer recording the first
PERIOD = 1.2   # seconds at least from one epoch to the next: consumers look once a second
MAILBOXES = {"": 11, "--immediate": 64}  # by option: messages; of a longer epoch the newest
NEAR = 3e-6    # degrees: a digit in the fourth decimal of the minutes, both ways
TAKEN = re.compile(r"\$..(GGA|RMC|GSA|ZDA|GBS|GLL|GSV|VTG),")


def epochs_of(recording):
    """An epoch begins where a type comes again: sentences need not have a time, and need not all come in each epoch.
    Of a recording without sentences, some bytes."""
    epochs, kinds = [""], []
    for piece in re.split(r"(?=\$[A-Z][A-Z0-9]+,)", recording):
        kind = piece.partition(",")[0]
        if kind in kinds[:-1] and kind != kinds[-1]:
            epochs.append("")
            kinds = []
        epochs[-1] += piece
        kinds.append(kind)
    return epochs if len(epochs) > 1 else re.findall("(?s).{1,250}", recording)


def binary_receiver():
    """The epochs of one that speaks UBX and goes north from the equator: position (NAV-PVT), end of the epoch."""
    for second in range(EPOCHS):
        time_of_week = 302_400_000 + 1000 * second  # ms
        position = struct.pack("<IHBBBBBBIiBBBBiiii2I5i2IH18x", time_of_week, 2026, 7, 1, 12, 0, second, 7, 50, 0, 3, 1,
                               0, 11, 100_000_000, 2000 * second, 40_000, 4_000, 900, 1500, 2000, 0, 0, 2000, 0, 100,
                               100_000, 170)
        epoch = b""
        for message, payload in (0x07, position), (0x61, struct.pack("<I", time_of_week)):
            body = struct.pack("<BBH", 1, message, len(payload)) + payload
            sums = sum(body), sum(byte * (len(body) - place) for place, byte in enumerate(body))
            epoch += b"\xb5\x62" + body + bytes(number % 256 for number in sums)
        yield epoch.decode("latin-1")


def start(stack, *command):
    """Starts it until the stack is unwound. Returns how to read what it has printed so far."""
    output = stack.enter_context(tempfile.NamedTemporaryFile())
    process = stack.enter_context(subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=output,
                                                   stderr=subprocess.DEVNULL))
    stack.callback(process.kill)
    return lambda: Path(output.name).read_bytes().decode("latin-1")


def start_gpsd(stack, source):
    """Returns the address of a gpsd and how to read its reports."""
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        port = probe.getsockname()[1]
    start(stack, "/usr/sbin/gpsd", "-N", "-n", "-S", str(port), source)
    assert eventually(lambda: socket.socket().connect_ex(("127.0.0.1", port)) == 0), "gpsd does not listen"
    return f"127.0.0.1:{port}", start(stack, "gpspipe", "-w", f"127.0.0.1:{port}")


def positions_in(reports):
    """{(time, latitude, longitude)}"""
    reports = map(json.loads, reports.splitlines())
    return {(report["time"], report["lat"], report["lon"]) for report in reports
            if report["class"] == "TPV" and {"time", "lat", "lon"} <= report.keys()}


class Consumer:
    """One navtwine on a gpsd, with a client and a second gpsd behind it."""

    def __init__(self, stack, address, option):
        self.mailbox, self.expected, self.lost, self.wrong, self.text = MAILBOXES[option], 0, 0, "", ""
        navtwine = stack.enter_context(Navtwine(option, f'PATH="${{PATH#*:}}"; exec gpspipe "$@" {address}'))
        self.client = navtwine.connect()
        _, self.reports = start_gpsd(stack, f"tcp://127.0.0.1:{navtwine.port}")
        assert eventually(lambda: navtwine.handlers() == 2), "the second gpsd does not connect to navtwine"

    def hear(self, messages):
        """The client must get these of an epoch, in order; when they overflow a mailbox, the newest at least."""
        overflowing, newest = messages[:-self.mailbox], messages[-self.mailbox:]
        pattern = "".join(f"({re.escape(message)})?" for message in overflowing) + re.escape("".join(newest))

        def all_came():
            self.text += self.client.read_until("nothing more", 0.01)
            return re.fullmatch(pattern, self.text)
        found = eventually(all_came, 0 if self.wrong else 10)
        self.lost += found.groups().count(None) if found else len(messages)
        if not found:
            self.wrong = self.wrong or f"{messages} came as {self.text!r}\n"
        self.expected += len(messages)
        self.text = ""

    def judge(self, name, first):
        row(f"{name}: messages that a client got", f"{self.expected - self.lost} of {self.expected}",
            f"of an epoch the newest {self.mailbox}", not self.wrong)
        print(self.wrong, end="")
        if not first or not self.expected:
            reason = "no sentence of talker GP or GN" if first else "the recording has no fix"
            row("  positions", "not judged", reason, None if sys.argv[1:] else False)
            return
        second = positions_in(self.reports())
        same = [here for here in second if any(here[0] == there[0] and math.dist(here[1:], there[1:]) < NEAR
                                               for there in first)]
        least = 0 if self.lost else math.ceil(len(first) * 0.75)
        row("  positions that the second gpsd reported", f"{len(second)} of {len(first)}, {len(same)} the same",
            f"at least {least}, all the same", len(same) == len(second) >= least)


class Chain:
    """A recording on its way: pseudo-terminal -> gpsd -> gpspipe -> navtwine, one in each mode."""

    def __init__(self, stack, name, epochs):
        self.name, self.epochs, self.seen, self.group, self.talkers = name, list(epochs)[:EPOCHS], 0, "", set()
        self.receiver, far_end = pty.openpty()
        tty.setraw(far_end)
        os.chmod(os.ttyname(far_end), 0o666)  # gpsd gives root's rights up
        address, self.reports = start_gpsd(stack, os.ttyname(far_end))
        self.printed = start(stack, "gpspipe", "-r", address)
        self.consumers = {option: Consumer(stack, address, option) for option in MAILBOXES}

    def feed(self, number):
        if select.select([self.receiver], [], [], 0)[0]:
            os.read(self.receiver, 65536)  # gpsd asks and configures receivers
        os.write(self.receiver, "".join(self.epochs[number:number + 1]).encode("latin-1"))

    def hear(self):
        """What gpspipe has printed since the last epoch must have come through."""
        lines = self.printed().splitlines(keepends=True)
        messages = list(self.messages_of(lines[self.seen:]))
        self.seen = len(lines)
        for consumer in self.consumers.values():
            consumer.hear(messages)

    def messages_of(self, lines):
        """What navtwine makes of the lines: a message a sentence, but one of a whole GSV group."""
        for line in filter(TAKEN.match, lines):
            self.talkers.add(line[1:3])
            if line[1:3] not in ("GP", "GN"):
                continue
            if "GSV," not in line:
                yield line
                continue
            self.group += line
            if line.split(",")[1] == line.split(",")[2]:
                yield self.group
                self.group = ""

    def judge(self):
        assert self.talkers, f"{self.name}: gpspipe prints none of the eight types of sentences"
        if others := self.talkers - {"GP", "GN"}:
            print(f"{self.name}: navtwine takes the talkers GP and GN, and not {' and '.join(sorted(others))}")
        for option, consumer in self.consumers.items():
            consumer.judge(f"{self.name}, {option or 'default'}", positions_in(self.reports()))


def main():
    recordings = {Path(name).name: epochs_of(Path(name).read_bytes().decode("latin-1")) for name in sys.argv[1:]}
    if not recordings:
        command = ["/bin/sh", "-c", standin("GPSPIPE_RATE=0", f"GPSPIPE_EPOCHS={EPOCHS}"), "gpspipe", "-r"]
        recordings = {"stand-in": epochs_of(subprocess.check_output(command).decode()), "UBX": binary_receiver()}
    with contextlib.ExitStack() as stack:
        chains = [Chain(stack, name, epochs) for name, epochs in recordings.items()]
        time.sleep(2)  # they have asked for what they want
        for number in range(EPOCHS + 1):  # gpsd may wait for the next epoch
            for chain in chains:
                chain.feed(number)
            time.sleep(PERIOD)
            for chain in chains:
                chain.hear()
        for chain in chains:
            chain.judge()


run(main)
