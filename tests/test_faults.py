# Calls of the system that fail one after the other in faulty_navtwine (tools/faultyCalls.cpp).
import time

import pytest
from harness import Collector, Program, SerialLine, eventually, faults_of

# Name, the consumers that are lost, what fails, what the log says.
ROWS = (
    ("unnoticed", "", """
        navtwine: open64 EMFILE getrlimit64 EPERM eventfd EMFILE fstat64 EIO fgets 1 EINTR
        server-thr: setsockopt ENOBUFS getrlimit64 EPERM poll ENOMEM accept4 EINTR EAGAIN ECONNABORTED EMFILE
        handler: recv EINTR EAGAIN send 4 SHORT
        client-thr: setsockopt ENOBUFS 2 ENOBUFS recv EINTR send 1 SHORT
        serial: tcgetattr EIO tcsetattr EIO tcflush EIO write EINTR SHORT
        stop: opendir EMFILE""", ()),
    ("told", "", """
        navtwine: popen EMFILE pthread_create EAGAIN
        server-thr: socket 1 EMFILE pthread_create EAGAIN
        handler: recv ECONNRESET poll 1 ENOMEM
        serial: ioctl EIO write EIO""", (
        "failed to popen stream for reading output of command 'gpspipe -r'\n",
        "ERROR: pthread_create() failed for thread 'navtwine rehearsal': Resource temporarily unavailable\n",
        "ERROR: no client is accepted until a descriptor is free: error code: 24 : Too many open files\n",
        "'navtwine client-handler-thread for socket descriptor: ",
        "ERROR: read_line_from_socket() failed or timed out\n",
        "ERROR: failed to login.\n",
        "ERROR: RS485 configurating error. errno:5 - Input/output error\n",
        "ERROR: serial write() of [NMEA STRING DATA] failed : error code = 5 : Input/output error\n")),
    ("handshake", "", "handler: send EPIPE 1 EPIPE 1 EPIPE 5 EAGAIN EINTR ENOBUFS 4 EPIPE", (
        "send() of [PASSWORD_PROMPT] failed with error code: 32 : Broken pipe\n",
        "send() of [PASSWORD_WRONG] failed with error code: 32 : Broken pipe\n",
        "send() of [PASSWORD_OK] failed with error code: 32 : Broken pipe\n",
        "error code = 11 : Resource temporarily unavailable\n",
        "error code = 4 : Interrupted system call\n",
        "ERROR: send() of [NMEA STRING DATA] failed for client: ",
        "INFO: client is unreachable - disconnecting socket\n")),
    ("uplink", "", """client-thr: gethostbyname2_r EMFILE socket EMFILE connect ECONNREFUSED
        recv ECONNRESET 10 ECONNRESET send 1 EPIPE 1 EAGAIN 1 EPIPE""", (
        "gethostbyname2_r() failed with error code: ",
        "ERROR: connect_to_host() : socket() failed with error code: 24 : Too many open files\n",
        "ERROR: connect_to_host() : connect() failed with error code: 111 : Connection refused\n"
        "ERROR: connect_to_host() failed. (see error message above for reason) : retrying login in 30000 ms",
        "timed out while listening for a [PASSWORD PROMPT] message\n",
        "timed out while listening for a [PASSWORD OK] message\n",
        "ERROR: client authentificate:send() of [PASSWORD SECRET] failed : error code = 32 : Broken pipe\n",
        "ERROR: send() of [NMEA STRING DATA] failed : error code = 11 : ",
        "ERROR: send() of [NMEA STRING DATA] failed : error code = 32 : Broken pipe\n")),
    ("threads", "uplink serial", "navtwine: pthread_create 2 EAGAIN EAGAIN EAGAIN", (
        "'navtwine main client-thread': Resource", "'navtwine main serial-thread': Resource",
        "'navtwine stop-thread': Resource")),
    ("noServer", "server", "navtwine: pthread_create 1 EAGAIN", ("'navtwine main-server-thread': Resource",)),
    ("noSocket", "server", "server-thr: socket EMFILE", ("socket() failed returning invalid descriptor: -1\n",)),
    ("noReuse", "server", "server-thr: setsockopt 1 ENOMEM", ("ERROR: setsockopt() failed for socket descriptor: ",)),
    ("noPort", "server", "server-thr: bind EADDRINUSE", ("ERROR: bind() failed for socket descriptor: ",)),
    ("noListener", "server", "server-thr: listen EADDRINUSE", ("ERROR: listen() failed for socket descriptor: ",)),
)


