#include "harness.h"

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
    Peer peer(port);
    peer.send("oh\r\nthe-second-secret-is-longer-than-the-first\r\n");
    return peer;
}

struct Faults {
    const char *name, *lost; ///< the consumers that the user has to do without
    std::string list;        ///< as faulty_navtwine takes them (tools/faultyCalls.cpp)
    std::vector<const char *> log;
};

class AnyCall : public testing::TestWithParam<Faults> {};

/// The log tells, every consumer but the lost ones gets its stream, nothing stays open, the end is in order.
TEST_P(AnyCall, mayFail)
{
    const std::string lost = GetParam().lost;
    const Listener collector;
    SerialLine line;
    Program program({.arguments = allConsumers(collector, line), .gpspipe = stream, .faults = GetParam().list});
    Peer streaming(-1);
    Peer uplink(-1);
    std::ptrdiff_t expected = 1; // gpspipe's
    if (lost.find("uplink") == lost.npos) {
        EXPECT_TRUE(eventually([&] {
            uplink = Peer(-1); // or it would wait for us
            uplink = collector.accept();
            uplink.send("PASSWORD\r\nOK\r\n");
            return uplink.hears("A,1");
        }));
        expected += 1;
    }
    if (lost.find("server") == lost.npos) {
        EXPECT_TRUE(eventually([&] { return (streaming = client(program.port)).hears("A,1"); }));
        expected += 2;
    }
    const std::string written = line.readUntil("A,1", 3s);
    EXPECT_EQ(written.starts_with("$GPGGA,1"), lost.find("serial") == lost.npos);
    EXPECT_THAT(written, Not(testing::ContainsRegex("[^\n][$]"))) << "a cut line";
    EXPECT_TRUE(eventually([&] {
        return expected == std::ranges::count_if(fs::directory_iterator(program.proc("fd")), [](const auto &entry) {
                   std::error_code gone;
                   const std::string target = fs::read_symlink(entry, gone);
                   const bool emulators = std::stoi(entry.path().filename()) >= 100;
                   return !emulators && (target.starts_with("socket:") || target.starts_with("pipe:"));
               });
    })) << "descriptors stay behind";
    program.endInOrder();
    const std::string output = program.output();
    EXPECT_EQ(countOf(" fails]\n", output), countOf(" E", GetParam().list) + countOf(" short", GetParam().list));
    for (const char *const text : GetParam().log)
        EXPECT_THAT(output, HasSubstr(text));
    if (GetParam().log.empty()) { // a pseudo-terminal is no RS485 port
        EXPECT_THAT(output, Not(testing::ContainsRegex("ERROR: [^R]")));
        EXPECT_EQ(countOf("is trying to connect", output), 1);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Faults, AnyCall,
    testing::Values(
        Faults{"unnoticed",
               "",
               "navtwine: open64 EMFILE getrlimit64 EPERM eventfd EMFILE fstat64 EIO fgets 1 EINTR "
               "server-thr: setsockopt ENOBUFS getrlimit64 EPERM poll ENOMEM accept4 EINTR EAGAIN ECONNABORTED EMFILE "
               "handler: recv EINTR EAGAIN send 4 short "
               "client-thr: setsockopt ENOBUFS 2 ENOBUFS recv EINTR send 1 short "
               "serial-thr: tcgetattr EIO tcsetattr EIO tcflush EIO write EINTR short stop-thread: opendir EMFILE",
               {}},
        Faults{"told",
               "",
               "navtwine: popen EMFILE pthread_create EAGAIN server-thr: socket 1 EMFILE pthread_create EAGAIN "
               "handler: recv ECONNRESET poll 1 ENOMEM serial-thr: ioctl EIO write EIO",
               {"ERROR: kavGPSGetNMEAStrings(): failed to popen stream for reading output of command 'gpspipe -r'\n",
                "ERROR: pthread_create() failed for thread 'navtwine rehearsal': Resource temporarily unavailable\n",
                "ERROR: no client is accepted until a descriptor is free: error code: 24 : Too many open files\n",
                "'navtwine client-handler-thread for socket descriptor: ", "ERROR: read_line_from_socket() failed or t",
                "ERROR: failed to login.\n", "ERROR: RS485 configurating error. errno:5 - Input/output error\n",
                "ERROR: serial write() of [NMEA STRING DATA] failed : error code = 5 : Input/output error\n"}},
        Faults{"handshake",
               "",
               "handler: send EPIPE 1 EPIPE 1 EPIPE 5 EAGAIN EINTR ENOBUFS 4 EPIPE",
               {"ERROR: send() of [PASSWORD_PROMPT] failed with error code: 32 : Broken pipe\n",
                "ERROR: send() of [PASSWORD_WRONG] failed with error code: 32 : Broken pipe\n",
                "ERROR: send() of [PASSWORD_OK] failed with error code: 32 : Broken pipe\n",
                " : error code = 11 : Resource temporarily unavailable\n", " : error code = 4 : Interrupted system",
                "ERROR: send() of [NMEA STRING DATA] failed for client: ",
                "INFO: client is unreachable - disconnecting socket\n"}},
        Faults{"uplink",
               "",
               "client-thr: gethostbyname2_r EMFILE socket EMFILE connect ECONNREFUSED recv ECONNRESET 10 ECONNRESET "
               "send 1 EPIPE 1 EAGAIN 1 EPIPE",
               {"ERROR: connect_to_host() : gethostbyname2_r() failed with error code: ",
                "ERROR: connect_to_host() : socket() failed with error code: 24 : Too many open files\n",
                "ERROR: connect_to_host() : connect() failed with error code: 111 : Connection refused\nERROR: "
                "connect_to_host() failed. (see error message above for reason) : retrying login in 30000 ms...\n",
                "ERROR: client authentificate:send() of [PASSWORD SECRET] failed : error code = 32 : Broken pipe\n",
                "ERROR: send() of [NMEA STRING DATA] failed : error code = 11 : Resource temporarily unavailable\n",
                "ERROR: send() of [NMEA STRING DATA] failed : error code = 32 : Broken pipe\n"}},
        Faults{"threads",
               "uplink serial",
               "navtwine: pthread_create 2 EAGAIN EAGAIN EAGAIN",
               {"main client-thread': Resource", "main serial-thread': Resource", "stop-thread': Resource"}},
        Faults{"noSocket", "server", "server-thr: socket EMFILE", {"ERROR: socket() failed returning invalid desc"}},
        Faults{"noReuse", "server", "server-thr: setsockopt 1 ENOMEM", {"ERROR: setsockopt() failed for socket des"}},
        Faults{"noPort", "server", "server-thr: bind EADDRINUSE", {"ERROR: bind() failed for socket descriptor: "}},
        Faults{"noQueue", "server", "server-thr: listen EADDRINUSE", {"ERROR: listen() failed for socket descr"}}),
    [](const auto &row) { return row.param.name; });

class AnyMemory : public testing::TestWithParam<const char *> {};

/// Memory that is out for a while costs messages and log lines; of the connections only the newest may be lost.
TEST_P(AnyMemory, mayBeOut)
{
    const Listener collector;
    SerialLine line;
    Program program({.arguments = allConsumers(collector, line),
                     .gpspipe = R"(echo >>starts; while :; do
                       echo "\$GPGGA,$(cat again),a sentence that a string has no room of its own for"; sleep 0.2; done)",
                     .faults = GetParam()});
    Peer uplink = collector.accept();
    uplink.send("PASSWORD\r\nOK\r\n");
    Peer first = client(program.port);
    for (Peer *const consumer : {&uplink, &first, static_cast<Peer *>(&line)})
        EXPECT_THAT(consumer->readUntil("own for"), HasSubstr("$GPGGA,,"));

    program.touch("failing");
    const Peer newcomer(program.port);
    EXPECT_TRUE(program.says("[operator_new fails]\n"));
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
                         testing::Values("navtwine: operator_new -1 ENOMEM",
                                         "server-thr: operator_new -1 ENOMEM handler: -1 ENOMEM client-thr: -1 ENOMEM "
                                         "serial-thr: -1 ENOMEM"));

TEST(Program, failsWhenNothingThatIsWantedStarts)
{
    const std::tuple<const char *, const char *, const char *> cases[] = {
        {"--server --server-port $PORT", "pthread_create 1 EAGAIN", "ERROR: pthread_create() failed for thread 'navtw"},
        {"--client", "pthread_create 1 EAGAIN", "ERROR: pthread_create() failed for thread 'navtwine main client-"},
        {"--serial /dev/null", "pthread_create 1 EAGAIN", "ERROR: pthread_create() failed for thread 'navtwine main s"},
        {"--daemonize --server", "daemon EAGAIN", "/faulty_navtwine failed to daemonize: errno = 11 : Resource temp"},
    };
    for (const auto &[arguments, fault, text] : cases) {
        Program program({.arguments = std::string("-e ") + arguments, .faults = std::string("navtwine: ") + fault});
        EXPECT_EQ(program.wait(), 1) << arguments;
        EXPECT_THAT(program.output(), HasSubstr(text));
    }
}
