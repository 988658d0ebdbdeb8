"""Calls of the system that fail one after the other in faulty_navtwine (tools/faultyCalls.cpp)."""
import time
from errno import (EADDRINUSE, EAGAIN, ECONNABORTED, ECONNREFUSED, ECONNRESET, EINTR, EIO, EMFILE, ENOBUFS, ENOMEM,
                   EPERM, EPIPE)

import pytest
from harness import Collector, Program, SerialLine, eventually

MAIN = "faulty_navtwine"
SERVER = "main-server-thr"
HANDLER = "client-handler-"
UPLINK = "main client-thr"
SERIAL = "main serial-thr"
SHORT = 0  # in place of an error: a short count

# Name, the consumers that are lost, faults: thread, call, calls that go well before it, error, what the log says.
ROWS = (
    ("unnoticed", "", (
        (MAIN, "open64", 0, EMFILE, ""),
        (MAIN, "getrlimit64", 0, EPERM, ""),
        (MAIN, "eventfd", 0, EMFILE, ""),
        (MAIN, "fstat64", 0, EIO, ""),
        (MAIN, "fgets", 1, EINTR, ""),
        (SERVER, "setsockopt", 0, ENOBUFS, ""),  # the send buffer
        (SERVER, "getrlimit64", 0, EPERM, ""),
        (SERVER, "poll", 0, ENOMEM, ""),
        (SERVER, "accept4", 0, EINTR, ""),
        (SERVER, "accept4", 0, EAGAIN, ""),
        (SERVER, "accept4", 0, ECONNABORTED, ""),
        (SERVER, "accept4", 0, EMFILE, ""),
        (HANDLER, "recv", 0, EINTR, ""),
        (HANDLER, "recv", 0, EAGAIN, ""),
        (HANDLER, "send", 4, SHORT, ""),
        (UPLINK, "setsockopt", 0, ENOBUFS, ""),  # the send buffer, then one of those that find dead peers
        (UPLINK, "setsockopt", 2, ENOBUFS, ""),
        (UPLINK, "recv", 0, EINTR, ""),
        (UPLINK, "send", 1, SHORT, ""),
        (SERIAL, "tcgetattr", 0, EIO, ""),
        (SERIAL, "tcsetattr", 0, EIO, ""),
        (SERIAL, "tcflush", 0, EIO, ""),
        (SERIAL, "write", 0, EINTR, ""),
        (SERIAL, "write", 0, SHORT, ""),
        ("stop-thread", "opendir", 0, EMFILE, ""))),
    ("told", "", (
        (MAIN, "popen", 0, EMFILE, "failed to popen stream for reading output of command 'gpspipe -r'\n"),
        (MAIN, "pthread_create", 0, EAGAIN, "'navtwine rehearsal': Resource temporarily unavailable\n"),
        (SERVER, "socket", 1, EMFILE, "ERROR: no client is accepted until a descriptor is free: error code: 24"),
        (SERVER, "pthread_create", 0, EAGAIN, "'navtwine client-handler-thread for socket descriptor: "),
        (HANDLER, "recv", 0, ECONNRESET, "ERROR: read_line_from_socket() failed or timed out\n"),
        (HANDLER, "poll", 1, ENOMEM, "ERROR: failed to login.\n"),
        (SERIAL, "ioctl", 0, EIO, "ERROR: RS485 configurating error. errno:5 - Input/output error\n"),
        (SERIAL, "write", 0, EIO, "ERROR: serial write() of [NMEA STRING DATA] failed : error code = 5"))),
    ("handshake", "", (
        (HANDLER, "send", 0, EPIPE, "send() of [PASSWORD_PROMPT] failed with error code: 32 : Broken pipe\n"),
        (HANDLER, "send", 1, EPIPE, "send() of [PASSWORD_WRONG] failed with error code: 32 : Broken pipe\n"),
        (HANDLER, "send", 1, EPIPE, "send() of [PASSWORD_OK] failed with error code: 32 : Broken pipe\n"),
        (HANDLER, "send", 5, EAGAIN, "error code = 11 : Resource temporarily unavailable\n"),
        (HANDLER, "send", 0, EINTR, "error code = 4 : Interrupted system call\n"),
        (HANDLER, "send", 0, ENOBUFS, "ERROR: send() of [NMEA STRING DATA] failed for client: "),
        (HANDLER, "send", 4, EPIPE, "INFO: client is unreachable - disconnecting socket\n"))),
    ("uplink", "", (
        (UPLINK, "gethostbyname2_r", 0, EMFILE, "gethostbyname2_r() failed with error code: "),
        (UPLINK, "socket", 0, EMFILE, "socket() failed with error code: 24 : Too many open files\n"),
        (UPLINK, "connect", 0, ECONNREFUSED, "connect() failed with error code: 111 : Connection refused\nERROR: "
         "connect_to_host() failed. (see error message above for reason) : retrying login in 30000 ms"),
        (UPLINK, "recv", 0, ECONNRESET, "timed out while listening for a [PASSWORD PROMPT] message\n"),
        (UPLINK, "recv", 10, ECONNRESET, "timed out while listening for a [PASSWORD OK] message\n"),
        (UPLINK, "send", 1, EPIPE, "send() of [PASSWORD SECRET] failed : error code = 32 : Broken pipe\n"),
        (UPLINK, "send", 1, EAGAIN, "ERROR: send() of [NMEA STRING DATA] failed : error code = 11 : "),
        (UPLINK, "send", 1, EPIPE, "ERROR: send() of [NMEA STRING DATA] failed : error code = 32 : Broken pipe\n"))),
    ("threads", "uplink serial", (
        (MAIN, "pthread_create", 2, EAGAIN, "'navtwine main client-thread': Resource"),
        (MAIN, "pthread_create", 0, EAGAIN, "'navtwine main serial-thread': Resource"),
        (MAIN, "pthread_create", 0, EAGAIN, "'navtwine stop-thread': Resource"))),
    ("noServer", "server", ((MAIN, "pthread_create", 1, EAGAIN, "'navtwine main-server-thread': Res"),)),
    ("noSocket", "server", ((SERVER, "socket", 0, EMFILE, "socket() failed returning invalid descriptor: -1\n"),)),
    ("noReuse", "server", ((SERVER, "setsockopt", 1, ENOMEM, "ERROR: setsockopt() failed for socket descriptor: "),)),
    ("noPort", "server", ((SERVER, "bind", 0, EADDRINUSE, "ERROR: bind() failed for socket descriptor: "),)),
    ("noListener", "server", ((SERVER, "listen", 0, EADDRINUSE, "ERROR: listen() failed for socket descriptor: "),)),
)


