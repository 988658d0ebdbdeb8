#include "harness.h"

#include <termios.h>

struct Fault {
    std::string what;      ///< as faulty_navtwine takes it
    std::string line;      ///< what the log says; nothing when empty
    std::string_view lost; ///< the consumer that the user has to do without

    friend std::ostream &operator<<(std::ostream &stream, const Fault &fault) { return stream << fault.what; }
};

class AnyCall : public testing::TestWithParam<Fault> {};

static std::string allConsumers(const Listener &collector, const SerialLine &line)
{
    return "--server --server-port $PORT --server-passwd pw -e --interval 1 --gga --client-passwd pw --client"
           " --client-remote-host 127.0.0.1 --client-port " +
           std::to_string(collector.number) + " --serial " + line.device();
}

/// A program in which one call fails.
struct FaultyProgram : Program {
    FaultyProgram(const std::string &fault, const std::string &arguments, const std::string &gpspipeBody)
        : Program((::setenv("FAULT", fault.c_str(), 1), arguments), gpspipeBody)
    {
        ::unsetenv("FAULT");
    }
};

/// The log tells, every consumer but the lost one gets its stream, nothing stays open, the end is in order.
TEST_P(AnyCall, mayFailOnce)
{
    const Fault &fault = GetParam();
    const Listener collector;
    SerialLine line;
    FaultyProgram program(fault.what, allConsumers(collector, line), "while echo '$GPGGA,1'; do sleep 0.2; done");
    const auto streams = [](Peer &peer) { return peer.readUntil("A,1").find("A,1") != std::string::npos; };
    Peer client(-1);
    Peer uplink(-1);
    std::ptrdiff_t expected = 1; // gpspipe's
    if (fault.lost != "uplink") {
        EXPECT_TRUE(eventually([&] {
            uplink = Peer(-1); // or it would wait for us
            uplink = collector.accept();
            uplink.send("PASSWORD\r\nOK\r\n");
            return streams(uplink);
        }));
        expected += 1;
    }
    if (fault.lost != "server") {
        EXPECT_TRUE(eventually([&] { return streams(client = loggedIn(program.port, "pw\r\n")); }));
        expected += 2;
    }
    const std::string written = line.readUntil("A,1", 3s);
    EXPECT_EQ(written.starts_with("$GPGGA,1"), fault.lost != "serial");
    EXPECT_THAT(written, Not(testing::ContainsRegex("[^\n][$]"))) << "a cut line";
    EXPECT_TRUE(eventually([&] {
        return expected == std::ranges::count_if(fs::directory_iterator(program.proc("fd")), [](const auto &entry) {
                   std::error_code gone;
                   const std::string target = fs::read_symlink(entry, gone);
                   const bool emulators = std::stoi(entry.path().filename()) >= 100;
                   return !emulators && (target.starts_with("socket:") || target.starts_with("pipe:"));
               });
    })) << "descriptors stay behind";
    EXPECT_EQ(program.interrupt(), 0);
    const std::string output = program.output();
    EXPECT_THAT(output, HasSubstr(" fails]\n"));
    EXPECT_THAT(output, HasSubstr(fault.line));
    if (fault.line.empty()) { // a pseudo-terminal is no RS485 port
        EXPECT_THAT(output, Not(testing::ContainsRegex("ERROR: [^R]")));
    }
    const std::string_view disconnected = "client is unreachable";
    EXPECT_EQ(output.find(disconnected) != output.npos, fault.line == disconnected);
}

const char *const onMain = "faulty_navtwine";
const char *const onServer = "main-server-thr";
const char *const onHandler = "client-handler-";
const char *const onUplink = "main client-thr";
const char *const onSerial = "main serial-thr";

