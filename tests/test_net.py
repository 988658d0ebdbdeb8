# The server with its clients, and the uplink.
import re
import socket
import time
from pathlib import Path

import pytest
from harness import ALL, EMULATED, SERVER, TO_COLLECTOR, Peer, Program, eventually

PROMPT = "PASSWORD\r\n"

# What a collector sends, and what the log says of it.
REFUSALS = (
    ("no\x9Bprompt\n", "did not receive [PASSWORD PROMPT] from the server. Received data = no\\x9Bprompt\n"),
    (PROMPT + "ok\r\n", "did not receive [PASSWORD OK] from the server. Received data = ok\n"),
    ("", "read_line_from_socket() failed or timed out while listening for a [PASSWORD PROMPT] message\n"),
)


SECRET = "secret" + 248 * "s"  # one byte less than a line of the handshake may have

# What clients answer to the prompts, and what they are told.
LOGINS = (
    (f"{SECRET[:-1]}\r\n{SECRET}s\n{SECRET}\r\n", "ERROR ERROR OK"),
    (f"{SECRET.upper()}\r\n\r\ns{SECRET}\n", "ERROR ERROR ERROR"),
)

COUNTING = r"n=1000; while printf '$GPGGA,%d\r\n$GPRMC,off\r\n' $n; do n=$((n+1)); sleep 0.4; done"


def hear_numbers(peer, greeting=""):
    """The numbers that a peer hears for some seconds: none is missing, and nothing else comes after the greeting."""
    stream = peer.read_until("S7") + peer.read_until("never", 3)
    numbers = [int(number) for number in re.findall(r"S7\$GPGGA,(\d+)\r\n", stream)]
    assert len(numbers) > 1
    assert stream == greeting + "".join(f"S7$GPGGA,{n}\r\n" for n in range(numbers[0], numbers[-1] + 1))
    return numbers


def test_uplink_tries_again():
    with Program(f"-e --interval 1 --gga --id 7 --id-prefix S --client-passwd secret {TO_COLLECTOR}", COUNTING,
                 "") as program:
        for lines, log in REFUSALS:
            session = program.accept(lines)
            assert program.says(f"ERROR: client authentificate:{log}ERROR: ClientThread::login to server failed. (see "
                                "error message above for reason) : retrying login in 30000 ms...\n[sleep 30000]\n")
            session.read_until("never", 0.3)
            assert session.closed, "the session stays open until the next attempt"
        for _ in range(2):
            session = program.accept(PROMPT + "OK\r\n")
            hear_numbers(session, "secret\r\n")
            session.stream.close()
        for option in ("1 7 16384", "6 18 300000", "6 4 120", "6 5 30", "6 6 6", "1 9 1"):  # socket(7), tcp(7)
            assert f"[setsockopt {option}]" in program.output()


def test_clients_that_know_the_password_are_admitted():
    """With the option the log names them."""
    with Program(f"{SERVER} --server-passwd {SECRET} --status 9") as program:
        for answer, verdicts in LOGINS:
            client = program.connect(answer)
            assert client.read_until("OK\r\n") == f"\r\n{PROMPT}".join(verdicts.split()) + "\r\n"
            who = rf"client \d+: 127.0.0.1 port {client.stream.getsockname()[1]}"
            assert program.logs(rf"INFO: {who}\n")
            failed = re.search(rf"ERROR: failed to login.\nERROR: {who}: login failed\n", program.output())
            assert bool(failed) != ("OK" in verdicts)


