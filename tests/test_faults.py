# Calls of the system that fail one after the other in faulty_navtwine (tools/faultyCalls.cpp).
import re
import time

import pytest
from harness import ALL, REPEAT, Program, eventually

# Name, the consumers that are lost, what fails, what the log says.
ROWS = (
    ("recovers", "", """
        navtwine:open64:0:EMFILE navtwine:getrlimit64:0:EPERM navtwine:eventfd:0:EMFILE navtwine:fstat64:0:EIO
        navtwine:fgets:1:EINTR server-thr:setsockopt:0:ENOBUFS server-thr:getrlimit64:0:EPERM server-thr:poll:0:ENOMEM
        server-thr:accept4:0:EINTR server-thr:accept4:0:EAGAIN server-thr:accept4:0:ECONNABORTED
        server-thr:accept4:0:EMFILE handler:recv:0:EINTR handler:recv:0:EAGAIN handler:send:4:SHORT
        client-thr:setsockopt:0:ENOBUFS client-thr:setsockopt:2:ENOBUFS client-thr:recv:0:EINTR client-thr:send:1:SHORT
        serial:tcgetattr:0:EIO serial:tcsetattr:0:EIO serial:tcflush:0:EIO serial:write:0:EINTR serial:write:0:SHORT
        serial:write:1:SHORT serial:write:0:EIO""", ()),
    ("isLogged", "", """
        navtwine:popen:0:EMFILE navtwine:pthread_create:0:EAGAIN server-thr:socket:1:EMFILE
        server-thr:pthread_create:0:EAGAIN server-thr:pthread_create:3:EAGAIN handler:recv:0:ECONNRESET
        handler:poll:1:ENOMEM handler:operator_new:0:ENOMEM serial:ioctl:0:EIO serial:write:0:EIO""", (
        "failed to popen stream for reading output of command 'gpspipe -r'\n", "'navtwine stop-thread': Resource ",
        "no client is accepted until a descriptor is free: error code: 24 : ", "'navtwine trial'",
        "'navtwine client-handler-thread for ",
        "' ended early: std::bad_alloc\n",
        "ERROR: read_line_from_socket() failed or timed out\nERROR: failed to login.\n",
        "ERROR: RS485 configurating error. errno:5 - ", "ERROR: serial write() of [NMEA STRING DATA] failed : ")),
    ("handshake", "", """
        handler:send:0:EPIPE handler:send:1:EPIPE handler:send:1:EPIPE handler:send:5:EAGAIN handler:send:0:EINTR
        handler:send:0:ENOBUFS handler:send:4:EPIPE""", (
        "[PASSWORD_PROMPT] failed with error code: 32 : ", "[PASSWORD_WRONG] failed", "[PASSWORD_OK] failed",
        "error code = 11 : ", "error code = 4 : ", "error code = 105 : ", "unreachable - disconnecting socket\n")),
    ("uplink", "", """
        client-thr:gethostbyname2_r:0:EMFILE client-thr:socket:0:EMFILE client-thr:connect:0:ECONNREFUSED
        client-thr:recv:0:ECONNRESET client-thr:recv:10:ECONNRESET client-thr:send:1:EPIPE client-thr:send:1:EAGAIN
        client-thr:send:1:EPIPE""", (
        "gethostbyname2_r() failed with error code: ", "connect_to_host() : socket() failed with error code: 24 : ",
        "connect() failed with error code: 111 : Connection refused\nERROR: connect_to_host() failed. (see error "
        "message above for reason) : retrying login in 30000 ms", "[PASSWORD PROMPT] message\n",
        "[PASSWORD OK] message\n", "[PASSWORD SECRET] failed : error code = 32 : ", "DATA] failed : error code = 11 ")),
    ("threads", "uplink serial", """
        navtwine:pthread_create:2:EAGAIN navtwine:pthread_create:0:EAGAIN""", (
        "'navtwine main client-thread': ", "'navtwine main serial-thread': ")),
    ("noServer", "server", "navtwine:pthread_create:1:EAGAIN", ("'navtwine main-server-thread': Resource",)),
    ("noSocket", "server", "server-thr:socket:0:EMFILE", ("socket() failed returning invalid descriptor: -1\n",)),
    ("noReuse", "server", "server-thr:setsockopt:2:ENOMEM", ("ERROR: setsockopt() failed for socket descriptor: ",)),
    ("noPort", "server", "server-thr:bind:0:EADDRINUSE", ("ERROR: bind() failed for socket descriptor: ",)),
    ("noListener", "server", "server-thr:listen:0:EADDRINUSE", ("ERROR: listen() failed for socket descriptor: ",)),
)


