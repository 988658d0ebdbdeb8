# Start, log and end of the program.
import fcntl
import os
import re
import signal
import time
from pathlib import Path

import pytest
from harness import NAVTWINE, SERVER, Peer, Program, SerialLine, eventually, runs

LIFECYCLE = f"INFO: Starting executable: {''.join(NAVTWINE[-1:])}\nINFO: execution complete\n"
USAGE = (r"\nusage: navtwine \[OPTIONS\]\n\nOPTIONS:\n --\[no-\]daemonize\n.*server-port PORT .default: 5445.*udp "
         r".default: tcp.*client-port PORT .default: 5445.*default: 115200.*7.8 default: 8.*: none.*1.2 default: 1."
         r".*INTERVAL .default: 10.*\n --loglevel .1-100 default 30. \n -e  use stderr for log .default: disabled.\n\n")


def test_ends_at_once_without_work():
    for arguments, status, expected in (
            ("", 0, USAGE),
            ("--server --id -h", 0, USAGE),
            ("--help -e", 0, USAGE),
            ("--baud 09600 --stopbits 7", 1, re.escape("Invalid baud value 09600[ABORTING EXECUTION]\n")),
            ("--stopbits two", 1, re.escape("Invalid stop value two[ABORTING EXECUTION]\n")),
            ("--datalength 9", 1, re.escape("Invalid datalength value 9[ABORTING EXECUTION]\n")),
            ("--client-protocol sctp", 1, re.escape("Unknown protocol SCTP[ABORTING EXECUTION]\n")),
            ("--gga --serial '' -e", 0, LIFECYCLE),
            ("--gga --serial '' -e --loglevel 10", 0, ""),
            ("--gga --serial ''", 0,
             "" if Path("/dev/log").exists() else "ERROR: Unable to log to Syslog\n" + LIFECYCLE),
            ("-e --serial /dev/none", 1, ".*ERROR: failed to open /dev/none: errno: 2\n.*")):
        with Program(arguments, "touch started") as program:
            assert program.process.wait(30) == status, arguments
            assert re.fullmatch(expected, program.output(), re.DOTALL), arguments
            assert status or not (program.folder / "started").exists(), arguments


@pytest.mark.parametrize("gpspipe", (
    "exec sleep 1000", "exit 1", "exec yes '$GPGGA,1'", "exec cat /dev/urandom", "exec cat /dev/zero",
    "trap '' INT TERM HUP; while :; do sleep 1; done",
), ids=("silent", "gone", "flood", "random", "zeros", "deaf"))
# The other signals end gpspipe at most, and SIGINT ends everything in time.
def test_gpspipe_ends_with_the_program(gpspipe):
    with Program(SERVER + "--gsv", gpspipe) as program:
        program.connect()
        first = program.gpspipe()
        for ignored in (signal.SIGPIPE, signal.SIGALRM, signal.SIGHUP):
            program.process.send_signal(ignored)
            time.sleep(0.2)
            assert program.process.poll() is None, ignored
        assert "sleep" not in gpspipe or eventually(lambda: program.gpspipe() != first), "no other gpspipe"
        program.interrupt()
        assert eventually(lambda: not runs(first) and not runs(program.gpspipe())), "gpspipe stays behind"


def test_strangers_are_left_alone():
    with Program(SERVER, "setsid sh -c 'echo $$ >pid; exec sleep 1000' & exec sleep 1000") as program:
        main = program.gpspipe()
        assert eventually(lambda: program.gpspipe() != main or os.getsid(program.gpspipe()) == program.gpspipe())
        program.interrupt()
        assert runs(program.gpspipe()), "it has gpspipe's pipe, but is of another process group"
        os.kill(program.gpspipe(), signal.SIGKILL)


# A client's socket must not get the number of a standard stream, and with it the log.
def assert_standard_streams(process):
    for stream in range(3):
        assert os.readlink(f"/proc/{process}/fd/{stream}") == "/dev/null"


def test_standard_streams_that_are_closed_are_opened():
    with Program(SERVER + "<&- >&- 2>&-", "while echo '$GPGGA,1'; do sleep 0.2; done") as program:
        program.last = ""
        assert program.connect().read_until("\n").startswith("$GPGGA,1\n")
        assert_standard_streams(program.process.pid)


def test_daemonizes():
    with Program(SERVER + "--daemonize") as program:
        assert program.process.wait(30) == 0
        daemon = os.getsid(program.gpspipe())  # which leads the session of its own that it made
        assert daemon not in (0, 1, os.getsid(0))
        program.connect()
        assert_standard_streams(daemon)
        assert os.readlink(f"/proc/{daemon}/cwd") == str(program.folder)
        os.kill(daemon, signal.SIGINT)
        assert eventually(lambda: not runs(daemon))


def test_messages_are_filed_as_a_daemons_by_their_level():
    with Program("--loglevel 50 --gga --serial /dev/none", faults="navtwine: connect EAGAIN") as program:
        assert program.process.wait(30) == 1
        assert "[openlog navtwine 24]\n[syslog 6]INFO: Starting executable: " in program.output()
        assert "[syslog 3]ERROR: failed to open /dev/none: errno: 2\n" in program.output()


def test_lines_are_read_as_gpspipe_prints_them():
    with Program(SERVER, r"""until [ -e go ]; do sleep 0.1; done
                 printf '$GPGGA,%s\r\n' "$*"; printf '$GPGGA,a\0b\n$GPGGA%0700d\n$GPGGA,end' 0""") as program:
        client = program.connect()
        assert program.says("trying to connect")
        time.sleep(1)
        program.touch("go")
        text = f"$GPGGA,-r\r\n$GPGGA,a$GPGGA{505 * '0'}$GPGGA,end"  # to the NUL, 511 bytes at most, without an end
        assert client.read_until("end$GPGGA,-r").startswith(text + "$GPGGA,-r")


# Lines are lost, and the next one begins on its own.
@pytest.mark.parametrize("kind", ("pipe", "terminal"))
def test_log_that_nobody_reads_holds_nobody_up(kind):
    terminal = SerialLine()
    with Program(f"{SERVER} --loglevel 50 2>{terminal.device if kind == 'terminal' else 'log'}",
                 "while printf '$GPGGA,%0480d\n' 0; do sleep 0.05; done", before="mkfifo log") as program:
        program.last = ""
        assert eventually((program.folder / "log").exists)
        log = terminal
        if kind == "pipe":
            log = Peer(open(os.open(program.folder / "log", os.O_RDONLY | os.O_NONBLOCK), "rb", buffering=0))
            fcntl.fcntl(log.stream, fcntl.F_SETPIPE_SZ, 4096)
        client = program.connect()
        for _ in range(4):
            assert client.hears("0\n$GPGGA")
        log.closed = False
        text = log.read_until("never", 2)
        assert "INFO: " in text
        assert not re.search("[^\n](DEBUG|INFO): ", text), "a line in the middle of another one"
        assert not re.search("0(DEBUG|INFO)", text)
