#include "harness.h"

struct Fault {
    std::string what;      ///< as faulty_navtwine takes it
    std::string line;      ///< what the log says; nothing when empty
    std::string_view lost; ///< the consumer that the user has to do without

    friend std::ostream &operator<<(std::ostream &stream, const Fault &fault) { return stream << fault.what; }
};

class AnyCall : public testing::TestWithParam<Fault> {};

/// The log tells, every consumer but the lost one gets its stream, nothing stays open, the end is in order.
TEST_P(AnyCall, mayFailOnce)
{
    const Fault &fault = GetParam();
    ::setenv("FAULT", fault.what.c_str(), 1);
    const Listener collector;
    SerialLine line;
    Program program("--server --server-port $PORT --server-passwd pw -e --interval 1 --gga --client-passwd pw"
                    " --client --client-remote-host 127.0.0.1 --client-port " +
                        std::to_string(collector.number) + " --serial " + line.device(),
                    "while echo '$GPGGA,1'; do sleep 0.2; done");
    ::unsetenv("FAULT");
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

const char *const program = "faulty_navtwine";
const char *const server = "main-server-thr";
const char *const handler = "client-handler-";
const char *const uplink = "main client-thr";
const char *const serial = "main serial-thr";

const struct {
    std::string thread; ///< as the system names it
    std::vector<std::string> calls;
    int skipped;             ///< calls that go well before
    std::vector<int> errors; ///< 0: a short count
    std::string line = "";
    std::string_view lost = "";
} groups[] = {
    {program, {"open64", "getrlimit64", "setrlimit64", "poll", "write", "fstat64", "eventfd"}, 0, {EMFILE}},
    {program, {"fgets"}, 1, {EINTR}},
    {program, {"popen"}, 0, {EMFILE}, "failed to popen stream for reading output of command 'gpspipe -r'"},
    {program, {"pthread_create"}, 0, {EAGAIN}, "'navtwine main-server-thread': Resource", "server"},
    {program, {"pthread_create"}, 1, {EAGAIN}, "'navtwine main client-thread': Resource", "uplink"},
    {program, {"pthread_create"}, 2, {EAGAIN}, "'navtwine main serial-thread': Resource", "serial"},
    {program, {"pthread_create"}, 3, {EAGAIN}, "'navtwine stop-thread': Resource"},
    {server, {"socket"}, 0, {EMFILE}, "ERROR: socket() failed returning invalid descriptor: -1\n", "server"},
    {server, {"setsockopt", "getrlimit64"}, 0, {ENOBUFS}},
    {server, {"setsockopt"}, 1, {ENOMEM}, "ERROR: setsockopt() failed for socket descriptor: ", "server"},
    {server, {"bind", "listen"}, 0, {EADDRINUSE}, "() failed for socket descriptor: ", "server"},
    {server, {"socket"}, 1, {EMFILE}, "ERROR: no client is accepted until a descriptor is free: error code: 24"},
    {server, {"poll"}, 1, {ENOMEM}},
    {server, {"accept4"}, 0, {EINTR, EAGAIN, ECONNABORTED, EMFILE}},
    {server, {"pthread_create"}, 0, {EAGAIN}, "'navtwine client-handler-thread for socket descriptor: "},
    {handler, {"send"}, 0, {EPIPE}, "ERROR: send() of [PASSWORD_PROMPT] failed with error code: 32 : Broken pipe\n"},
    {handler, {"send"}, 1, {EPIPE}, "ERROR: send() of [PASSWORD_OK] failed with error code: 32 : Broken pipe\n"},
    {handler, {"send"}, 2, {EAGAIN, EINTR}, "ERROR: send() of [NMEA STRING DATA] failed for client: "},
    {handler, {"send"}, 2, {ENOBUFS, EPIPE}, "client is unreachable"},
    {handler, {"send"}, 2, {0}},
    {handler, {"recv"}, 0, {EINTR, EAGAIN}},
    {handler, {"recv", "poll"}, 1, {ECONNRESET}, "ERROR: read_line_from_socket() failed or timed out\n"},
    {uplink, {"gethostbyname2_r", "socket", "connect"}, 0, {EMFILE}, "() failed with error code: "},
    {uplink, {"setsockopt"}, 0, {ENOBUFS}},
    {uplink, {"recv"}, 0, {ECONNRESET}, "while listening for a [PASSWORD PROMPT] message\n"},
    {uplink, {"recv"}, 1, {EINTR}},
    {uplink, {"recv"}, 12, {ECONNRESET}, "while listening for a [PASSWORD OK] message\n"},
    {uplink, {"send"}, 0, {EPIPE}, "send() of [PASSWORD SECRET] failed : error code = 32 : Broken pipe\n"},
    {uplink, {"send"}, 1, {EAGAIN, EINTR, ENOBUFS, EPIPE}, "ERROR: send() of [NMEA STRING DATA] failed : error code"},
    {uplink, {"send"}, 1, {0}},
    {serial, {"tcgetattr", "tcsetattr", "tcflush"}, 0, {EIO}},
    {serial, {"ioctl"}, 0, {EIO}, "ERROR: RS485 configurating error. errno:5 - Input/output error\n"},
    {serial, {"write"}, 3, {EIO}, "ERROR: serial write() of [NMEA STRING DATA] failed : error code = 5 : Input"},
    {serial, {"write"}, 3, {EINTR, 0}},
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
