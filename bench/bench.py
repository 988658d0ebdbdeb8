"""The figures of scripts/bench: one function each, whose rows end in the table of bench/RESULTS.md."""

import collections
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
from pathlib import Path

from harness import BUILD, OWN_THREADS, ROOT, STANDIN, VERDICT, Failed, Navtwine, row, \
    rows, run, wait_until

RESULTS = ROOT / "bench" / "RESULTS.md"
MILLION_LINES = {"GPSPIPE_RATE": "0", "GPSPIPE_EPOCHS": "100000"}
QUICK = "--quick" in sys.argv[1:]
ROUNDS = 1 if QUICK else 5
EPOCHS = 6 if QUICK else 20   # at 1 Hz, traced
BURSTS = 4 if QUICK else 10   # tries with each number of clients that connect in one instant
IMMEDIATE = ("--immediate",)
NOISE = 2 if QUICK else 1     # few repetitions beside busy neighbours: times may reach this multiple of their limit

curves = collections.defaultdict(dict)  # name: {number of clients: figure}, for the picture


def at_most(name, value, limit, form, remark=""):
    row(name, form.format(value), f"at most {form.format(limit)}{remark}", value <= limit)


class Clients:
    """Clients of a server without a password, who connect one after another. A context manager."""

    def __init__(self, navtwine, count, pause=0.005):
        self.selector = selectors.DefaultSelector()
        self.first = {}  # socket: when its first byte came
        self.hear = lambda client, data: None
        self.began = time.monotonic()
        self.sockets = [socket.socket() for _ in range(count)]
        for client in self.sockets:
            client.setblocking(False)
            client.connect_ex(("127.0.0.1", navtwine.port))
            self.selector.register(client, selectors.EVENT_READ)
            time.sleep(pause)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        for client in self.sockets:
            client.close()
        self.selector.close()

    def read(self, seconds, until=lambda: False):
        """Takes what comes for so long, or until `until()` is true: whether it is."""
        end = time.monotonic() + seconds
        while not (met := until()) and time.monotonic() < end:
            for key, _ in self.selector.select(0.05):
                if not (data := key.fileobj.recv(65536)):
                    raise Failed("the server ended a connection")
                self.hear(key.fileobj, data)
                self.first.setdefault(key.fileobj, time.monotonic())
        return met

    def all_served(self):
        return len(self.first) == len(self.sockets)


# -- flat out ------------------------------------------------------------------------------------------------

# Waits until the clients are there; the run after the measured one does nothing.
GATED_GPSPIPE = """#!/bin/sh
cd '{folder}'
if [ -e ran ]; then : >over; exec sleep 1000; fi
: >ran
while [ ! -e go ]; do sleep 0.05; done
exec '{standin}/gpspipe' "$@"
"""


def bare_million():
    environment = {**os.environ, **MILLION_LINES, "PATH": f"{STANDIN}:/usr/bin:/bin"}
    printed = subprocess.check_output(BUILD / "bench" / "bare_reader", env=environment, text=True, timeout=120)
    seconds, lines = printed.split()
    return float(seconds) * 1e6 / int(lines)


def navtwine_million(count, *options):
    """Processor seconds of the whole program, and of its reader."""
    with tempfile.TemporaryDirectory() as folder:
        gate = Path(folder, "gpspipe")
        gate.write_text(GATED_GPSPIPE.format(folder=folder, standin=STANDIN))
        gate.chmod(0o755)
        with Navtwine(*options, gpspipe=folder, **MILLION_LINES) as navtwine, Clients(navtwine, count) as clients:
            if not wait_until(lambda: navtwine.threads() == OWN_THREADS + count, 20):
                raise Failed(f"{navtwine.threads()} threads with {count} clients")
            before, reader = navtwine.processor_seconds(), navtwine.reader_seconds()
            Path(folder, "go").touch()
            if not clients.read(120, Path(folder, "over").exists) or not clients.all_served():
                raise Failed(f"a million lines do not come through in two minutes, {count} clients")
            return navtwine.processor_seconds() - before, navtwine.reader_seconds() - reader


