# The serial line, which is a pseudo-terminal.
import os
import termios
import time
from pathlib import Path

import pytest
from harness import REPEAT, SERVER, Program, runs

FLOOD = "exec yes \"$(printf '$GPGGA,%0480d' 0)\""


@pytest.mark.parametrize("gpspipe, arguments, faults", (
    ("exec sleep 1000", SERVER, ""),
    (FLOOD, SERVER, ""),
    (FLOOD, SERVER.replace("-e ", ""), "navtwine:connect:0:EAGAIN"),
), ids=("idle", "blocked", "blockedAndHard"))
def test_end_empties_the_line(gpspipe, arguments, faults):
    """With EAGAIN the system log's socket is there, and busy."""
    with Program(arguments + "--serial $LINE", gpspipe, faults) as program:
        assert program.says("RS485 configurating error. errno:")
        termios.tcflow(program.line_port, termios.TCOOFF)
        time.sleep(3.5)  # the thread looks once a second, and is blocked with the next batch
        if faults:  # after five seconds: the stalled log holds the server
            assert "[syslog 6]INFO: Starting executable: " in program.output()
            program.last = f"[tcflush {termios.TCOFLUSH}]\n"
            program.touch("stalled-log")
            program.connect()
        program.interrupt(9 if faults else 4.5)
        assert f"[tcflush {termios.TCOFLUSH}]\n" in program.output()
        assert ("execution complete" in program.output()) != bool(faults)
        assert not runs(program.gpspipe())


@pytest.mark.parametrize("arguments, mode, speed, frame, kept", (
    ("--rs485", "INFO: RS485 mode\n[rs485 3]\n", termios.B115200, "[line 60]\n", 0),
    ("--baud 57600 --datalength 7 --parity odd --stopbits 2 --hwflow", "INFO: RS232 mode\n[rs485 2]\n", termios.B57600,
     "[line 1440]\n", termios.PARODD | termios.CSTOPB | termios.CRTSCTS),
), ids=("rs485", "rs232"))
def test_settings_are_those_of_the_command_line(arguments, mode, speed, frame, kept):
    """Of the settings of the port's last user only those that the driver decides remain."""
    chosen = termios.PARODD | termios.CSTOPB | termios.CRTSCTS
    with Program(f"-e --loglevel 50 --interval 1 --gga --serial $LINE {arguments}", REPEAT, "",
                 "until [ -e go ]; do sleep 0.1; done") as program:
        found = termios.tcgetattr(program.line_port)
        found[2] ^= chosen
        termios.tcsetattr(program.line_port, termios.TCSANOW, found)
        program.touch("go")
        assert program.line.read_until("\n").startswith("$GPGGA,1\n"), "raw: no CR comes in between"
        assert program.says("DEBUG: serial:$GPGGA,1\n")
        assert f"INFO: serial port opened\n{frame}[tcflush 2]\n{mode}" in program.output()
        found = termios.tcgetattr(program.line_port)
        assert found[2] & (chosen | termios.CLOCAL | termios.CREAD) == kept | termios.CREAD
        assert found[4:6] == [speed, speed]
        number, = (number for number, file in program.descriptors().items() if file == program.device)
        flags = int(Path(f"/proc/{program.process.pid}/fdinfo/{number}").read_text().split()[3], 8)
        assert flags & (os.O_NONBLOCK | os.O_CLOEXEC) == os.O_CLOEXEC
        program.line.stream.close()
        assert program.says("ERROR: serial write() of [NMEA STRING DATA] failed : error code = 5 : Input/output")
