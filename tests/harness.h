#pragma once

#include "support/Descriptor.h"

#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <iostream>
#include <netinet/in.h>
#include <optional>
#include <poll.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

using namespace std::chrono_literals;
namespace fs = std::filesystem;
using std::chrono::milliseconds;
using testing::HasSubstr, testing::StartsWith;

/// Waits until `holds` is true; the limit is generous, since machines under test are slow and busy.
template <typename Predicate>
bool eventually(Predicate holds, milliseconds limit = 30s)
{
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!holds()) {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        std::this_thread::sleep_for(10ms);
    }
    return true;
}

inline std::string contentOf(const fs::path &file)
{
    std::ifstream stream(file);
    return {std::istreambuf_iterator<char>(stream), {}};
}

/// A file or folder in which the kernel tells about a process.
inline fs::path procOf(pid_t process, const char *file) { return fs::path("/proc") / std::to_string(process) / file; }

/// Whether a process is there. A zombie, which nobody reaps in some containers, has no command line any more.
inline bool runs(pid_t process) { return !contentOf(procOf(process, "cmdline")).empty(); }

/// Arguments for the program, and a script for gpspipe.
const std::string server = "-e --server --server-port $PORT --interval 1 --gga ";
const char *const stream = "while echo '$GPGGA,1'; do sleep 0.2; done";

/// How often `text` occurs in `all`.
inline int countOf(const std::string &text, const std::string &all)
{
    int count = 0;
    for (std::size_t at = all.find(text); at != std::string::npos; at = all.find(text, at + text.size()))
        ++count;
    return count;
}

/// A folder that goes with the object, with a `gpspipe` of the test's own in it, a shell script that works there and
/// leaves its process number in the file "pid".
struct FakeGpspipe {
    explicit FakeGpspipe(const std::string &body)
    {
        std::string pattern = fs::temp_directory_path() / "navtwine-test-XXXXXX";
        folder = ::mkdtemp(pattern.data());
        std::ofstream(folder / "gpspipe") << "#!/bin/sh\ncd \"${0%/*}\"; echo $$ >new; mv new pid\n" << body << '\n';
        fs::permissions(folder / "gpspipe", fs::perms::owner_all);
    }
    FakeGpspipe &operator=(FakeGpspipe &&) = delete;
    ~FakeGpspipe()
    {
        std::error_code ignored;
        fs::remove_all(folder, ignored);
    }

    fs::path folder;
};

