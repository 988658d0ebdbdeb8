# Start, log and end of the program.
import os
import re
import signal
import socket
import time
from pathlib import Path

import pytest
from harness import ALL, EMULATED, NAVTWINE, REPEAT, SERVER, Peer, Program, eventually, runs

LIFECYCLE = f"INFO: Starting executable: {''.join(NAVTWINE[-1:])}\nINFO: execution complete\n"
USAGE = (r"\nusage: navtwine \[OPTIONS\]\n\nOPTIONS:\n --\[no-\]daemonize\n.*server-port PORT .default: 5445.*client"
         r"-port PORT .default: 5445.*INTERVAL .default: 10.*\n -e  use stderr for log .default: disabled.\n\n")


def test_ends_at_once_without_work():
    for arguments, status, expected in (
            ("", 0, USAGE),
            ("--server --id -h", 0, USAGE),
            ("--help -e", 0, USAGE),
            ("--strict", 0, USAGE),
            ("--servr --version --strict", 0, r"navtwine \d+\.\d+\.\d+\n"),
            ("x --gga --serial $LINE -e --strict", 1, "Unexpected text after navtwine.ABORTING EXECUTION.\n"),
            ("--baud 09600 --stopbits 7", 1, re.escape("Invalid baud value 09600[ABORTING EXECUTION]\n")),
            ("--stopbits two", 1, re.escape("Invalid stop value two[ABORTING EXECUTION]\n")),
            ("--datalength 9", 1, re.escape("Invalid datalength value 9[ABORTING EXECUTION]\n")),
            ("--client-protocol sctp", 1, re.escape("Unknown protocol SCTP[ABORTING EXECUTION]\n")),
            ("--gga --serial '' -e", 0, LIFECYCLE),
            ("--gga --serial ''", 0,
             "" if Path("/dev/log").exists() else "ERROR: Unable to log to Syslog\n" + LIFECYCLE)):
        with Program(arguments, "touch started") as program:
            assert program.process.wait(30) == status, arguments
            assert re.fullmatch(expected, program.output(), re.DOTALL), arguments
            assert status or not (program.folder / "started").exists(), arguments


def test_it_says_what_works():
    """The log as often as it is told to, and the service manager (sd_notify(3)) whenever something changes."""
    manager = Peer(socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM))
    name = f"navtwine-test-{os.getpid()}"
    manager.stream.bind("\0" + name)
    with Program(ALL + "--rmc --gsv --status 1 --client-passwd secret", r"""
            while printf "\$GPRMC,${NOTIFY_SOCKET-none}\n\$GPGSV,2,1,\n\$GPGSV,2,2,\n\$GPVTG\n"; do sleep 1.6; done
            """, before=f"export NOTIFY_SOCKET=@{name}") as program:
        def logs(level, read, clients, uplink):
            return program.logs(rf"\n{level}: status: \d s: {read}; server: {clients}, 0 lost; "
                                rf"uplink: {uplink}, 0 lost; serial: open, 0 lost\n")
        read = "4 lines read; passed gga 0, gsv 1, rmc 1"
        assert manager.hears("READY=1")
        assert "; server: 0 clients, 0 lost; uplink: not connected, 0 lost" in manager.read_until("serial")
        assert logs("ERROR", read, "0 clients", "not connected")
        uplink = program.accept("PASSWORD\r\nOK\r\n")
        assert "uplink: connected" in manager.read_until("uplink: connected", 5)
        client = program.connect()
        assert client.hears("$GPRMC,none\n")
        assert logs("INFO", read, "1 client", "connected")
        assert program.connect().hears("$GPRMC")
        assert logs("ERROR", "0 lines read; passed gga 0, gsv 0, rmc 0", "2 clients", "connected")
        for peer in client, uplink, program.line:
            peer.stream.close()
        assert manager.hears("uplink: not connected")
        assert program.logs(r"server: 1 client, 0 lost; uplink: not connected, \d+ lost; serial: not open")
        program.interrupt()
        assert manager.hears("STOPPING=1")


