#include "harness.h"

/// One call that fails once, among many that go well (tools/faultyCalls.cpp).
struct Fault {
    const char *in; ///< the thread, as the system names it
    const char *call;
    int after = 0;         ///< calls that go well before it
    int error;             ///< 0: a short count
    const char *says = ""; ///< in the log
};

const char *const mainThread = "faulty_navtwine";
const char *const serverThread = "main-server-thr";
const char *const handler = "client-handler-";
const char *const uplinkThread = "main client-thr";
const char *const serial = "main serial-thr";

struct Faults {
    const char *name;
    std::string lost; ///< the consumers that the user has to do without
    std::vector<Fault> list;

    friend std::ostream &operator<<(std::ostream &stream, const Faults &faults) { return stream << faults.name; }
};

/// As faulty_navtwine takes them.
static std::string asText(const std::vector<Fault> &faults)
{
    std::string all;
    for (const auto &[in, call, after, error, says] : faults)
        all += std::string(in) + '|' + call + '|' + std::to_string(after) + '|' + std::to_string(error) + ',';
    return all;
}

static std::string allConsumers(const Listener &collector, const SerialLine &line)
{
    return "--server --server-port $PORT --server-passwd a-first-secret-of-some-length -e --interval 1 --gga --client "
           "--server-passwd the-second-secret-is-longer-than-the-first --client-passwd the-uplinks-secret "
           "--client-remote-host 127.0.0.1 --client-port " +
           std::to_string(collector.number) + " --serial " + line.device();
}

/// A client whose first password is wrong.
static Peer client(std::uint16_t port)
{
    return loggedIn(port, "oh\r\nthe-second-secret-is-longer-than-the-first\r\n");
}

class AnyCall : public testing::TestWithParam<Faults> {};

