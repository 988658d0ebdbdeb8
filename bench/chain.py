"""The real chain, as scripts/chain tells it."""

import contextlib
import json
import os
import pty
import re
import socket
import subprocess
import sys
import tempfile
import time
import tty
from pathlib import Path

from harness import ESTABLISHED, OWN_THREADS, STANDIN, Failed, Navtwine, end_process, free_port, is_listening, \
    peers, run, wait_until

EPOCHS = 20      # fed, of a longer log the first
LONGEST = 2000   # lines of a log that are looked at
PERIOD = 1.5     # seconds from one epoch to the next: consumers look once a second, so each finds one epoch at most
MAILBOX = 11     # messages; of a longer epoch the newest
NEAR = 2e-6      # degrees: a digit in the fourth decimal of the minutes
GPSPIPE = "/usr/bin/gpspipe"
SENTENCE = re.compile(r"\$([A-Z]{2,}[A-Z0-9]*),.*")
WANTED = re.compile(r"\$G[PN](GGA|RMC|GSA|ZDA|GBS|GLL|GSV|VTG),")
TIME_FIELD = {"RMC": 1, "GGA": 1, "GNS": 1, "ZDA": 1, "GBS": 1, "GLL": 5}


def epochs_of(lines):
    """Groups sentences: an epoch begins where the time in them changes."""
    epochs, last_time = [], None
    for line in lines:
        fields = line.split(",")
        column = TIME_FIELD.get(fields[0][-3:], len(fields))
        when = fields[column] if column < len(fields) else ""
        if not epochs or (when and last_time and when != last_time):
            epochs.append([])
        last_time = when or last_time
        epochs[-1].append(line)
    return epochs


def messages_of(epochs):
    """What navtwine makes of each epoch: a message a sentence, but one of a whole GSV group."""
    group, messages = "", [[] for _ in epochs]
    for number, epoch in enumerate(epochs):
        for line in filter(WANTED.match, epoch):
            group = group + line if "GSV," in line else line
            fields = line.split(",")
            if "GSV," not in line or fields[1] == fields[2]:
                messages[number].append(group)
                group = ""
    return messages


def read_log(arguments):
    if arguments:
        text = Path(arguments[0]).read_text("latin-1")
    else:
        settings = {"GPSPIPE_RATE": "0", "GPSPIPE_EPOCHS": str(EPOCHS)}
        text = subprocess.check_output([STANDIN / "gpspipe", "-r"], env=settings, text=True, timeout=20)
    found = list(filter(None, map(SENTENCE.search, text.splitlines()[:LONGEST])))
    if not found:
        raise Failed("the log holds no NMEA sentence")
    if not any(WANTED.match(sentence[0]) for sentence in found):
        kinds = sorted({sentence[1] for sentence in found})
        raise Failed(f"navtwine takes none of the log's sentences, by design: it holds {' '.join(kinds)}")
    return epochs_of(sentence[0] + "\r\n" for sentence in found)[:EPOCHS]


