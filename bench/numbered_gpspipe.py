#!/usr/bin/env python3
"""A gpspipe that sends RATE epochs a second of MESSAGES lines each: $GPxxx,NUMBER,NUMBER,WRITTEN,padding

The number goes on rising when another gpspipe is started, and says how long the padding is. It stands where a GSV
sentence counts, so that each of these is a whole group. WRITTEN is the time since the machine started, in ns."""

import os
import random
import time

messages = int(os.environ["MESSAGES"])
number = time.monotonic_ns() // 1_000_000
while True:
    time.sleep(1 / float(os.environ["RATE"]))
    names = random.choices(["GGA", "RMC", "GSA", "ZDA", "GBS", "GLL", "GSV", "VTG"], k=messages)
    written = time.monotonic_ns()
    os.write(1, b"".join(b"$GP%s,%d,%d,%d,%s\r\n" % (name.encode(), at, at, written, at % 400 * b"0")
                         for at, name in enumerate(names, number)))
    number += messages