def start_all(faults, gpspipe=REPEAT, option=""):
    """The program with all consumers; the server's password is the second one."""
    return Program(f"{ALL} {option} --server-passwd a-first-secret-of-some-length --client-passwd the-uplinks-secret "
                   "--server-passwd the-second-secret-is-longer-than-the-first", gpspipe, faults)


def log_in(program):
    return program.connect("oh\r\nthe-second-secret-is-longer-than-the-first\r\n")


@pytest.mark.parametrize("name, lost, faults, says", ROWS, ids=[row[0] for row in ROWS])
def test_any_call_may_fail(name, lost, faults, says):
    """The log tells, every consumer but the lost ones gets its stream, nothing stays open, the end is in order."""
    with start_all(faults, option="--status 1" if lost else "") as program:
        if "uplink" not in lost:
            assert eventually(lambda: program.accept("PASSWORD\r\nOK\r\n").hears("A,1"))
        if "server" not in lost:
            assert eventually(lambda: log_in(program).hears("A,1"))
        assert program.says(*(f"{consumer}: not " for consumer in lost.split())), "the status line tells"
        written = program.line.read_until("never", 2)
        assert bool(written) != ("serial" in lost)
        # Once, the rest of a batch fails: its line end is lost without a word.
        assert re.fullmatch(r"(\$GPGGA,1\r?\n)*(\$GPGGA,1)?(\$GPGGA,1\r?\n)*", written), "a cut line"
        expected = 1 + ("uplink" not in lost) + 2 * ("server" not in lost)  # gpspipe's, connections, the listener
        assert eventually(lambda: expected == sum(file.startswith(("socket:", "pipe:"))
                                                  for file in program.descriptors().values()))
        program.interrupt()
        output = program.output()
        assert output.count(" fails]\n") == len(re.findall("[A-Z]+", faults))
        for text in says:
            assert text in output
        if name == "recovers":  # a pseudo-terminal is no RS485 port, and a first password was wrong
            assert output.count("ERROR: ") == output.count("ERROR: RS485")
            assert output.count("is trying to connect") == 1


@pytest.mark.parametrize("option, threads", (
    ("", ("navtwine", "stop-thread")), ("", ("server-thr", "handler", "client-thr", "serial")),
    ("--immediate", ("server-thr", "handler", "client-thr", "serial"))), ids=("reader", "consumers", "immediate"))
def test_memory_may_be_out(option, threads):
    """It costs messages and log lines for a while; of the connections only the newest may be lost."""
    with start_all(" ".join(f"{name}:operator_new:-1:ENOMEM" for name in threads), r"""
        echo >>starts
        while :; do echo "\$GPGGA,$(cat again)$((n += 1)),a sentence that a string has no room of its own for"
                    sleep 0.0$((5 + 15 * n / 40)); done""", option) as program:
        consumers = [program.accept("PASSWORD\r\nOK\r\n"), log_in(program), program.line]
        heard = [consumer.read_until("own for") for consumer in consumers]
        program.touch("failing")
        program.connect()
        assert program.says("[operator_new fails]\n")
        time.sleep(2)  # the failure lasts: every consumer looks at its mailbox meanwhile
        assert program.output().count("[operator_new fails]\n") < 200, "nothing tries again at once"
        (program.folder / "failing").unlink()
        (program.folder / "again").write_text("again")
        heard = [early + consumer.read_until("$GPGGA,again") for early, consumer in zip(heard, consumers)]
        for text in heard:
            numbers = [int(number) for number in re.findall(r"GPGGA,(\d+),", text)]
            assert "again" in text and numbers == sorted(set(numbers)), "a message came twice"
        assert log_in(program).hears("$GPGGA,again")
        assert "thread 'navtwine main" not in program.output()
        assert (program.folder / "starts").read_text() == "\n", "gpspipe goes on meanwhile"
        program.touch("failing")  # the end needs no memory


@pytest.mark.parametrize("option, allocations", (
    ("--server", 99), ("--client", 99), ("--serial $LINE", 99), ("--daemonize", 99), ("--serial $LINE", 0),
    ("--server", 2)))
def test_fails_when_nothing_that_is_wanted_starts(option, allocations):
    """For want of a process, a thread or memory."""
    with Program("-e " + option, faults="navtwine:daemon:0:EAGAIN navtwine:pthread_create:1:EAGAIN navtwine:"
                 f"pthread_create:0:EAGAIN navtwine:operator_new:{allocations}:ENOMEM") as program:
        assert program.process.wait(30) == 1
        failed = "ERROR: out of memory|failed (to daemonize: errno = 11 |for thread 'navtwine main.*): Resource"
        assert re.search(failed, program.output())