def as_text(faults):
    return ",".join("|".join(map(str, fault[:4])) for fault in faults)


def start_all(collector, line, faults, gpspipe):
    """The program with all consumers; the server's password is the second one."""
    return Program(f"""--server --server-port $PORT --server-passwd a-first-secret-of-some-length -e --interval 1 \
        --server-passwd the-second-secret-is-longer-than-the-first --client-passwd the-uplinks-secret --gga --client \
        --client-remote-host 127.0.0.1 --client-port {collector.number} --serial {line.device}""",
                   gpspipe, as_text(faults))


def log_in(program):
    return program.connect("oh\r\nthe-second-secret-is-longer-than-the-first\r\n")


@pytest.mark.parametrize("name, lost, faults", ROWS, ids=[row[0] for row in ROWS])
def test_any_call_may_fail(name, lost, faults):
    """The log tells, every consumer but the lost ones gets its stream, nothing stays open, the end is in order."""
    collector = Collector()
    line = SerialLine()
    streaming = []
    with start_all(collector, line, faults, "while echo '$GPGGA,1'; do sleep 0.2; done") as program:
        for consumer, connect in (("uplink", lambda: collector.accept("PASSWORD\r\nOK\r\n")),
                                  ("server", lambda: log_in(program))):
            def streams():
                peer = connect()
                return peer.hears("A,1") and peer
            if consumer not in lost:
                streaming.append(eventually(streams))
        assert all(streaming)
        written = line.read_until("A,1", 3)
        assert written.startswith("$GPGGA,1") != ("serial" in lost)
        assert "1$" not in written, "a cut line"
        expected = 1 + ("uplink" not in lost) + 2 * ("server" not in lost)  # gpspipe's, connections, the listener

        def has_closed_the_rest():
            return sum(file.startswith(("socket:", "pipe:")) for file in program.descriptors().values()) == expected
        assert eventually(has_closed_the_rest), program.descriptors()
        program.interrupt()
        output = program.output()
        assert output.count(" fails]\n") == len(faults)
        for fault in faults:
            assert fault[4] in output
        if name == "unnoticed":  # a pseudo-terminal is no RS485 port, and a first password was wrong
            assert output.count("ERROR: ") == output.count("ERROR: RS485")
            assert output.count("is trying to connect") == 1


@pytest.mark.parametrize("threads", ((MAIN,), (SERVER, HANDLER, UPLINK, SERIAL)), ids=("reader", "consumers"))
def test_memory_may_be_out(threads):
    """It costs messages and log lines for a while; of the connections only the newest may be lost."""
    collector = Collector()
    line = SerialLine()
    with start_all(collector, line, [(thread, "operator new", -1, ENOMEM) for thread in threads], r"""
        echo >>starts
        while :; do echo "\$GPGGA,$(cat again),a sentence that a string has no room of its own for"; sleep 0.2; done""",
                   ) as program:
        consumers = [collector.accept("PASSWORD\r\nOK\r\n"), log_in(program), line]
        assert all("$GPGGA,," in consumer.read_until("own for") for consumer in consumers)
        program.touch("failing")
        newcomer = program.connect()
        assert program.says("[operator new fails]\n")
        time.sleep(2)  # the failure lasts: every consumer looks at its mailbox meanwhile
        (program.folder / "failing").unlink()
        (program.folder / "again").write_text("again")
        assert all(consumer.hears("$GPGGA,again") for consumer in [*consumers, log_in(program)])
        assert "terminate" not in program.output()
        assert "thread 'navtwine main" not in program.output()
        assert (program.folder / "starts").read_text() == "\n", "gpspipe goes on meanwhile"
        del newcomer


@pytest.mark.parametrize("call, calls_before, arguments, says", (
    ("pthread_create", 1, "--server --server-port $PORT", "'navtwine main-server-"),
    ("pthread_create", 1, "--client", "'navtwine main client-"),
    ("pthread_create", 1, "--serial /dev/null", "'navtwine main serial-"),
    ("daemon", 0, "--server --daemonize", "/faulty_navtwine failed to daemonize: errno = 11 : Resource temporarily"),
))
def test_fails_when_nothing_that_is_wanted_starts(call, calls_before, arguments, says):
    with Program("-e " + arguments, faults=as_text([(MAIN, call, calls_before, EAGAIN)])) as program:
        assert program.process.wait(30) == 1
        assert says in program.output()
        assert ("execution complete" in program.output()) == (call != "daemon")