def test_client_that_stops_reading_gets_the_newest_later():
    with Program(SERVER + "--gsv --status 1", r"""timeout 5 yes "$(printf '$GPGSV,30,%d,%0480d\n' $(seq -f '%g 0' 30))"
                 touch passed; timeout 2 yes '$GPGGA,new'; while echo '$GPGGA,new'; do sleep 1; done""") as program:
        sleeper = program.connect()
        sleeper.stream.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 16384)  # or it would hold most of what is late
        assert program.logs(r"ERROR: status: .*; passed gga 0, gsv [1-9]\d*; server: 1 client, [1-9]\d* lost")
        assert eventually((program.folder / "passed").exists), "the stream waits for one client"
        woken = sleeper.read_until("new")
        assert "new" in woken
        assert len(woken) < 700_000, "the kernel's backlog came first"
        sleeper.stream.close()
        assert program.logs("; passed gga [1-9][0-9]*, gsv 0; server: 0 clients, 0 lost"), "as if it went on"


def test_server_takes_all_that_wait_before_it_makes_a_handler():
    """The sixth `accept` fails at first. Afterwards, when nobody has come for a while, freed memory is given back."""
    with Program(SERVER, faults="server-thr:accept4:5:EAGAIN") as program:
        assert program.says("[listen 5]\n", "waiting for client connections...\n")
        program.connect_at_once(6)
        assert program.says("[accept4 fails]\n" + 6 * (
            "INFO: A remote client is trying to connect.\nINFO: waiting for client connections...\n") + "[malloc_trim]")


def test_nobody_is_accepted_while_descriptors_are_out():
    """Four are kept for gpspipe, and what clients have that left, in their login or later, is free again."""
    complaint = "ERROR: no client is accepted until a descriptor is free: error code: 24 : Too many"
    with Program(f"{SERVER} --server-passwd x", "echo '$GPGGA,1'; until rm end; do sleep 0.1; done 2>&-",
                 before="ulimit -n 41") as program:
        while complaint not in program.output() and len(program.peers) < 40:
            program.connect_at_once(6)
            assert eventually(lambda: program.output().count("is trying to connect") == len(program.peers) or
                              complaint in program.output())
        assert program.busiest_thread()[0] < 0.5
        assert program.output().count(complaint) == 1
        first, last = program.peers[0], program.peers[-1]
        assert last.read_until("never", 0.01) == ""
        for peer, answer in zip(program.peers, 3 * ("x\r\n", "")):
            assert peer.hears(PROMPT)
            peer.send(answer)
        program.touch("end")
        assert first.hears("$GPGGA"), "no descriptor is left for gpspipe"
        for peer in program.peers[:6]:
            peer.stream.close()
        tried = "is trying to connect"
        assert eventually(lambda: program.output().count(tried) == len(program.peers), 15), "silence keeps descriptors"
        last.send("x\r\n")
        assert last.hears("OK\r\n")
        program.touch("end")
        assert last.hears("$GPGGA")


@pytest.mark.parametrize("call", ("accept4", "poll"))
def test_nothing_keeps_a_processor_busy(call):
    """Nothing arrives, and the server's call fails as long as it may."""
    with Program(ALL, faults=f"server-thr:{call}:-1:ENOMEM") as program:
        assert program.says("has successful logged into remote server", "RS485 configurating", "waiting for client")
        program.touch("failing")
        program.connect()
        assert program.says(f"[{call} fails]\n")
        assert program.busiest_thread()[0] < 0.5
        threads = Path(f"/proc/{program.process.pid}/task").glob("*/status")
        blocked = [int(re.search("SigBlk:\t(.*)", thread.read_text())[1], 16) & 0x3003 for thread in threads]
        assert EMULATED or blocked.count(0x3003) == len(blocked) - 1, "SIGHUP, INT, PIPE and ALRM reach the main thread"


