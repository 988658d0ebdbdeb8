#include "harness.h"

struct Fault {
    std::string_view thread; ///< as the system names it
    std::string_view call;
    int skipped; ///< calls that go well before
    int error;   ///< 0: a short count
    std::string line = "";
    std::string_view lost = ""; ///< the consumer that the user has to do without

    friend std::ostream &operator<<(std::ostream &stream, const Fault &fault)
    {
        return stream << fault.thread << '|' << fault.call << '|' << fault.skipped << '|' << fault.error;
    }
};

class AnyCall : public testing::TestWithParam<Fault> {};

/// The log tells, every consumer but the lost one gets its stream, nothing stays open, the end is in order.
TEST_P(AnyCall, mayFailOnce)
{
    const Fault &fault = GetParam();
    ::setenv("FAULT", testing::PrintToString(fault).c_str(), 1);
    const Listener collector;
    SerialLine line;
    Program program("--server --server-port $PORT --server-passwd pw -e --interval 1 --gga --client-passwd pw"
                    " --client --client-remote-host 127.0.0.1 --client-port " +
                        std::to_string(collector.number) + " --serial " + line.device(),
                    "while echo '$GPGGA,1'; do sleep 0.2; done");
    const auto streams = [](Peer &peer) { return peer.readUntil("A,1", 3s).find("A,1") != std::string::npos; };
    Peer client(-1);
    Peer uplink(-1);
    std::ptrdiff_t expected = 1; // gpspipe's
    if (fault.lost != "server") {
        EXPECT_TRUE(eventually([&] { return streams(client = loggedIn(program.port, "pw\r\n")); }));
        expected += 2;
    }
    if (fault.lost != "uplink") {
        EXPECT_TRUE(eventually([&] {
            uplink = collector.accept();
            uplink.send("PASSWORD\r\nOK\r\n");
            return streams(uplink);
        }));
        expected += 1;
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
    EXPECT_THAT(output, HasSubstr(std::string(fault.call) + " fails]\n"));
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

const Fault faults[] = {
    {program, "open64", 0, EMFILE},
    {program, "getrlimit64", 0, EPERM},
    {program, "setrlimit64", 0, EPERM},
    {program, "poll", 0, EINTR},
    {program, "write", 0, EAGAIN},
    {program, "fgets", 1, EINTR},
    {program, "popen", 0, EMFILE, "failed to popen stream for reading output of command 'gpspipe -r'"},
    {program, "pthread_create", 0, EAGAIN, "'navtwine main-server-thread': Resource", "server"},
    {program, "pthread_create", 1, EAGAIN, "'navtwine main client-thread': Resource", "uplink"},
    {program, "pthread_create", 2, EAGAIN, "'navtwine main serial-thread': Resource", "serial"},
    {server, "socket", 0, EMFILE, "socket() failed returning", "server"},
    {server, "setsockopt", 0, ENOBUFS},
    {server, "setsockopt", 1, ENOMEM, "setsockopt() failed", "server"},
    {server, "bind", 0, EADDRINUSE, "bind() failed", "server"},
    {server, "listen", 0, EADDRINUSE, "listen() failed", "server"},
    {server, "socket", 1, EMFILE, "no client is accepted"},
    {server, "getrlimit64", 0, EPERM},
    {server, "poll", 3, ENOMEM},
    {server, "accept4", 0, EINTR},
    {server, "accept4", 0, ECONNABORTED},
    {server, "accept4", 0, EMFILE},
    {server, "pthread_create", 0, EAGAIN, "client-handler-thread for socket"},
    {handler, "send", 0, EPIPE, "send() of [PASSWORD_PROMPT] failed"},
    {handler, "send", 1, EPIPE, "send() of [PASSWORD_OK] failed"},
    {handler, "send", 2, EAGAIN, "error code = 11"},
    {handler, "send", 2, EINTR, "error code = 4"},
    {handler, "send", 2, ENOBUFS, "client is unreachable"},
    {handler, "send", 2, EPIPE, "client is unreachable"},
    {handler, "send", 2, 0},
    {handler, "recv", 0, EINTR},
    {handler, "recv", 0, ECONNRESET, "failed to login.\n"},
    {handler, "poll", 1, ENOMEM, "failed or timed out"},
    {uplink, "gethostbyname2_r", 0, EMFILE, "gethostbyname2_r() failed"},
    {uplink, "socket", 0, EMFILE, "socket() failed with error code: 24"},
    {uplink, "setsockopt", 0, ENOBUFS},
    {uplink, "connect", 0, ETIMEDOUT, "connect() failed with error code: 110"},
    {uplink, "recv", 0, ECONNRESET, "[PASSWORD PROMPT] message\n"},
    {uplink, "recv", 1, EINTR},
    {uplink, "recv", 12, ECONNRESET, "[PASSWORD OK] message\n"},
    {uplink, "send", 0, EPIPE, "send() of [PASSWORD SECRET] failed"},
    {uplink, "send", 1, EAGAIN, "error code = 11"},
    {uplink, "send", 1, EINTR, "error code = 4"},
    {uplink, "send", 1, ENOBUFS, "error code = 105"},
    {uplink, "send", 1, EPIPE, "error code = 32"},
    {uplink, "send", 1, 0},
    {serial, "tcgetattr", 0, EIO},
    {serial, "tcsetattr", 0, EIO},
    {serial, "tcflush", 0, EIO},
    {serial, "ioctl", 0, EIO, "RS485 configurating error. errno:5"},
    {serial, "write", 3, EIO, "serial write() of [NMEA STRING DATA] failed"},
    {serial, "write", 3, EINTR},
    {serial, "write", 3, 0},
    {"stop-thread", "opendir", 0, EMFILE},
};
INSTANTIATE_TEST_SUITE_P(Faults, AnyCall, testing::ValuesIn(faults));
