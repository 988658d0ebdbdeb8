"""The real chain, as scripts/chain tells it. Status 0 only when the second gpsd reports what was fed."""

import contextlib
import datetime
import json
import os
import pty
import re
import signal
import socket
import subprocess
import sys
import threading
import time
import tty

from harness import STANDIN, Failed, Navtwine, end_process, free_port, is_listening, wait_until

GPSD_PORT = 2947  # where gpspipe looks for gpsd
EPOCHS = 20       # fed, of a longer log the first
PERIOD = 1.0      # seconds from one epoch to the next
NEAR = 2e-6       # degrees: a digit in the fourth decimal of the minutes
TIME_FIELD = {"RMC": 1, "GGA": 1, "GNS": 1, "ZDA": 1, "GBS": 1, "GLL": 5}
LATITUDE_FIELD = {"RMC": 3, "GGA": 2, "GLL": 1}


def fields_of(line):
    return line[line.index("$"):].split("*")[0].split(",")


def epochs_of(lines):
    """Groups NMEA lines: an epoch begins where the time in the sentences changes."""
    epochs, last_time = [], None
    for line in lines:
        fields = fields_of(line)
        column = TIME_FIELD.get(fields[0][-3:])
        when = fields[column] if column and column < len(fields) else ""
        if not epochs or (when and when != last_time):
            epochs.append([])
        last_time = when or last_time
        epochs[-1].append(line[line.index("$"):].strip() + "\r\n")
    return epochs


def degrees(angle, hemisphere):
    point = angle.index(".")
    value = int(angle[:point - 2] or 0) + float(angle[point - 2:]) / 60
    return -value if hemisphere in "SW" else value


def positions_in(epochs):
    """{seconds since 1970: the positions that the epoch's sentences give}, for epochs with a valid RMC."""
    truth = {}
    for epoch in epochs:
        all_fields = [fields_of(line) for line in epoch]
        fixes = [f for f in all_fields if f[0].endswith("RMC") and f[2] == "A" and f[3]]
        if not fixes:
            continue
        clock, date = fixes[0][1], fixes[0][9]
        moment = datetime.datetime.strptime(date + clock[:6] + "+0000", "%d%m%y%H%M%S%z")
        seconds = moment.timestamp() + float("0" + clock[6:])
        truth[round(seconds, 2)] = [
            (degrees(*f[c:c + 2]), degrees(*f[c + 2:c + 4]))
            for f in all_fields if (c := LATITUDE_FIELD.get(f[0][-3:])) and f[c]]
    return truth


def read_log(arguments):
    if arguments:
        with open(arguments[0], encoding="latin-1") as recording:
            lines = recording.readlines()
    else:
        printed = subprocess.run([STANDIN / "gpspipe", "-r"], capture_output=True, text=True, check=True,
                                 timeout=20, env={**os.environ, "GPSPIPE_RATE": "0",
                                                  "GPSPIPE_EPOCHS": str(EPOCHS)})
        lines = printed.stdout.splitlines()
    epochs = epochs_of([line for line in lines if re.search(r"\$[A-Z]{2,}[A-Z0-9]*,", line)])[:EPOCHS]
    truth = positions_in(epochs)
    if len(truth) < 5:
        raise Failed(f"the log holds {len(truth)} epochs with a valid RMC: 5 are needed")
    return epochs, truth


def real_gpspipe():
    """The folder of the real gpspipe."""
    for folder in ("/usr/bin", "/usr/local/bin"):
        with contextlib.suppress(OSError, subprocess.TimeoutExpired):
            version = subprocess.run([f"{folder}/gpspipe", "-V"], capture_output=True, text=True, timeout=5)
            if "revision" in version.stdout + version.stderr:
                print("gpspipe:        ", (version.stdout + version.stderr).strip())
                return folder
    raise Failed("no real gpspipe (Debian's gpsd-clients) is installed")


class Receiver:
    """The pseudo-terminal that the first gpsd takes for its receiver."""

    def __init__(self):
        self.master, self.slave = pty.openpty()
        tty.setraw(self.slave)
        os.chmod(os.ttyname(self.slave), 0o666)  # gpsd gives root's rights up
        self.device = os.ttyname(self.slave)
        threading.Thread(target=self._swallow_probes, daemon=True).start()

    def _swallow_probes(self):
        with contextlib.suppress(OSError):
            while os.read(self.master, 4096):
                pass

    def feed(self, epochs):
        for epoch in epochs:
            os.write(self.master, "".join(epoch).encode("latin-1"))
            time.sleep(PERIOD)


