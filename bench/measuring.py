"""What bench, soak and chain share: the tests' program with its figures from /proc, numbered lines, the results."""

import contextlib
import re
import signal
import sys
import time
from pathlib import Path

from harness import NAVTWINE, Program

ROOT = Path(__file__).resolve().parent.parent
BUILD = Path(NAVTWINE[0]).parent
NUMBERED = f"exec '{ROOT}/bench/numbered_gpspipe.py'"
VERDICT = {None: "", True: "ok", False: "FAILED"}

rows = []


def row(name, figure, limit="", ok=None):
    """Adds a row to the results; `ok`: whether the figure keeps its limit, None when it has none."""
    rows.append((name, figure, limit, ok))
    print(f"{name:<76} {figure!s:>26}  {limit:<30} {VERDICT[ok]}", flush=True)


def run(main):
    """Ends the process: with status 0 when `main` returns and every row is well."""
    signal.signal(signal.SIGTERM, signal.default_int_handler)  # so that what was started is ended
    main()
    if bad := [name for name, _, _, ok in rows if ok is False]:
        sys.exit(f"FAILED: {'; '.join(bad)}")


def standin(*settings):
    """The line of a gpspipe that is the stand-in, with these settings in its environment."""
    return f"exec env {' '.join(settings)} '{BUILD}/tools/gpspipe' \"$@\""


class Navtwine(Program):
    """The program with its server, all types and no interval, from when it listens. Its last words do not matter."""

    def __init__(self, options="", gpspipe=standin(), before=":"):
        super().__init__("--server --server-port $PORT -e --interval 1 --gga --rmc --gsa --zda --gbs --gll --gsv --vtg "
                         + options, gpspipe, before=f"unset MALLOC_PERTURB_ GLIBC_TUNABLES; {before}")
        self.last = ""
        self.own_threads = 0

    def __enter__(self):
        assert self.says("waiting for client") and self.gpspipe(), f"navtwine does not listen: {self.output()}"
        self.own_threads = self.handlers()  # gpspipe starts after them
        return self

    def __exit__(self, *failure):
        with contextlib.redirect_stdout(None):  # thousands of clients make a long log
            super().__exit__(*failure)

    def interrupt(self, limit=30.0):
        super().interrupt(limit)

    def tasks(self):
        return list(Path(f"/proc/{self.process.pid}/task").iterdir())

    def handlers(self):
        """How many clients have a thread."""
        return len(self.tasks()) - self.own_threads

    def processor_seconds(self):
        """Of all its threads, those that have ended too: the clock that clock_getcpuclockid(3) gives."""
        return time.clock_gettime(~self.process.pid << 3 | 2)

    def reader_seconds(self):
        main_thread = Path(f"/proc/{self.process.pid}/task/{self.process.pid}/schedstat")
        return int(main_thread.read_text().split()[0]) / 1e9

    def of_threads(self, field):
        """A number from each thread's status."""
        return [int(re.search(rf"^{field}:\s(\d+)", (task / "status").read_text(), re.M)[1]) for task in self.tasks()]

    def resident(self):
        """KiB."""
        return int(re.search(r"Rss: +(\d+)", Path(f"/proc/{self.process.pid}/smaps_rollup").read_text())[1])


class Stream:
    """What one consumer gets of numbered_gpspipe.py."""

    def __init__(self):
        self.rest, self.last, self.faults = b"", 0, 0
        self.count_anew()

    def count_anew(self):
        self.lines, self.missing, self.late = 0, 0, []

    def take(self, data, now):
        """Every line must be whole, and its number above the last one's. `now` and the stamps are ns, `late` is ms."""
        *lines, self.rest = (self.rest + data).split(b"\r\n")
        for line in lines:
            found = re.fullmatch(rb"\$GP[A-Z]{3},(\d+),\1,(\d+),(0*)", line)
            number = int(found[1]) if found else 0
            if number <= self.last or len(found[3]) != number % 400:
                self.faults += 1
                continue
            self.missing += number - self.last - 1 if self.lines else 0
            self.last = number
            self.lines += 1
            self.late.append((now - int(found[2])) / 1e6)