def flat_out():
    limits = {0: 2, 1: 3, 10: 4, 100: 10}  # the last is no goal but a bound
    bare, ours, readers = [], {count: [] for count in limits}, []
    for _ in range(ROUNDS):
        bare.append(bare_million())
        for count in limits:
            ours[count].append(navtwine_million(count)[0])
        readers.append(navtwine_million(10, *IMMEDIATE)[1])
    base = statistics.median(bare)
    row("processor time per million lines, flat out: bare popen + fgets", f"{base:.3f} s")
    for count, limit in limits.items():
        at_most(f"  navtwine, clients: {count}", statistics.median(ours[count]) / base, limit * NOISE,
                "{:.2f} times bare")
    at_most("  ten clients", statistics.median(ours[10]), 1.5 * NOISE, "{:.2f} s")
    at_most("  the reader's part with ten clients and --immediate", statistics.median(readers) / base, 5 * NOISE,
            "{:.2f} times bare", "; the goal, 2.5, is missed: half goes into a wake-up a client for some 60 messages")


# -- a receiver's real pace ----------------------------------------------------------------------------------

@contextlib.contextmanager
def system_calls(navtwine):
    """{name of a system call: how often the process made it meanwhile}; "total" is the sum."""
    with tempfile.NamedTemporaryFile("r") as table:
        strace = subprocess.Popen(["strace", "-f", "-c", "-U", "calls,name", "-o", table.name, "-p", str(navtwine.pid)],
                                  stderr=subprocess.DEVNULL)
        calls = {}
        if not wait_until(lambda: traced_threads(navtwine) == navtwine.threads(), 20):
            raise Failed("strace does not get hold of all threads")
        yield calls
        strace.send_signal(signal.SIGINT)
        strace.wait(20)
        calls.update((name, int(count)) for count, name in re.findall(r"^ *(\d+) (\w+)$", table.read(), re.M))


def traced_threads(navtwine):
    status = [task.read_text() for task in Path(f"/proc/{navtwine.pid}/task").glob("*/status")]
    return sum("TracerPid:\t0\n" not in of_thread for of_thread in status)


def calls_at_real_pace():
    """What no neighbour on the machine can blur: one that delays the feed may cut an epoch in two, so that the limit is
    for each time that everybody is sent something."""
    for options, limits in (((), {1: 10, 10: 25, 100: 220}), (IMMEDIATE, {1: 10, 10: 45})):
        for count, limit in limits.items():
            with Navtwine(*options) as navtwine, Clients(navtwine, count) as clients:
                if not clients.read(60, clients.all_served):
                    raise Failed(f"only {len(clients.first)} of {count} clients received anything")
                with system_calls(navtwine) as calls:
                    clients.read(EPOCHS)
            kind = " ".join(options) or "default"
            total = calls["total"] / EPOCHS
            sends = calls["sendto"] / EPOCHS / count
            curves[f"calls, {kind}"][count] = total
            row(f"system calls an epoch at 1 Hz, clients: {count}, {kind}", f"{total:.1f}")
            at_most("  sends a client and epoch", sends, 2, "{:.2f}")
            at_most("  system calls for one send to everybody", total / sends, limit, "{:.1f}")


# -- immediate delivery --------------------------------------------------------------------------------------

def heard_of_epochs(rate, options):
    """Whole sentences that ten clients lost and heard, and how late they were in ms."""
    late, numbers, cut = [], {}, {}

    def hear(client, data):
        *lines, cut[client] = (cut.get(client, b"") + data).split(b"\n")
        for line in lines:
            _, number, written, _ = line.split(b",")
            numbers.setdefault(client, []).append(int(number))
            late.append((time.monotonic_ns() - int(written)) / 1e6)
    with Navtwine(*options, gpspipe=ROOT / "bench" / "epochs", RATE=str(rate)) as navtwine, \
            Clients(navtwine, 10) as clients:
        clients.read(2)
        clients.hear = hear
        clients.read(10 if QUICK else 60)
    heard = sum(map(len, numbers.values()))
    return sum(of[-1] - of[0] + 1 for of in numbers.values()) - heard, heard, late