def start_gpsd(stack, port, source):
    log = stack.enter_context(open(os.devnull, "wb"))
    gpsd = subprocess.Popen(["/usr/sbin/gpsd", "-N", "-n", "-S", str(port), source],
                            stdin=subprocess.DEVNULL, stdout=log, stderr=log)
    stack.callback(end_process, gpsd)
    if not wait_until(lambda: gpsd.poll() is not None or is_listening(port), 10) or gpsd.poll() is not None:
        raise Failed(f"gpsd does not listen on port {port} (status {gpsd.poll()})")


def collect_reports(port, reports):
    """Appends the TPV reports with a position; in a thread of its own until gpsd ends."""
    with contextlib.suppress(OSError), socket.create_connection(("127.0.0.1", port)) as gpsd:
        gpsd.sendall(b'?WATCH={"enable":true,"json":true};\n')
        for line in gpsd.makefile():
            report = json.loads(line)
            if report["class"] == "TPV" and {"time", "lat", "lon"} <= report.keys():
                reports.append(report)


def compare(reports, truth):
    """The epochs that were reported rightly. Raises Failed at the first report that is wrong."""
    right = {}
    for report in reports:
        moment = datetime.datetime.fromisoformat(report["time"].replace("Z", "+00:00"))
        seconds, here = round(moment.timestamp(), 2), (report["lat"], report["lon"])
        if seconds not in truth:
            raise Failed(f"the second gpsd reports a time that was not fed: {report['time']}")
        if not any(max(abs(a - b) for a, b in zip(here, fed)) < NEAR for fed in truth[seconds]):
            raise Failed(f"at {report['time']} the second gpsd reports {here}, fed was {truth[seconds][0]}")
        right[seconds] = here
    if len(right) < max(5, len(truth) // 2):
        raise Failed(f"the second gpsd reported {len(right)} of {len(truth)} epochs")
    first, last = min(right), max(right)
    if truth[first] != truth[last] and right[first] == right[last]:
        raise Failed("the reported position does not move")
    return right


def run(stack, arguments):
    epochs, truth = read_log(arguments)
    print(f"receiver log:     {len(epochs)} epochs, {len(truth)} of them with a valid fix")
    folder = real_gpspipe()
    with contextlib.closing(socket.socket()) as probe:
        probe.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        try:
            probe.bind(("127.0.0.1", GPSD_PORT))
        except OSError as error:
            raise Failed(f"port {GPSD_PORT} is taken, by a gpsd of this machine perhaps; gpspipe looks for "
                         f"the one of this test there ({error.strerror})") from error

    receiver = Receiver()
    start_gpsd(stack, GPSD_PORT, receiver.device)
    navtwine = stack.enter_context(Navtwine(path=folder)).wait_until_listening()
    second_port = free_port()
    start_gpsd(stack, second_port, f"tcp://127.0.0.1:{navtwine.port}")
    reports = []
    threading.Thread(target=collect_reports, args=(second_port, reports), daemon=True).start()
    time.sleep(2)  # the second gpsd's connection, and gpspipe's, are up
    print(f"feeding:          {receiver.device} -> gpsd :{GPSD_PORT} -> gpspipe -> navtwine :{navtwine.port} "
          f"-> gpsd :{second_port}", flush=True)
    receiver.feed(epochs)
    time.sleep(3)  # a consumer wakes once a second
    right = compare(list(reports), truth)
    status = navtwine.stop()
    if status != 0:
        raise Failed(f"navtwine ended with status {status}")
    last = max(right)
    print(f"reported rightly: {len(right)} of {len(truth)} epochs, {len(reports)} reports; the last at "
          f"{datetime.datetime.fromtimestamp(last, datetime.timezone.utc):%H:%M:%S} UTC: "
          f"{right[last][0]:.6f} {right[last][1]:.6f}")
    print("chain: OK")


def main():
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(1))
    try:
        with contextlib.ExitStack() as stack:
            run(stack, sys.argv[1:])
    except (Failed, OSError) as failure:
        print(f"chain: FAILED: {failure}", file=sys.stderr)
        return 1
    return 0


sys.exit(main())