/// A TCP client on 127.0.0.1, or one end of any other connection.
struct Peer {
    /// Waits until somebody listens.
    explicit Peer(std::uint16_t port) : Peer(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
    {
        const sockaddr_in address{AF_INET, htons(port), {htonl(INADDR_LOOPBACK)}, {}};
        const auto *const generic = reinterpret_cast<const sockaddr *>(&address);
        EXPECT_TRUE(eventually([&] { return ::connect(socket.get(), generic, sizeof address) == 0; }));
    }
    explicit Peer(int connected) : socket(connected) {}

    /// The other side may be gone already: what comes back decides, not what went out.
    void send(const std::string &bytes) const { ::send(socket.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL); }
    /// Whether there is something to read, or to accept.
    [[nodiscard]] bool isReady(milliseconds limit) const
    {
        pollfd waiting{socket.get(), POLLIN, 0};
        return ::poll(&waiting, 1, static_cast<int>(limit.count())) > 0;
    }
    /// Reads until `text` has come, the peer closes, or the limit is over; all that was read since the last call.
    std::string readUntil(const std::string &text, milliseconds limit = 30s)
    {
        std::string all;
        const auto deadline = std::chrono::steady_clock::now() + limit;
        do {
            if (!isReady(10ms))
                continue;
            char bytes[4096];
            const ssize_t size = ::read(socket.get(), bytes, sizeof bytes);
            closed = size <= 0;
            all.append(bytes, closed ? 0 : static_cast<std::size_t>(size));
        } while (!closed && all.find(text) == std::string::npos && std::chrono::steady_clock::now() < deadline);
        return all;
    }
    /// Whether `text` comes before the peer closes.
    bool hears(const std::string &text) { return readUntil(text).find(text) != std::string::npos; }

    KAV::Descriptor socket;
    bool closed = false;
};

/// A free port of 127.0.0.1: one for datagrams, or one that nobody but a server to come can take.
struct Port : Peer {
    explicit Port(int type = SOCK_STREAM) : Peer(::socket(AF_INET, type | SOCK_CLOEXEC, 0))
    {
        const int on = 1;
        sockaddr_in address{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
        auto *const generic = reinterpret_cast<sockaddr *>(&address);
        socklen_t size = sizeof address;
        EXPECT_EQ(::setsockopt(socket.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on), 0);
        EXPECT_EQ(::bind(socket.get(), generic, size), 0);
        EXPECT_EQ(::getsockname(socket.get(), generic, &size), 0);
        number = ntohs(address.sin_port);
    }

    std::uint16_t number;
};

/// A port that takes connections: the uplink's collector.
struct Listener : Port {
    Listener() { EXPECT_EQ(::listen(socket.get(), 5), 0); }
    [[nodiscard]] Peer accept() const { return Peer(isReady(30s) ? ::accept(socket.get(), nullptr, nullptr) : -1); }
};

/// The far end of a serial line, which is a pseudo-terminal.
struct SerialLine : Peer {
    SerialLine() : Peer(::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC)) { EXPECT_EQ(::unlockpt(socket.get()), 0); }
    [[nodiscard]] const char *device() const { return ::ptsname(socket.get()); }
};

struct Start {
    std::string arguments;                   ///< as for a shell, where $PORT is a free port
    std::string gpspipe = "exec sleep 1000"; ///< what stands in for it, a shell script
    std::optional<std::string> faults = {};  ///< given: faulty_navtwine runs, with these (tools/faultyCalls.cpp)
    std::string before = ":";                ///< shell commands of the process that becomes the program
};

/// The program. Its standard output and standard error are one text. It must end in order when the object goes.
struct Program : FakeGpspipe {
    explicit Program(const Start &start) : FakeGpspipe(start.gpspipe), arguments(start.arguments), pid(::fork())
    {
        if (pid != 0)
            return;
        ::closefrom(3); // the test runner's own
        std::ostringstream command;
        command << "cd " << folder << "; PATH=$PWD:$PATH; PORT=" << port << "; " << start.before << "; export FAULT='"
                << start.faults.value_or("") << "'; exec </dev/null >>output 2>&1 " NAVTWINE_EMULATOR " "
                << (start.faults ? NAVTWINE_FAULTY : NAVTWINE_PROGRAM) << ' ' << arguments;
        ::execl("/bin/sh", "sh", "-c", command.str().c_str(), nullptr);
    }
    ~Program()
    {
        if (pid > 0)
            endInOrder();
        EXPECT_THAT(output(), Not(HasSubstr("[a password stays in freed memory]")));
        if (testing::Test::HasFailure())
            std::cerr << "Output of navtwine " << arguments << ":\n" << output() << '\n';
        if (pid > 0) // the last resort
            ::kill(pid, SIGKILL);
    }

    [[nodiscard]] std::string output() const { return contentOf(folder / "output"); }
    /// Waits for a text in the output.
    [[nodiscard]] bool says(const std::string &text) const
    {
        return eventually([&] { return output().find(text) != std::string::npos; });
    }
    /// The number of gpspipe's process; 0 before it told.
    [[nodiscard]] pid_t gpspipe() const { return std::atoi(contentOf(folder / "pid").c_str()); }
    /// Waits for the end, -1 when it does not come; the status is 128 + N for signal N.
    int wait(milliseconds limit = 30s)
    {
        int status = 0;
        if (!eventually([&] { return ::waitpid(pid, &status, WNOHANG) == pid; }, limit))
            return -1;
        pid = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }
    /// Sends a signal, then `wait`; -1, too, when the program has ended already: kill(-1) would reach everybody.
    int signal(int number, milliseconds limit) { return pid > 0 && ::kill(pid, number) == 0 ? wait(limit) : -1; }
    /// SIGINT with the three seconds that users are promised and some for a busy machine; held up it would take five.
    void endInOrder()
    {
        EXPECT_EQ(signal(SIGINT, NAVTWINE_EMULATOR[0] == ' ' ? 4500ms : 30s), 0);
        EXPECT_THAT(output(), HasSubstr("INFO: execution complete\n"));
    }
    [[nodiscard]] fs::path proc(const char *file) const { return procOf(pid, file); }
    /// Makes an empty file in the folder.
    void touch(const char *file) const { std::ofstream(folder / file).close(); }

    const Port reserved;
    const std::uint16_t port = reserved.number;
    const std::string arguments;
    pid_t pid;
};