def test_consumers_receive_the_same_messages():
    with Program(ALL + "--loglevel 50 --id-prefix S --id 7 --server-passwd secret --client-passwd secret",
                 COUNTING) as program:
        uplink = program.accept()
        client, gone = program.connect(), program.connect()
        assert client.read_until("\n") == gone.read_until("\n") == PROMPT
        gone.stream.close()
        before = hear_numbers(program.line)
        uplink.send(PROMPT + "OK\r\n")
        client.send("secret\r\n")
        for peer, greeting in ((uplink, "secret\r\n"), (client, "OK\r\n"), (program.line, "")):
            assert hear_numbers(peer, greeting)[0] > before[-1], "nothing from before the login"
        assert program.says("INFO: connect_to_host() : remote server ip addr: 127.0.0.1\n", "connect() succeeded with",
                            "DEBUG: ClientThread::nmeaSend:S7$GP", "DEBUG: ClientHandlerThread:nmeaSend:S7$GP")
        assert program.busiest_thread()[0] < 0.5, "the one that left during its login"
        assert "secret" not in program.output()  # an emulator's own command line keeps what it was started with
        assert EMULATED or b"secret" not in Path(f"/proc/{program.process.pid}/cmdline").read_bytes()
        assert f" 00000000:{program.port:04X} 00000000:0000 0A " in Path("/proc/net/tcp").read_text()


def test_immediate_delivery_brings_an_epoch_whole_and_at_once():
    """Some are in time, in one piece and, with more messages than a mailbox holds, whole on a busy machine too.

    None that fits into a mailbox may miss a message.
    """
    with Program(ALL + "--immediate --loglevel 50", r"""
            while :; do for parts in '0 0 0' '29 0 0.002' '48 47 0'; do
                until rm next; do sleep 0.02; done
                set -- $parts; now=$(date +%s%N)
                [ $1 = 0 ] || printf "\$GPGGA,$now,%s\n" $(seq $1)
                sleep $3; printf "\$GPGGA,$now,%s\n" $(seq $2) end
            done; done""", "") as program:
        peers = (program.accept(), program.connect(), program.line)
        assert program.says("has successful logged into remote server", "RS485 configurating", "trying to connect")
        time.sleep(1)
        delays, sends, counts = [], [], []
        while len(sends) < 15 or len(sends) < 150 and not (1 in sends[1::3] and [96, 96, 96] in counts[2::3]):
            sent = program.output().count("DEBUG: ClientHandlerThread:nmeaSend:")
            program.touch("next")
            epochs = [peer.read_until("end\n") for peer in peers]
            delays.append(time.time() - int(epochs[0].split(",")[1]) / 1e9)
            sends.append(program.output().count("DEBUG: ClientHandlerThread:nmeaSend:") - sent)
            counts.append([epoch.count("\n") for epoch in epochs])
        assert min(delays) < 0.1
        assert 1 in sends[1::3]
        assert all(heard in ([1, 1, 1], [30, 30, 30]) for heard in counts[0::3] + counts[1::3])
        assert [96, 96, 96] in counts[2::3]
        assert program.busiest_thread()[1] < 20, "consumers wait, and do not look again and again"
        program.interrupt()
        assert "INFO: The remote client is disconnected.\n" in program.output()
        assert program.output().count("[setsockopt 6 1 1]\n") == 2, "Nagle's algorithm"


def test_datagrams_and_every_gpspipe_get_nothing_else():
    """The raised limit, but no descriptor, reaches gpspipe, which is started again after a second."""
    collector = Peer(socket.socket(type=socket.SOCK_DGRAM))
    collector.stream.bind(("127.0.0.1", 0))
    with Program(f"{ALL} --timestamp --client-protocol Udp --client-passwd unused --client-port "
                 f"{collector.stream.getsockname()[1]}",
                 r"""date +%s%N >>starts
                 open=$(ls -l /proc/$$/fd | grep -c 'socket\|pts\|event')
                 echo "\$GPGGA,$* $open $(($(ulimit -Sn) > 64))" """, before="ulimit -Sn 64") as program:
        expected = "$GPGGA,-t -r 0 1\n"
        assert program.connect().read_until("\n" + expected).startswith(expected + expected)
        assert collector.read_until("\n").startswith(expected)
        starts = [int(start) for start in (program.folder / "starts").read_text().split()]
        assert all(later - earlier >= 990_000_000 for earlier, later in zip(starts, starts[1:]))
