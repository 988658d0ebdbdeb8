# The serial line, which is a pseudo-terminal.
import os
import termios
import time

import pytest
from harness import Program, SerialLine, runs

FLOOD = "exec yes \"$(printf '$GPGGA,%0480d' 0)\""


@pytest.mark.parametrize("gpspipe, arguments, hard", (
    ("exec sleep 1000", " -e", False),
    (FLOOD, " -e", False),
    (FLOOD, " --server --server-port $PORT", True),  # after five seconds: a stalled system log holds the server
), ids=("idle", "blocked", "blockedAndHard"))
def test_end_empties_the_line(gpspipe, arguments, hard):
    line = SerialLine()  # that nobody reads
    with Program(f"--interval 1 --gga --serial {line.device}{arguments}", gpspipe,
                 "navtwine: connect EAGAIN") as program:  # EAGAIN: a busy log socket is there
        assert program.says("RS485 configurating error. errno:")
        termios.tcflow(line.port, termios.TCOOFF)
        time.sleep(2.5)  # the thread looks once a second, and is blocked with the next batch
        if hard:
            program.last = f"[tcflush {termios.TCOFLUSH}]\n"
            program.touch("stalled-log")
            program.connect()
        program.interrupt(9 if hard else 4.5)
        assert f"[tcflush {termios.TCOFLUSH}]\n" in program.output()
        assert ("execution complete" in program.output()) != hard
        assert ("INFO: Serial stop\n" in program.output()) == (gpspipe != FLOOD)
        assert not runs(program.gpspipe())


@pytest.mark.parametrize("arguments, mode, speed, told, kept", (
    ("--rs485", "INFO: RS485 mode\n[rs485 3]\n", termios.B115200, "[line 60]\n", 0),
    ("--baud 57600 --datalength 7 --parity odd --stopbits 2 --hwflow", "INFO: RS232 mode\n[rs485 2]\n", termios.B57600,
     "[line 1440]\n", termios.PARODD | termios.CSTOPB | termios.CRTSCTS),
), ids=("rs485", "rs232"))
# Of what the port's last user has left behind only what the driver decides stays.
def test_settings_are_those_of_the_command_line(arguments, mode, speed, told, kept):
    line = SerialLine()
    chosen = termios.PARODD | termios.CSTOPB | termios.CRTSCTS
    found = termios.tcgetattr(line.port)
    found[2] ^= chosen
    termios.tcsetattr(line.port, termios.TCSANOW, found)
    with Program(f"-e --loglevel 50 --interval 1 --gga --serial {line.device} {arguments}",
                 "while echo '$GPGGA,1'; do sleep 0.2; done", "") as program:
        assert line.read_until("\n").startswith("$GPGGA,1\n"), "raw: no CR comes in between"
        assert program.says("DEBUG: serial:$GPGGA,1\n")
        assert f"INFO: serial port opened\n{told}[tcflush 2]\n{mode}" in program.output()
        found = termios.tcgetattr(line.port)
        assert found[2] & (chosen | termios.CLOCAL) == kept
        assert found[4:6] == [speed, speed]
        number, = (number for number, file in program.descriptors().items() if file == line.device)
        with open(f"/proc/{program.process.pid}/fdinfo/{number}") as info:
            flags = int(next(text.split()[1] for text in info if text.startswith("flags:")), 8)
        assert flags & (os.O_NONBLOCK | os.O_CLOEXEC) == os.O_CLOEXEC
        line.stream.close()
        assert program.says("ERROR: serial write() of [NMEA STRING DATA] failed : error code = 5 : Input/output")