def immediate():
    for rate in (1, 10):
        for options in ((), IMMEDIATE):
            lost, heard, late = heard_of_epochs(rate, options)
            row(f"14 messages an epoch, {rate} Hz, ten clients, {' '.join(options) or 'default'}: lost",
                f"{100 * lost / (lost + heard):.1f} %", "none" if options else "", lost == 0 if options else None)
            if options:
                at_most("  late, median", statistics.median(late), 8 * NOISE, "{:.1f} ms")
                at_most("  late, most", max(late), 500 if QUICK else 50, "{:.1f} ms")
            else:
                row("  late, median and most", f"{statistics.median(late):.0f}, {max(late):.0f} ms")
    for options, limit in (((), 12), (IMMEDIATE, 0.5)):
        with Navtwine(*options, GPSPIPE_RATE="0.0001") as navtwine, Clients(navtwine, 10) as clients:
            if not wait_until(lambda: navtwine.threads() == OWN_THREADS + 10, 20):
                raise Failed(f"{navtwine.threads()} threads with 10 clients")
            clients.read(2)
            before = navtwine.wake_ups()
            clients.read(10)
            at_most(f"wake-ups a second, ten idle clients, {' '.join(options) or 'default'}",
                    (navtwine.wake_ups() - before) / 10, limit, "{:.1f}")
    idle = memory_with((100, 1000), *IMMEDIATE, GPSPIPE_RATE="0.0001")
    at_most("resident for each further idle client, --immediate", for_each_further(idle, "Rss"),
            11.5 if QUICK else 10.5, "{:.2f} KiB")


# -- memory and threads --------------------------------------------------------------------------------------

def memory_with(counts, *options, **environment):
    """{number of clients: figures} of one process."""
    os.sync()  # pages of a program just built count as dirty until they are written
    figures = {}
    with Navtwine(*options, **environment) as navtwine, contextlib.ExitStack() as stack:
        for count in counts:
            clients = stack.enter_context(Clients(navtwine, count - max(figures, default=0)))
            if not wait_until(lambda: navtwine.threads() == OWN_THREADS + count, 30):
                raise Failed(f"{navtwine.threads() - OWN_THREADS} handlers for {count} clients")
            clients.read(5 if QUICK else 10)  # the others' sockets hold more than comes meanwhile
            figures[count] = {**navtwine.memory(), "threads": navtwine.threads()}
    return figures


def for_each_further(figures, key):
    return (figures[1000][key] - figures[100][key]) / 900


def memory():
    figures = memory_with((0, 10, 100, 1000))
    for count, of in figures.items():
        curves["resident KiB"][count] = of["Rss"]
        row(f"memory and threads at 1 Hz, clients: {count}",
            f"{of['Rss']} KiB, {of['Private_Dirty']} dirty, {of['threads']} threads")
    at_most("  resident without a client", figures[0]["Rss"] / 1024, 3.5, "{:.2f} MiB")
    at_most("  of which Private_Dirty", figures[0]["Private_Dirty"], 300, "{:.0f} KiB")
    at_most("  threads for each further client, 100 to 1,000", for_each_further(figures, "threads"), 1, "{:.2f}")
    row("  resident for each further client, waiting sentences and all",
        f"{for_each_further(figures, 'Rss'):.1f} KiB")
    idle = memory_with((100, 1000), GPSPIPE_RATE="0.0001")
    at_most("  resident for each further idle client, 100 to 1,000", for_each_further(idle, "Rss"),
            11 if QUICK else 10.25, "{:.2f} KiB", "; the goal, 10, is missed by a hair")
    at_most("  address space for each, heap and guard page included", for_each_further(idle, "VmSize"), 256,
            "{:.0f} KiB")


# -- many at once, and too many ------------------------------------------------------------------------------

def served_of_burst(count):
    """When each client that is served at all receives first, of `count` that connect in the same instant."""
    with Navtwine(GPSPIPE_RATE="5") as navtwine, Clients(navtwine, count, pause=0) as clients:
        clients.read(2.5 if count < 1000 else 10, clients.all_served)
        return sorted(moment - clients.began for moment in clients.first.values())