# The program with all consumers; the server's password is the second one.
def start_all(collector, line, faults, gpspipe):
    return Program(f"""--server --server-port $PORT --server-passwd a-first-secret-of-some-length -e --interval 1 \
        --server-passwd the-second-secret-is-longer-than-the-first --client-passwd the-uplinks-secret --gga --client \
        --client-remote-host 127.0.0.1 --client-port {collector.number} --serial {line.device}""",
                   gpspipe, faults)


def log_in(program):
    return program.connect("oh\r\nthe-second-secret-is-longer-than-the-first\r\n")


@pytest.mark.parametrize("name, lost, faults, says", ROWS, ids=[row[0] for row in ROWS])
# The log tells, every consumer but the lost ones gets its stream, nothing stays open, the end is in order.
def test_any_call_may_fail(name, lost, faults, says):
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
        assert output.count(" fails]\n") == len(faults_of(faults))
        for text in says:
            assert text in output
        if name == "unnoticed":  # a pseudo-terminal is no RS485 port, and a first password was wrong
            assert output.count("ERROR: ") == output.count("ERROR: RS485")
            assert output.count("is trying to connect") == 1


@pytest.mark.parametrize("threads", (
    ("navtwine",), ("server-thr", "handler", "client-thr", "serial")), ids=("reader", "consumers"))
# It costs messages and log lines for a while; of the connections only the newest may be lost.
def test_memory_may_be_out(threads):
    collector = Collector()
    line = SerialLine()
    with start_all(collector, line, " ".join(f"{name}: operator_new -1 ENOMEM" for name in threads), r"""
        echo >>starts
        while :; do echo "\$GPGGA,$(cat again),a sentence that a string has no room of its own for"; sleep 0.2; done""",
                   ) as program:
        consumers = [collector.accept("PASSWORD\r\nOK\r\n"), log_in(program), line]
        assert all("$GPGGA,," in consumer.read_until("own for") for consumer in consumers)
        program.touch("failing")
        program.connect()
        assert program.says("[operator_new fails]\n")
        time.sleep(2)  # the failure lasts: every consumer looks at its mailbox meanwhile
        (program.folder / "failing").unlink()
        (program.folder / "again").write_text("again")
        assert all(consumer.hears("$GPGGA,again") for consumer in [*consumers, log_in(program)])
        assert "terminate" not in program.output()
        assert "thread 'navtwine main" not in program.output()
        assert (program.folder / "starts").read_text() == "\n", "gpspipe goes on meanwhile"


def test_fails_when_nothing_that_is_wanted_starts():
    for arguments, faults, says, last in (
            ("--server --server-port $PORT", "pthread_create 1 EAGAIN", "'navtwine main-server-", "complete\n"),
            ("--client", "pthread_create 1 EAGAIN", "'navtwine main client-", "complete\n"),
            ("--serial /dev/null", "pthread_create 1 EAGAIN", "'navtwine main serial-", "complete\n"),
            ("--server --daemonize", "daemon EAGAIN", "/faulty_navtwine failed to daemonize: errno = 11 : ", "able\n")):
        with Program("-e " + arguments, faults="navtwine: " + faults) as program:
            assert program.process.wait(30) == 1, arguments
            assert says in program.output()
            assert program.output().endswith(last)