@pytest.mark.parametrize("gpspipe", (
    "exec sleep 1000", "exit 1", "exec yes '$GPGGA,1'", "exec cat /dev/urandom",
    "trap '' INT TERM HUP; while :; do sleep 1; done", "setsid sh -c 'echo $$ >stranger; exec sleep 60' & sleep 99",
), ids=("silent", "gone", "flood", "random", "deaf", "stranger"))
def test_gpspipe_ends_with_the_program(gpspipe):
    """The other signals end gpspipe at most, and SIGINT everything in time but what has left gpspipe's group."""
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
        for stranger in program.folder.glob("stranger"):
            assert runs(process := int(stranger.read_text()))
            os.kill(process, signal.SIGKILL)


@pytest.mark.parametrize("how", ("--daemonize", "<&- >&- 2>&-"), ids=("daemon", "closed"))
def test_standard_streams_are_open(how):
    """A client's socket must not get the number of a standard stream, and with it the log."""
    with Program(SERVER + how, REPEAT) as program:
        program.last = ""
        assert program.connect().read_until("\n").startswith("$GPGGA,1\n")
        daemon = os.getsid(program.gpspipe())  # it leads a session of its own, which has gpspipe in it
        process = daemon if "daemon" in how else program.process.pid
        for stream in range(3):
            assert EMULATED or os.readlink(f"/proc/{process}/fd/{stream}") == "/dev/null"  # or valgrind's own log
        assert os.readlink(f"/proc/{process}/cwd") == str(program.folder)
        os.kill(process, signal.SIGINT)
        assert program.process.wait(30) == 0
        assert eventually(lambda: not runs(process))
        assert (daemon == os.getsid(0)) != ("daemon" in how)


def test_messages_are_filed_as_a_daemons_by_their_level():
    """No device: the program ends, and gpspipe with it, which is there by the time that the log takes something."""
    with Program("--gga --serial /dev/none --loglevel 10", faults="navtwine:connect:0:EAGAIN",
                 before="touch stalled-log") as program:
        gpspipe = program.gpspipe()
        (program.folder / "stalled-log").unlink()
        assert program.process.wait(30) == 1
        assert "[openlog navtwine 24]\n[syslog 3]ERROR: failed to open /dev/none: errno: 2\n" in program.output()
        assert eventually(lambda: not runs(gpspipe))
    with Program("--server --server-port $PORT", faults="navtwine:connect:0:EAGAIN",
                 before="touch stalled-log") as program:  # which holds main in its first line
        program.last = "[openlog navtwine 24]\n"
        assert program.says(program.last)
        program.interrupt(9)


def test_lines_are_read_as_gpspipe_prints_them():
    """To the NUL, 511 bytes at most, without an end; each type once within the interval, whoever its talker is."""
    with Program(SERVER + "--interval 9999 --rmc --gll --vtg", r"""until [ -e go ]; do sleep 0.1; done
                 printf '$GPGGA,%s\r\n$GNGGA,no\n' "$*"
                 printf '$GPRMC,a\0b\n$GPGLL%0700d\n$GPVTG,end' 0""") as program:
        client = program.connect()
        assert program.says("trying to connect")
        time.sleep(1)
        program.touch("go")
        assert client.read_until("end") == f"$GPGGA,-r\r\n$GPRMC,a$GPGLL{505 * '0'}$GPVTG,end"


def test_log_that_nobody_reads_holds_nobody_up():
    """Lines are lost, and the next one begins on its own."""
    with Program(SERVER + "--loglevel 50 2>$LINE", "while printf '$GPGGA,%0480d\n' 0; do sleep 0.05; done") as program:
        program.last = ""
        client = program.connect()
        for _ in range(4):
            assert client.hears("0\n$GPGGA")
        text = program.line.read_until("never", 2)
        assert "INFO: " in text
        assert not re.search("[^\n](DEBUG|INFO): ", text), "a line in the middle of another one"
