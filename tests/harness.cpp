#include "harness.h"

#include <arpa/inet.h>
#include <csignal>
#include <fstream>
#include <iterator>
#include <poll.h>
#include <pty.h>
#include <set>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

using KAV::Descriptor;
namespace fs = std::filesystem;

namespace {

fs::path processFolder(pid_t pid) { return fs::path("/proc") / std::to_string(pid); }

sockaddr_in loopback(std::uint16_t port)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

} // namespace

FakeGpspipe::FakeGpspipe(const std::string &body)
{
    std::string pattern = (fs::temp_directory_path() / "navtwine-test-XXXXXX").string();
    folder = ::mkdtemp(pattern.data());
    std::ofstream(folder / "gpspipe") << "#!/bin/sh\n" << body << '\n';
    fs::permissions(folder / "gpspipe", fs::perms::owner_all);
}

FakeGpspipe::~FakeGpspipe()
{
    std::error_code ignored;
    fs::remove_all(folder, ignored);
}

std::string FakeGpspipe::content(const char *file) const
{
    std::ifstream stream(folder / file);
    return {std::istreambuf_iterator<char>(stream), {}};
}

std::size_t count(pid_t pid, const char *what)
{
    const fs::directory_iterator all(processFolder(pid) / what);
    return static_cast<std::size_t>(std::distance(begin(all), end(all)));
}

std::uint16_t listeningPort(pid_t pid)
{
    std::set<std::string> sockets;
    std::error_code ignored;
    for (const auto &entry : fs::directory_iterator(processFolder(pid) / "fd", ignored))
        sockets.insert(fs::read_symlink(entry.path(), ignored).string());
    std::ifstream table(processFolder(pid) / "net/tcp");
    for (std::string row; std::getline(table, row);) {
        unsigned int port = 0;
        unsigned int state = 0;
        unsigned int inode = 0;
        const int found = std::sscanf(row.c_str(), "%*u: %*x:%x %*s %x %*s %*s %*s %*s %*s %u", &port, &state, &inode);
        if (found == 3 && state == 0x0A && sockets.count("socket:[" + std::to_string(inode) + "]") > 0)
            return static_cast<std::uint16_t>(port);
    }
    return 0;
}

Program::Program(const std::vector<std::string> &arguments, const std::string &gpspipeBody, int openFiles)
    : gpspipe(gpspipeBody)
{
    std::string command = "cd " + gpspipe.folder.string() + " && PATH=" + gpspipe.searchPath() + " && ulimit -n " +
                          std::to_string(openFiles) + " && exec >>output 2>&1 " NAVTWINE_EMULATOR NAVTWINE_PROGRAM;
    for (const std::string &argument : arguments)
        command += " '" + argument + "'";
    pid = ::fork();
    if (pid != 0)
        return;
    ::closefrom(3); // the test runner's own would count against `openFiles`
    ::execl("/bin/sh", "sh", "-c", command.c_str(), nullptr);
}

Program::~Program()
{
    if (pid > 0 && interrupt() < 0) {
        ::kill(pid, SIGKILL);
        ::waitpid(pid, nullptr, 0);
    }
}

std::uint16_t Program::port() const
{
    EXPECT_TRUE(eventually([this] { return listeningPort(pid) != 0; })) << output();
    return listeningPort(pid);
}

int Program::wait(std::chrono::milliseconds limit)
{
    int status = 0;
    if (!eventually([&] { return ::waitpid(pid, &status, WNOHANG) == pid; }, limit))
        return -1;
    pid = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

int Program::interrupt()
{
    ::kill(pid, SIGINT);
    return wait(10s);
}

Peer::Peer(std::uint16_t port) : socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
{
    const sockaddr_in address = loopback(port);
    EXPECT_EQ(::connect(socket.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
}

void Peer::send(const std::string &bytes) const
{
    // The other side may be gone already: what comes back decides, not what went out.
    static_cast<void>(::send(socket.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL));
}

std::string Peer::readUntil(const std::string &text, std::chrono::milliseconds limit)
{
    std::string all;
    const auto deadline = std::chrono::steady_clock::now() + limit;
    do {
        pollfd waiting{socket.get(), POLLIN, 0};
        if (::poll(&waiting, 1, 10) <= 0)
            continue;
        char bytes[4096];
        const ssize_t size = ::read(socket.get(), bytes, sizeof bytes);
        closed = size <= 0;
        all.append(bytes, closed ? 0 : static_cast<std::size_t>(size));
    } while (!closed && all.find(text) == std::string::npos && std::chrono::steady_clock::now() < deadline);
    return all;
}

Descriptor openOnFreePort(int type, std::uint16_t &port)
{
    Descriptor socket(::socket(AF_INET, type | SOCK_CLOEXEC, 0));
    sockaddr_in address = loopback(0);
    socklen_t size = sizeof address;
    EXPECT_EQ(::bind(socket.get(), reinterpret_cast<const sockaddr *>(&address), size), 0);
    EXPECT_TRUE(type != SOCK_STREAM || ::listen(socket.get(), 5) == 0);
    EXPECT_EQ(::getsockname(socket.get(), reinterpret_cast<sockaddr *>(&address), &size), 0);
    port = ntohs(address.sin_port);
    return socket;
}

Peer acceptFrom(const Descriptor &listener) { return Peer(::accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC)); }

Peer openPseudoTerminal(std::string &path)
{
    int ends[2];
    char name[64];
    EXPECT_EQ(::openpty(&ends[0], &ends[1], name, nullptr, nullptr), 0);
    ::close(ends[1]);
    path = name;
    return Peer(ends[0]);
}
