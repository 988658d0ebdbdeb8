#!/usr/bin/env python3
"""A gpspipe whose lines are numbered, three a second: $GPxxx,NUMBER,NUMBER,padding*hh

The number is the time in thirds of a second since the machine started: it says how old a line is, and goes on rising
when another gpspipe is started. It stands where a GSV sentence counts, so that each of these is a whole group."""

import os
import random
import time
from functools import reduce
from operator import xor

number = int(time.monotonic() * 3)
while True:
    number += 1
    time.sleep(max(0, number / 3 - time.monotonic()))
    name = random.choice(["GGA", "RMC", "GSA", "ZDA", "GBS", "GLL", "GSV", "VTG"])
    body = f"GP{name},{number},{number},{'0' * random.randrange(200, 450)}"
    os.write(1, f"${body}*{reduce(xor, body.encode()):02X}\r\n".encode())
