#pragma once

#include "support/Descriptor.h"

#include <chrono>
#include <filesystem>
#include <gtest/gtest.h>
#include <string>
#include <sys/types.h>
#include <thread>
#include <vector>

using namespace std::chrono_literals;

/// Waits until `holds` is true; the limit is generous, since machines under test are slow and busy.
template <typename Predicate>
bool eventually(Predicate holds, std::chrono::milliseconds limit = 30s)
{
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!holds()) {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        std::this_thread::sleep_for(10ms);
    }
    return true;
}

/// A folder that goes with the object, with a `gpspipe` of the test's own in it, the body of a shell script.
class FakeGpspipe {
public:
    explicit FakeGpspipe(const std::string &body);
    FakeGpspipe(const FakeGpspipe &) = delete;
    FakeGpspipe &operator=(const FakeGpspipe &) = delete;
    ~FakeGpspipe();
    /// PATH with the folder first.
    [[nodiscard]] std::string searchPath() const { return folder.string() + ":/usr/bin:/bin"; }
    /// The content of a file in the folder; empty when there is none.
    [[nodiscard]] std::string content(const char *file) const;

    std::filesystem::path folder;
};

/// How many entries the process's /proc folder `fd` or `task` has.
std::size_t count(pid_t pid, const char *what);

/// The TCP port that the process listens on, 0 until it does.
std::uint16_t listeningPort(pid_t pid);

/// The real program, run in the fake's folder; its standard output and standard error are one text.
class Program {
public:
    Program(const std::vector<std::string> &arguments, const std::string &gpspipeBody, int openFiles = 512);
    Program(const Program &) = delete;
    Program &operator=(const Program &) = delete;
    ~Program();

    [[nodiscard]] std::string output() const { return gpspipe.content("output"); }
    [[nodiscard]] bool says(const std::string &text) const { return output().find(text) != std::string::npos; }
    /// Waits until the server listens, and returns its port.
    [[nodiscard]] std::uint16_t port() const;
    /// Waits for the end, -1 when it does not come; the status is 128 + N for signal N.
    int wait(std::chrono::milliseconds limit = 30s);
    /// SIGINT, then `wait` for the three seconds that users are promised and some for a busy machine.
    int interrupt();

    FakeGpspipe gpspipe;
    pid_t pid;
};

/// A TCP client on 127.0.0.1, or one end of any other connection.
class Peer {
public:
    explicit Peer(std::uint16_t port);
    explicit Peer(int connected) : socket(connected) {}

    void send(const std::string &bytes) const;
    /// Reads until `text` has come, the peer closes, or the limit is over; all that was read since the last
    /// call.
    std::string readUntil(const std::string &text, std::chrono::milliseconds limit = 30s);

    KAV::Descriptor socket;
    bool closed = false;
};

/// A socket of the test's own on a free port of 127.0.0.1, listening when it is a stream.
KAV::Descriptor openOnFreePort(int type, std::uint16_t &port);

/// Waits for the next connection.
Peer acceptFrom(const KAV::Descriptor &listener);

/// The master side of a pseudo-terminal; `path` gets the name of the other side.
Peer openPseudoTerminal(std::string &path);
