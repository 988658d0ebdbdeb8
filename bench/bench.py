"""The figures of scripts/bench: one function each, whose rows end in the table of bench/RESULTS.md."""

import contextlib
import datetime
import os
import platform
import re
import selectors
import signal
import socket
import statistics
import subprocess
import sys
import tempfile
import time

from harness import eventually
from measuring import BUILD, NUMBERED, ROOT, VERDICT, Navtwine, Stream, row, rows, run, standin

RESULTS = ROOT / "bench" / "RESULTS.md"
QUICK = "--quick" in sys.argv[1:]
ROUNDS = 2 if QUICK else 5
MODES = "default", "--immediate"
MILLION_LINES = "GPSPIPE_RATE=0", "GPSPIPE_EPOCHS=100000"
SILENT = standin("GPSPIPE_RATE=0.0001")

curves = {}  # mode: {number of clients: system calls}, for the picture


def at_most(name, value, limit, form, slack):
    """`slack`: the multiple of its limit that the figure may reach with --quick, beside busy neighbours."""
    limit *= slack if QUICK else 1
    row(name, form.format(value), f"at most {form.format(limit)}", value <= limit)


class Served(Navtwine):
    """The program in one of the modes, with clients that connect one after another. `hear` gets what they get."""

    def __init__(self, mode, count, gpspipe=standin(), before=":"):
        super().__init__(mode.replace("default", ""), gpspipe, before)
        self.count = count
        self.selector = selectors.DefaultSelector()
        self.served = set()  # clients
        self.hear = lambda *_: None

    def __enter__(self):
        super().__enter__()
        self.add_clients(self.count)
        return self

    def add_clients(self, count, pause=0.005):
        for _ in range(count):
            client = socket.socket()
            client.setblocking(False)
            client.connect_ex(("127.0.0.1", self.port))
            self.selector.register(client, selectors.EVENT_READ)
            time.sleep(pause)
        assert not pause or eventually(self.all_handled), f"{self.handlers()} handlers are too few"

    def all_handled(self):
        return self.handlers() == len(self.selector.get_map())

    def read(self, seconds, until=lambda: False):
        """Takes what comes for so long, or until `until()` is true: whether it is."""
        end = time.monotonic() + seconds
        while not (met := until()) and time.monotonic() < end:
            for key, _ in self.selector.select(0.05):
                data = key.fileobj.recv(65536)
                assert data, "the server ended a connection"
                self.served.add(key.fileobj)
                self.hear(key.fileobj, data, time.monotonic_ns())
        return met

    def all_served(self):
        return len(self.served) == len(self.selector.get_map())


def start_up():
    times = []
    for _ in range(5 if QUICK else 20):
        with contextlib.ExitStack() as stack:
            began = time.monotonic()
            stack.push(Navtwine("2>$LINE")).line.read_until("waiting for client")
            times.append((time.monotonic() - began) * 1000)
    at_most("start-up, until it waits for clients", statistics.median(times), 50, "{:.1f} ms", 10)


# -- processor time: the least of the rounds, in which everything takes turns ----------------------------------

def bare_million():
    command = ["env", *MILLION_LINES, f"PATH={BUILD}/tools:{os.environ['PATH']}", BUILD / "bench" / "bare_reader"]
    return float(subprocess.check_output(command, timeout=120))


def navtwine_million(mode, count):
    """Processor seconds of the whole program, and of its reader. The second gpspipe tells that the first is through."""
    gate = "[ ! -e ran ] || { : >over; exec sleep 1000; }; : >ran; until [ -e go ]; do sleep 0.05; done\n"
    with Served(mode, count, gate + standin(*MILLION_LINES)) as navtwine:
        before, reader = navtwine.processor_seconds(), navtwine.reader_seconds()
        navtwine.touch("go")
        assert navtwine.read(120, (navtwine.folder / "over").exists) and navtwine.all_served(), "not through in time"
        return navtwine.processor_seconds() - before, navtwine.reader_seconds() - reader