def bursts():
    # Who gets into the kernel's queue of five is the scheduler's doing as well: the goal is for a quiet machine.
    for count, goal in ((20, "80 %"), (50, "80 %"), (100, "50 %")):
        served = [served_of_burst(count) for _ in range(BURSTS)]
        whole = sum(len(moments) == count for moments in served)
        row(f"{count} clients connect in one instant: tries in which all are served", f"{whole} of {BURSTS}",
            f"the goal is {goal}")
        mean = statistics.mean(len(moments) for moments in served)
        row("  served of them, on average", f"{mean:.1f}", f"at least {count // 2}", mean >= count / 2)
    moments = served_of_burst(1000)
    row("1,000 clients connect in one instant: served", len(moments),
        "at least 100; the goal, 400, is missed at times", len(moments) >= 100)
    at_most("  until the last of those receives", max(moments, default=0), 5 * NOISE, "{:.1f} s")


def few_descriptors():
    with Navtwine(prefix=["prlimit", "--nofile=64"]) as navtwine, Clients(navtwine, 100) as clients:
        before = navtwine.processor_seconds()
        clients.read(5)
        at_most("64 open files, 100 clients: processor time in 5 s",
                (navtwine.processor_seconds() - before) * 1000, 50 * NOISE, "{:.0f} ms")


# -- start and size ------------------------------------------------------------------------------------------

def start_up():
    times = []
    for _ in range(5 if QUICK else 20):
        began = time.monotonic()
        with Navtwine():
            times.append((time.monotonic() - began) * 1000)
    row("start-up, from fork to a port that takes clients", f"{statistics.median(times):.1f} ms")


def size():
    armhf = ROOT / "build" / "armhf" / "navtwine"  # is stripped
    at_most("program for armhf", armhf.stat().st_size / 1024, 128, "{:.0f} KiB")


# -- all of it -----------------------------------------------------------------------------------------------

def machine():
    memory_kib = int(Path("/proc/meminfo").read_text().split()[1])
    compiler = subprocess.check_output(["c++", "--version"], text=True).splitlines()[0]
    return (f"{os.cpu_count()} cores, {platform.machine()}, {memory_kib / 2**20:.0f} GiB, "
            f"{platform.freedesktop_os_release()['PRETTY_NAME']}, Linux {platform.release()}, {compiler}")


def write_results():
    """All but what stands under headings of its own, which other scripts found."""
    text = f"""# Measured

By `scripts/bench` on {datetime.date.today()}, one run: {machine()}.

The stand-in receiver sends ten sentences an epoch; all eight types are on, `--interval 1`. Flat out: medians of
{ROUNDS} rounds, in each of which the bare loop and navtwine take turns.

![System calls and memory by number of clients](figures.svg)

| figure | measured | limit | |
|---|---|---|---|
"""
    for name, figure, limit, ok in rows:
        text += f"| {name.replace('  ', '&emsp;')} | {figure} | {limit} | {VERDICT[ok]} |\n"
    _, heading, by_hand = RESULTS.read_text().partition("\n## ")
    RESULTS.write_text(text + heading + by_hand)


def draw():
    """bench/figures.svg: what a client costs."""
    data = "".join(f"${name}<<E\n" + "".join(f"{x} {y}\n" for x, y in curve.items() if x) + "E\n"
                   for name, curve in zip("abc", curves.values()))
    first, second, memory = curves
    subprocess.run(["gnuplot"], text=True, check=True, input=f"""{data}
set terminal svg size 900,360 font 'sans-serif,13' background 'white'
set output '{RESULTS.parent}/figures.svg'
set multiplot layout 1,2
set logscale xy; set grid; set key left top; set xlabel 'clients'; set style data linespoints
set title 'system calls an epoch, 1 Hz'
plot $a title '{first}', $b title '{second}'
set title 'memory'
plot $c title '{memory}'
""")


def main():
    print(f"{machine()}; load {os.getloadavg()[0]:.1f}")
    for figure in (start_up, flat_out, calls_at_real_pace, immediate, memory, bursts, few_descriptors, size):
        try:
            figure()
        except (Failed, OSError) as failure:
            row(figure.__name__, str(failure), "a figure", False)
    if not QUICK:
        write_results()
        draw()


run(main)