def start_gpsd(stack, *source):
    port = free_port()
    gpsd = subprocess.Popen(["/usr/sbin/gpsd", "-N", "-n", "-S", str(port), *source], stdin=subprocess.DEVNULL,
                            stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    stack.callback(end_process, gpsd)
    if not wait_until(lambda: gpsd.poll() is not None or is_listening(port), 10) or gpsd.poll() is not None:
        raise Failed(f"gpsd does not listen on port {port} (status {gpsd.poll()})")
    return port


def positions_in(reports):
    """{time: the (latitude, longitude) reported for it}"""
    positions = {}
    for report in map(json.loads, reports.read_text().splitlines()):
        if report["class"] == "TPV" and {"time", "lat", "lon"} <= report.keys():
            positions.setdefault(report["time"], []).append((report["lat"], report["lon"]))
    return positions


def compare_reports(first, second):
    if len(first) < 5:
        raise Failed(f"the log gives the first gpsd {len(first)} positions with a time: 5 are needed")
    for moment, positions in second.items():
        for here in positions:
            if not any(max(abs(a - b) for a, b in zip(here, there)) < NEAR for there in first.get(moment, [])):
                raise Failed(f"at {moment} the second gpsd reports {here}, the first one {first.get(moment)}")
    if len(second) < len(first) * 0.75:  # sentences that navtwine does not take give positions, too
        raise Failed(f"the second gpsd reports {len(second)} positions, the first one {len(first)}")


def compare_sentences(expected, received):
    """`expected`: epochs of messages. The client has all of them, in order, but of an epoch that overflows a mailbox
    only the newest need be there. Returns how many were lost in that way."""
    at = lost = 0
    for epoch in expected:
        for place, message in enumerate(epoch):
            if received.startswith(message, at):
                at += len(message)
            elif len(epoch) - place > MAILBOX:
                lost += 1
            else:
                raise Failed(f"the client should get\n{message}and gets\n{received[at:at + 200] or 'nothing more'}")
    if received[at:]:
        raise Failed(f"the client gets what gpspipe did not print: {received[at:at + 200]}")
    return lost


def feed(stack, folder, epochs):
    """Sends the epochs through the chain. Returns what the client got."""
    receiver, far_end = pty.openpty()
    tty.setraw(far_end)
    os.chmod(os.ttyname(far_end), 0o666)  # gpsd gives root's rights up
    first_port = start_gpsd(stack, "-b", os.ttyname(far_end))
    (folder / "gpspipe").write_text(f'#!/bin/sh\nexec {GPSPIPE} "$@" 127.0.0.1:{first_port}\n')
    (folder / "gpspipe").chmod(0o755)
    navtwine = stack.enter_context(Navtwine(gpspipe=folder))
    client = stack.enter_context(socket.create_connection(("127.0.0.1", navtwine.port)))
    second_port = start_gpsd(stack, f"tcp://127.0.0.1:{navtwine.port}")
    for option, port, output in ("-r", first_port, "sentences"), ("-w", first_port, "first"), \
                                ("-w", second_port, "second"):
        gpspipe = subprocess.Popen([GPSPIPE, option, f"127.0.0.1:{port}"], stdout=open(folder / output, "wb"))
        stack.callback(end_process, gpspipe)
    if not wait_until(lambda: len(peers(first_port, ESTABLISHED)) == 3 and len(peers(second_port, ESTABLISHED)) == 1
                      and navtwine.threads() == OWN_THREADS + 2, 10):
        raise Failed("the chain does not connect")
    time.sleep(2)  # they have asked for what they want
    print(f"feeding {len(epochs)} epochs: {os.ttyname(far_end)} -> gpsd :{first_port} -> gpspipe -> "
          f"navtwine :{navtwine.port} -> gpsd :{second_port}", flush=True)
    for epoch in epochs:
        os.write(receiver, "".join(epoch).encode("latin-1"))
        time.sleep(PERIOD)
    time.sleep(2)
    if status := navtwine.stop():
        raise Failed(f"navtwine ended with status {status}")
    return client.makefile(encoding="latin-1", newline="").read()


def main():
    epochs = read_log(sys.argv[1:])
    with contextlib.ExitStack() as stack:
        folder = Path(stack.enter_context(tempfile.TemporaryDirectory()))
        received = feed(stack, folder, epochs)
        printed = (folder / "sentences").read_bytes().decode("latin-1").splitlines(keepends=True)
        first, second = positions_in(folder / "first"), positions_in(folder / "second")
    expected = messages_of(epochs_of(line for line in printed if SENTENCE.match(line)))
    lost = compare_sentences(expected, received)
    print(f"sentences: the client got {sum(map(len, expected)) - lost} messages as gpspipe printed them; "
          f"{lost} overflowed the mailbox")
    compare_reports(first, second)
    print(f"positions: the second gpsd reported {len(second)} of the first one's {len(first)}, the same\nchain: OK")


run(main)