def flat_out():
    cases = ("default", 0), ("default", 10), ("--immediate", 10)
    bare, used = [], {case: [] for case in cases}
    for case in ROUNDS * cases:
        bare.append(bare_million())
        used[case].append(navtwine_million(*case))
    row("a million lines flat out, bare popen + fgets", f"{min(bare):.3f} s")
    for case, name, part, limit in (
            (cases[0], "without a client, default", 0, 2), (cases[1], "10 clients, default", 0, 4),
            (cases[1], "10 clients, the reader's part, default", 1, 2.5),
            (cases[2], "10 clients, the reader's part, --immediate", 1, 2.5)):
        at_most(f"a million lines flat out, {name}", min(of[part] for of in used[case]) / min(bare), limit,
                "{:.2f} times bare", 2)


def hundred_epochs_a_second():
    for count, limit in (100, 14), (0, 1.3):
        used = {mode: [] for mode in MODES}
        for mode in ROUNDS * MODES:
            with Served(mode, count, standin("GPSPIPE_RATE=100")) as navtwine:
                navtwine.read(1)
                began, before = time.monotonic(), navtwine.processor_seconds()
                navtwine.read(4)
                used[mode].append((navtwine.processor_seconds() - before) / (time.monotonic() - began) * 1000)
        default, immediate = (min(used[mode]) for mode in MODES)
        print(f"processor time a line: {default:.1f} us, --immediate {immediate:.1f} us")
        at_most(f"processor time a line at 100 epochs a second, clients: {count}, --immediate",
                immediate / default, limit, "{:.2f} times the default", 2)


# -- a receiver's real pace ----------------------------------------------------------------------------------

def system_calls():
    """A neighbour on the machine may delay the feed and cut an epoch in two: so an epoch is what is sent at once."""
    for mode, limits in zip(MODES, ({1: 10, 10: 25, 100: 220}, {1: 15, 10: 26, 100: 210})):
        curve = curves[mode] = {}
        for count, limit in limits.items():
            with Served(mode, count) as navtwine, tempfile.NamedTemporaryFile("r") as table:
                assert navtwine.read(60, navtwine.all_served), f"only {len(navtwine.served)} clients receive anything"
                with subprocess.Popen(["strace", "-f", "-c", "-U", "calls,name", "-o", table.name, "-p",
                                       str(navtwine.process.pid)], stderr=subprocess.DEVNULL) as strace:
                    assert eventually(lambda: all(navtwine.of_threads("TracerPid"))), "threads are not traced"
                    navtwine.read(6 if QUICK else 20)
                    strace.send_signal(signal.SIGINT)
                calls = {name: int(number) for number, name in re.findall(r"^ *(\d+) (\w+)$", table.read(), re.M)}
            curve[count] = calls["total"] / calls["sendto"] * count
            at_most(f"system calls an epoch at 1 Hz, clients: {count}, {mode}", curve[count], limit, "{:.1f}", 2)