const struct {
    std::string thread; ///< as the system names it
    std::vector<std::string> calls;
    int skipped;             ///< calls that go well before
    std::vector<int> errors; ///< 0: a short count
    std::string line = "";
    std::string_view lost = "";
} groups[] = {
    {onMain, {"open64", "getrlimit64", "setrlimit64", "poll", "write", "fstat64", "eventfd"}, 0, {EMFILE}},
    {onMain, {"fgets"}, 1, {EINTR}},
    {onMain, {"popen"}, 0, {EMFILE}, "failed to popen stream for reading output of command 'gpspipe -r'"},
    {onMain, {"pthread_create"}, 0, {EAGAIN}, "'navtwine rehearsal': Resource"},
    {onMain, {"pthread_create"}, 1, {EAGAIN}, "'navtwine main-server-thread': Resource", "server"},
    {onMain, {"pthread_create"}, 2, {EAGAIN}, "'navtwine main client-thread': Resource", "uplink"},
    {onMain, {"pthread_create"}, 3, {EAGAIN}, "'navtwine main serial-thread': Resource", "serial"},
    {onMain, {"pthread_create"}, 4, {EAGAIN}, "'navtwine stop-thread': Resource"},
    {onServer, {"socket"}, 0, {EMFILE}, "ERROR: socket() failed returning invalid descriptor: -1\n", "server"},
    {onServer, {"setsockopt", "getrlimit64"}, 0, {ENOBUFS}},
    {onServer, {"setsockopt"}, 1, {ENOMEM}, "ERROR: setsockopt() failed for socket descriptor: ", "server"},
    {onServer, {"bind", "listen"}, 0, {EADDRINUSE}, "() failed for socket descriptor: ", "server"},
    {onServer, {"socket"}, 1, {EMFILE}, "ERROR: no client is accepted until a descriptor is free: error code: 24"},
    {onServer, {"poll"}, 1, {ENOMEM}},
    {onServer, {"accept4"}, 0, {EINTR, EAGAIN, ECONNABORTED, EMFILE}},
    {onServer, {"pthread_create"}, 0, {EAGAIN}, "'navtwine client-handler-thread for socket descriptor: "},
    {onHandler, {"send"}, 0, {EPIPE}, "ERROR: send() of [PASSWORD_PROMPT] failed with error code: 32 : Broken pipe\n"},
    {onHandler, {"send"}, 1, {EPIPE}, "ERROR: send() of [PASSWORD_OK] failed with error code: 32 : Broken pipe\n"},
    {onHandler, {"send"}, 2, {EAGAIN, EINTR}, "ERROR: send() of [NMEA STRING DATA] failed for client: "},
    {onHandler, {"send"}, 2, {ENOBUFS, EPIPE}, "client is unreachable"},
    {onHandler, {"send"}, 2, {0}},
    {onHandler, {"recv"}, 0, {EINTR, EAGAIN}},
    {onHandler, {"recv", "poll"}, 1, {ECONNRESET}, "ERROR: read_line_from_socket() failed or timed out\n"},
    {onUplink, {"gethostbyname2_r", "socket", "connect"}, 0, {EMFILE}, "() failed with error code: "},
    {onUplink, {"setsockopt"}, 5, {ENOBUFS}}, // the send buffer and five for dead peers
    {onUplink, {"recv"}, 0, {ECONNRESET}, "while listening for a [PASSWORD PROMPT] message\n"},
    {onUplink, {"recv"}, 1, {EINTR}},
    {onUplink, {"recv"}, 12, {ECONNRESET}, "while listening for a [PASSWORD OK] message\n"},
    {onUplink, {"send"}, 0, {EPIPE}, "send() of [PASSWORD SECRET] failed : error code = 32 : Broken pipe\n"},
    {onUplink, {"send"}, 1, {EAGAIN, EINTR, ENOBUFS, EPIPE}, "ERROR: send() of [NMEA STRING DATA] failed : error code"},
    {onUplink, {"send"}, 1, {0}},
    {onSerial, {"tcgetattr", "tcsetattr", "tcflush"}, 0, {EIO}},
    {onSerial, {"ioctl"}, 0, {EIO}, "ERROR: RS485 configurating error. errno:5 - Input/output error\n"},
    {onSerial, {"write"}, 3, {EIO}, "ERROR: serial write() of [NMEA STRING DATA] failed : error code = 5 : Input"},
    {onSerial, {"write"}, 3, {EINTR, 0}},
    {"stop-thread", {"opendir"}, 0, {EMFILE}},
};

static std::vector<Fault> faults()
{
    std::vector<Fault> all;
    for (const auto &[thread, calls, skipped, errors, line, lost] : groups)
        for (const std::string &call : calls)
            for (const int error : errors)
                all.push_back(
                    {thread + '|' + call + '|' + std::to_string(skipped) + '|' + std::to_string(error), line, lost});
    return all;
}
INSTANTIATE_TEST_SUITE_P(Faults, AnyCall, testing::ValuesIn(faults()));

class AnyThread : public testing::TestWithParam<const char *> {};

