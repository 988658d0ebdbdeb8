#!/usr/bin/env python3
"""A gpspipe whose lines are numbered, five a second: $GPxxx,NUMBER,MILLISECONDS,padding*hh

In the folder it is started from by the path (the soak's own): `ledger` holds "RUN NUMBER MILLISECONDS" for every
line, written before the line is printed; numbers go on where the last run ended."""

import os
import random
import sys
import time
from functools import reduce
from pathlib import Path

folder = Path(sys.argv[0]).parent
ledger = os.open(folder / "ledger", os.O_RDWR | os.O_CREAT | os.O_APPEND, 0o644)
size = os.fstat(ledger).st_size
last = os.pread(ledger, 100, max(0, size - 100)).split(b"\n")[-2].split() if size else (b"0", b"0")
run, number = int(last[0]) + 1, int(last[1])
(folder / "gpspipe.pid").write_text(str(os.getpid()))
names = ["GGA", "RMC", "GSA", "ZDA", "GBS", "GLL", "VTG"]

while True:
    number += 1
    now = time.monotonic_ns() // 1_000_000
    body = f"GP{random.choice(names)},{number},{now},{'0' * random.randrange(10, 420)}"
    line = f"${body}*{reduce(lambda total, byte: total ^ byte, body.encode(), 0):02X}\r\n"
    os.write(ledger, f"{run} {number} {now}\n".encode())
    os.write(1, line.encode())
    time.sleep(0.2)