/// The log tells, every consumer but the lost ones gets its stream, nothing stays open, the end is in order.
TEST_P(AnyCall, mayFail)
{
    const auto &[name, lost, faults] = GetParam();
    const auto isLost = [&lost = lost](const char *consumer) { return lost.find(consumer) != std::string::npos; };
    const Listener collector;
    SerialLine line;
    Program program({.arguments = allConsumers(collector, line),
                     .gpspipe = "while echo '$GPGGA,1'; do sleep 0.2; done",
                     .faults = asText(faults)});
    Peer streaming(-1);
    Peer uplink(-1);
    std::ptrdiff_t expected = 1; // gpspipe's
    if (!isLost("uplink")) {
        EXPECT_TRUE(eventually([&] {
            uplink = Peer(-1); // or it would wait for us
            uplink = collector.accept();
            uplink.send("PASSWORD\r\nOK\r\n");
            return uplink.hears("A,1");
        }));
        expected += 1;
    }
    if (!isLost("server")) {
        EXPECT_TRUE(eventually([&] {
            streaming = client(program.port);
            return streaming.hears("A,1");
        }));
        expected += 2;
    }
    const std::string written = line.readUntil("A,1", 3s);
    EXPECT_EQ(written.starts_with("$GPGGA,1"), !isLost("serial"));
    EXPECT_THAT(written, Not(testing::ContainsRegex("[^\n][$]"))) << "a cut line";
    EXPECT_TRUE(eventually([&] {
        return expected ==
               std::ranges::count_if(fs::directory_iterator(proc(program.pid, "fd")), [](const auto &entry) {
                   std::error_code gone;
                   const std::string target = fs::read_symlink(entry, gone);
                   const bool emulators = std::stoi(entry.path().filename()) >= 100;
                   return !emulators && (target.starts_with("socket:") || target.starts_with("pipe:"));
               });
    })) << "descriptors stay behind";
    EXPECT_EQ(program.interrupt(), 0);
    const std::string output = program.output();
    EXPECT_THAT(output, HasSubstr("INFO: execution complete\n"));
    EXPECT_EQ(countOf(" fails]\n", output), std::ssize(faults));
    for (const Fault &fault : faults)
        EXPECT_THAT(output, HasSubstr(fault.says));
    if (name == std::string("unnoticed")) { // a pseudo-terminal is no RS485 port, and a first password was wrong
        EXPECT_THAT(output, Not(testing::ContainsRegex("ERROR: [^R]")));
        EXPECT_EQ(countOf("is trying to connect", output), 1);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Faults, AnyCall,
    testing::Values(
        Faults{"unnoticed",
               "",
               {{.in = mainThread, .call = "open64", .error = EMFILE},
                {.in = mainThread, .call = "getrlimit64", .error = EPERM},
                {.in = mainThread, .call = "eventfd", .error = EMFILE},
                {.in = mainThread, .call = "fstat64", .error = EIO},
                {.in = mainThread, .call = "fgets", .after = 1, .error = EINTR},
                {.in = serverThread, .call = "setsockopt", .error = ENOBUFS}, // the send buffer
                {.in = serverThread, .call = "getrlimit64", .error = EPERM},
                {.in = serverThread, .call = "poll", .error = ENOMEM},
                {.in = serverThread, .call = "accept4", .error = EINTR},
                {.in = serverThread, .call = "accept4", .error = EAGAIN},
                {.in = serverThread, .call = "accept4", .error = ECONNABORTED},
                {.in = serverThread, .call = "accept4", .error = EMFILE},
                {.in = handler, .call = "recv", .error = EINTR},
                {.in = handler, .call = "recv", .error = EAGAIN},
                {.in = handler, .call = "send", .after = 4, .error = 0},
                {.in = uplinkThread, .call = "setsockopt", .error = ENOBUFS}, // the send buffer and dead peers
                {.in = uplinkThread, .call = "setsockopt", .after = 2, .error = ENOBUFS},
                {.in = uplinkThread, .call = "recv", .error = EINTR},
                {.in = uplinkThread, .call = "send", .after = 1, .error = 0},
                {.in = serial, .call = "tcgetattr", .error = EIO},
                {.in = serial, .call = "tcsetattr", .error = EIO},
                {.in = serial, .call = "tcflush", .error = EIO},
                {.in = serial, .call = "write", .error = EINTR},
                {.in = serial, .call = "write", .error = 0},
                {.in = "stop-thread", .call = "opendir", .error = EMFILE}}},
        Faults{"told",
               "",
               {{mainThread, "popen", 0, EMFILE,
                 "ERROR: kavGPSGetNMEAStrings(): failed to popen stream for reading output of command 'gpspipe -r'\n"},
                {mainThread, "pthread_create", 0, EAGAIN,
                 "ERROR: pthread_create() failed for thread 'navtwine rehearsal': Resource temporarily unavailable\n"},
                {serverThread, "socket", 1, EMFILE,
                 "ERROR: no client is accepted until a descriptor is free: error code: 24 : Too many open files\n"},
                {serverThread, "pthread_create", 0, EAGAIN, "'navtwine client-handler-thread for socket descriptor: "},
                {handler, "recv", 0, ECONNRESET, "ERROR: read_line_from_socket() failed or timed out\n"},
                {handler, "poll", 1, ENOMEM, "ERROR: failed to login.\n"},
                {serial, "ioctl", 0, EIO, "ERROR: RS485 configurating error. errno:5 - Input/output error\n"},
                {serial, "write", 0, EIO,
                 "ERROR: serial write() of [NMEA STRING DATA] failed : error code = 5 : Input/output error\n"}}},
        Faults{"handshake",
               "",
               {{handler, "send", 0, EPIPE, "send() of [PASSWORD_PROMPT] failed with error code: 32 : Broken pipe\n"},
                {handler, "send", 1, EPIPE, "send() of [PASSWORD_WRONG] failed with error code: 32 : Broken pipe\n"},
                {handler, "send", 1, EPIPE, "send() of [PASSWORD_OK] failed with error code: 32 : Broken pipe\n"},
                {handler, "send", 5, EAGAIN, "error code = 11 : Resource temporarily unavailable\n"},
                {handler, "send", 0, EINTR, "error code = 4 : Interrupted system call\n"},
                {handler, "send", 0, ENOBUFS, "ERROR: send() of [NMEA STRING DATA] failed for client: "},
                {handler, "send", 4, EPIPE, "INFO: client is unreachable - disconnecting socket\n"}}},
        Faults{"uplink",
               "",
               {{uplinkThread, "gethostbyname2_r", 0, EMFILE, "gethostbyname2_r() failed with error code: "},
                {uplinkThread, "socket", 0, EMFILE,
                 "ERROR: connect_to_host() : socket() failed with error code: 24 : Too many open files\n"},
                {uplinkThread, "connect", 0, ECONNREFUSED,
                 "ERROR: connect_to_host() : connect() failed with error code: 111 : Connection refused\n"
                 "ERROR: connect_to_host() failed. (see error message above for reason) : retrying login in 30000 ms"},
                {uplinkThread, "recv", 0, ECONNRESET, "timed out while listening for a [PASSWORD PROMPT] message\n"},
                {uplinkThread, "recv", 10, ECONNRESET, "timed out while listening for a [PASSWORD OK] message\n"},
                {uplinkThread, "send", 1, EPIPE,
                 "ERROR: client authentificate:send() of [PASSWORD SECRET] failed : error code = 32 : Broken pipe\n"},
                {uplinkThread, "send", 1, EAGAIN, "ERROR: send() of [NMEA STRING DATA] failed : error code = 11 : "},
                {uplinkThread, "send", 1, EPIPE,
                 "ERROR: send() of [NMEA STRING DATA] failed : error code = 32 : Broken pipe\n"}}},
        Faults{"threads",
               "uplink serial",
               {{mainThread, "pthread_create", 2, EAGAIN, "'navtwine main client-thread': Resource"},
                {mainThread, "pthread_create", 0, EAGAIN, "'navtwine main serial-thread': Resource"},
                {mainThread, "pthread_create", 0, EAGAIN, "'navtwine stop-thread': Resource"}}},
        Faults{"noServer", "server", {{mainThread, "pthread_create", 1, EAGAIN, "'navtwine main-server-thread': Res"}}},
        Faults{"noSocket",
               "server",
               {{serverThread, "socket", 0, EMFILE, "ERROR: socket() failed returning invalid descriptor: -1\n"}}},
        Faults{"noReuse",
               "server",
               {{serverThread, "setsockopt", 1, ENOMEM, "ERROR: setsockopt() failed for socket descriptor: "}}},
        Faults{"noPort",
               "server",
               {{serverThread, "bind", 0, EADDRINUSE, "ERROR: bind() failed for socket descriptor: "}}},
        Faults{"noListener",
               "server",
               {{serverThread, "listen", 0, EADDRINUSE, "ERROR: listen() failed for socket descriptor: "}}}),
    [](const auto &row) { return row.param.name; });

class AnyMemory : public testing::TestWithParam<std::vector<const char *>> {};

/// Memory that is out for a while costs messages and log lines; of the connections only the newest may be lost.
TEST_P(AnyMemory, mayBeOut)
{
    const Listener collector;
    SerialLine line;
    std::vector<Fault> faults;
    for (const char *const thread : GetParam())
        faults.push_back({.in = thread, .call = "operator new", .after = -1, .error = ENOMEM});
    Program program({.arguments = allConsumers(collector, line),
                     .gpspipe = R"(echo >>starts; while :; do
                       echo "\$GPGGA,$(cat again),a sentence that a string has no room of its own for"; sleep 0.2; done)",
                     .faults = asText(faults)});
    Peer uplink = collector.accept();
    uplink.send("PASSWORD\r\nOK\r\n");
    Peer first = client(program.port);
    for (Peer *const consumer : {&uplink, &first, static_cast<Peer *>(&line)})
        EXPECT_THAT(consumer->readUntil("own for"), HasSubstr("$GPGGA,,"));

    program.touch("failing");
    const Peer newcomer(program.port);
    EXPECT_TRUE(program.says("[operator new fails]\n"));
    std::this_thread::sleep_for(2s); // the failure lasts: every consumer looks at its mailbox meanwhile
    fs::remove(program.folder / "failing");

    std::ofstream(program.folder / "again") << "again";
    Peer another = client(program.port);
    for (Peer *const consumer : {&uplink, &first, static_cast<Peer *>(&line), &another})
        EXPECT_TRUE(consumer->hears("$GPGGA,again"));
    EXPECT_THAT(program.output(), Not(testing::ContainsRegex("terminate|thread 'navtwine main")));
    EXPECT_EQ(contentOf(program.folder / "starts"), "\n") << "gpspipe goes on meanwhile";
}
INSTANTIATE_TEST_SUITE_P(Faults, AnyMemory,
                         testing::Values(std::vector{mainThread},
                                         std::vector{serverThread, handler, uplinkThread, serial}));

TEST(Program, failsWhenNothingThatIsWantedStarts)
{
    const std::tuple<Fault, std::string, std::string> cases[] = {
        {{mainThread, "pthread_create", 1, EAGAIN, "ERROR: pthread_create() failed for thread 'navtwine main-server-"},
         "--server --server-port $PORT",
         "execution complete"},
        {{mainThread, "pthread_create", 1, EAGAIN, "ERROR: pthread_create() failed for thread 'navtwine main client-"},
         "--client",
         "execution complete"},
        {{mainThread, "pthread_create", 1, EAGAIN, "ERROR: pthread_create() failed for thread 'navtwine main serial-"},
         "--serial /dev/null",
         "execution complete"},
        {{mainThread, "daemon", 0, EAGAIN, "/faulty_navtwine failed to daemonize: errno = 11 : Resource temporarily"},
         "--server --daemonize",
         " unavailable\n"},
    };
    for (const auto &[fault, arguments, last] : cases) {
        Program program({.arguments = "-e " + arguments, .faults = asText({fault})});
        EXPECT_EQ(program.wait(), 1) << arguments;
        EXPECT_THAT(program.output(), testing::AllOf(HasSubstr(fault.says), HasSubstr(last)));
    }
}