def delays():
    """The most is judged beyond how late the machine makes a thread meanwhile that only sleeps."""
    seconds = 10 if QUICK else 60
    for rate in 1, 10:
        heard, streams = [], {}
        with Served("--immediate", 10, f"export RATE={rate} MESSAGES=14; {NUMBERED}") as navtwine, subprocess.Popen(
                f"cyclictest --quiet --laptop --smp --policy other --interval 2000 --duration {seconds}".split(),
                stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True) as machine:
            navtwine.hear = lambda *came: heard.append(came)
            navtwine.read(seconds)
            stalled = max(int(most) for most in re.findall(r"Max: *(\d+)", machine.communicate()[0])) / 1000
        for client, data, now in heard:
            streams.setdefault(client, Stream()).take(data, now)
        late = [ms for stream in streams.values() for ms in stream.late]
        lost = sum(stream.missing + stream.faults for stream in streams.values())
        median, most = statistics.median(late), max(late)
        limit = (20, 5000, len(late) // 100) if QUICK else (6, 15, 0)
        row(f"delay of 14 messages at {rate} Hz, 10 clients, --immediate: median, most, lost",
            f"{median:.1f} ms, {most:.1f} ms, {lost}",
            f"at most {limit[0]} ms, {limit[1]} ms beyond cyclictest's {stalled:.1f} ms, {limit[2]}",
            all(figure <= bound for figure, bound in zip((median, most - stalled, lost), limit)))


def idle():
    for mode, limit in zip(MODES, (12, 0.5)):
        resident = {}
        os.sync()  # pages of a program just built count as dirty until they are written
        with Served(mode, 0, SILENT) as navtwine:
            for count in 0, 10, 100, 1000:
                navtwine.add_clients(count - max(resident, default=0))
                navtwine.read(3)
                resident[count] = navtwine.resident()
                if count == 10:
                    before = sum(navtwine.of_threads("voluntary_ctxt_switches"))
                    navtwine.read(10)
                    woken = sum(navtwine.of_threads("voluntary_ctxt_switches")) - before
                    at_most(f"wake-ups a second, 10 idle clients, {mode}", woken / 10, limit, "{:.1f}", 1)
        at_most(f"resident without a client, {mode}", resident[0], 3500, "{:.0f} KiB", 1.15)
        at_most(f"resident for each further idle client, {mode}", (resident[1000] - resident[100]) / 900, 10,
                "{:.2f} KiB", 1.15)


# -- many at once, and too many ------------------------------------------------------------------------------

def burst():
    """Who gets into the kernel's queue of five is the scheduler's doing as well."""
    for count, least in (100, 50), (1000, 100):
        with Served("default", 0, standin("GPSPIPE_RATE=5")) as navtwine:
            navtwine.add_clients(count, 0)
            navtwine.read(10, navtwine.all_served)
            served = len(navtwine.served)
        row(f"{count} clients connect in one instant: served", served, f"at least {least}", served >= least)


def few_descriptors():
    with Served("default", 0, before="ulimit -n 64") as navtwine:
        navtwine.add_clients(100, 0)
        navtwine.read(1)
        before = navtwine.processor_seconds()
        navtwine.read(5)
        used = (navtwine.processor_seconds() - before) * 1000
        at_most("64 open files, 100 clients: processor time in 5 s", used, 50, "{:.0f} ms", 4)


def size():
    """The program is stripped there."""
    at_most("program for armhf", (ROOT / "build/armhf/navtwine").stat().st_size / 1024, 128, "{:.0f} KiB", 1)


# -- all of it -----------------------------------------------------------------------------------------------

def write_results():
    """bench/RESULTS.md, all but what stands there under headings of its own, and bench/figures.svg."""
    text = f"""# Measured

By `scripts/bench` on {datetime.date.today()}, one run: {os.cpu_count()} cores, {platform.platform()}.

The stand-in receiver sends ten sentences an epoch; all eight types are on, `--interval 1`. Processor time is the least
of {ROUNDS} rounds, in which everything takes turns.

![System calls by number of clients](figures.svg)

| figure | measured | limit | |
|---|---|---|---|
"""
    text += "".join(f"| {name} | {figure} | {limit} | {VERDICT[ok]} |\n" for name, figure, limit, ok in rows)
    _, heading, by_hand = RESULTS.read_text().partition("\n## ")
    RESULTS.write_text(text + heading + by_hand)
    lines = (f"'-' title '{mode}' with linespoints" for mode in MODES)
    points = ("".join(f"{count} {calls}\n" for count, calls in curves[mode].items()) + "e\n" for mode in MODES)
    subprocess.run(["gnuplot"], text=True, check=True, input=f"""
set terminal svg size 600,360 font 'sans-serif,13' background 'white'
set output '{RESULTS.parent}/figures.svg'
set logscale xy; set grid; set key left top; set xlabel 'clients'; set title 'system calls an epoch, 1 Hz'
plot {", ".join(lines)}
{"".join(points)}""")


def main():
    for figure in (start_up, flat_out, hundred_epochs_a_second, system_calls, delays, idle, burst, few_descriptors,
                   size):
        try:
            figure()
        except Exception as failure:
            row(figure.__name__, repr(failure), "a figure", False)
    if not QUICK:
        write_results()


run(main)