/// Memory that is out for a while costs messages and log lines; of the connections only the newest may be lost.
TEST_P(AnyThread, outlivesMemoryThatIsOut)
{
    const Listener collector;
    SerialLine line;
    FaultyProgram program(
        std::string(GetParam()) + "|operator new", allConsumers(collector, line),
        R"(while echo "\$GPGGA,$(cat again),a sentence that a string has no room of its own for"; do sleep 0.2; done)");
    Peer uplink = collector.accept();
    uplink.send("PASSWORD\r\nOK\r\n");
    Peer client = loggedIn(program.port, "pw\r\n");
    for (Peer *const consumer : {&uplink, &client, static_cast<Peer *>(&line)})
        EXPECT_THAT(consumer->readUntil("own for"), HasSubstr("$GPGGA,,"));

    std::ofstream(program.folder / "out-of-memory");
    const Peer newcomer(program.port);
    EXPECT_TRUE(newcomer.socket.isOpen() && program.says("[operator new fails]\n"));
    std::this_thread::sleep_for(2s); // the failure lasts: every consumer looks at its mailbox meanwhile
    fs::remove(program.folder / "out-of-memory");

    std::ofstream(program.folder / "again") << "again";
    Peer another = loggedIn(program.port, "pw\r\n");
    for (Peer *const consumer : {&uplink, &client, static_cast<Peer *>(&line), &another})
        EXPECT_THAT(consumer->readUntil("again"), HasSubstr("$GPGGA,again"));
    EXPECT_EQ(program.interrupt(), 0);
    EXPECT_THAT(program.output(), Not(testing::ContainsRegex("terminate|thread 'navtwine main")));
}
INSTANTIATE_TEST_SUITE_P(Faults, AnyThread, testing::Values(onMain, onServer, onHandler, onUplink, onSerial));

TEST(Program, failsWhenNothingThatIsWantedStarts)
{
    FaultyProgram program("faulty_navtwine|pthread_create|1|11", "-e --server --server-port $PORT", "exit 1");
    EXPECT_EQ(program.wait(), 1);
    EXPECT_THAT(program.output(), HasSubstr("ERROR: pthread_create() failed for thread 'navtwine main-server-thread'"));
}

/// A busy log socket is there: EAGAIN.
TEST(Logger, filesMessagesAsADaemonsByTheirLevel)
{
    FaultyProgram program("faulty_navtwine|connect|0|11", "--loglevel 50 --serial /dev/none", "exit 1");
    EXPECT_EQ(program.wait(), 1);
    EXPECT_THAT(program.output(), HasSubstr("[openlog 24]\n[syslog 6]INFO: Starting executable: "));
    EXPECT_THAT(program.output(), HasSubstr("[syslog 3]ERROR: failed to open /dev/none: errno: 2\n"));
}

/// Six fit into the kernel's queue; the seventh `accept` finds it empty, and only then the first handler is made.
TEST(Server, takesAllThatWaitBeforeItMakesAHandler)
{
    FaultyProgram program("main-server-thr|accept4|6|11", "-e --server --server-port $PORT --gga", "exec sleep 1000");
    EXPECT_TRUE(program.says("waiting for client connections...\n"));
    ::kill(program.pid, SIGSTOP);
    ASSERT_EQ(::waitpid(program.pid, nullptr, WUNTRACED), program.pid); // all its threads have stopped
    std::vector<Peer> clients;
    while (clients.size() < 6)
        clients.emplace_back(program.port);
    ::kill(program.pid, SIGCONT);
    const std::string handlers =
        "INFO: A remote client is trying to connect.\nINFO: waiting for client connections...\n";
    std::string expected = "[accept4 fails]\n";
    for (const Peer &client : clients)
        expected += client.socket.isOpen() ? handlers : "";
    EXPECT_TRUE(program.says(expected)) << program.output();
}

/// Idle, blocked in `write`, and ended the hard way because a system log that takes nothing holds the server, and so
/// main.
TEST(SerialLine, isEmptiedOnEveryRoadToTheEnd)
{
    const std::string flood = "yes \"$(printf '$GPGGA,%0480d' 0)\"";
    const std::tuple<std::string, std::string, bool> cases[] = {
        {"exec sleep 1000", "-e --serial ", false},
        {flood, "-e --serial ", false},
        {flood, "--server --server-port $PORT --serial ", true},
    };
    for (const auto &[gpspipe, options, hardEnd] : cases) {
        const SerialLine line; // that nobody reads
        FaultyProgram program("faulty_navtwine|connect|0|11", "--interval 1 --gga " + options + line.device(), gpspipe);
        EXPECT_TRUE(program.says("RS485 configurating error"));
        const KAV::Descriptor port(::open(line.device(), O_RDWR | O_NOCTTY | O_CLOEXEC));
        EXPECT_EQ(::tcflow(port.get(), TCOOFF), 0);
        std::this_thread::sleep_for(2500ms); // the thread looks once a second, and is blocked with the next batch
        std::ofstream(program.folder / "stalled-log");
        const Peer client = hardEnd ? Peer(program.port) : Peer(-1);
        EXPECT_EQ(client.socket.isOpen(), hardEnd);
        EXPECT_EQ(program.interrupt(), 0) << options;
        EXPECT_THAT(program.output(), HasSubstr("[tcflush " + std::to_string(TCOFLUSH) + "]\n")) << options;
        EXPECT_EQ(program.output().find("execution complete") == std::string::npos, hardEnd) << options;
    }
}
