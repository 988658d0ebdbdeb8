#include "nmea/gpspipe.h"

#include "nmea/shortage.h"
#include "support/Descriptor.h"
#include "support/Logger.h"
#include "support/Thread.h"
#include "support/guards.h"

#include <array>
#include <atomic>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <mutex>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr int endOfOutput = 0;
constexpr int noLine = 32;

/// Inode of the reader's pipe, 0 before the first one. Kept during pclose, which may still be waiting.
constinit std::atomic<std::uint32_t> pipeInode{0};

/// Held while gpspipe is started, so that nothing searches for it before its pipe is known.
constinit std::mutex startLock;

struct ClosePipe {
    void operator()(std::FILE *stream) const { ::pclose(stream); }
};
using Stream = std::unique_ptr<std::FILE, ClosePipe>;

/// Starts `command` and records its pipe. Null when it cannot be started.
Stream start(const char *command)
{
    const std::lock_guard starting(startLock);
    Stream stream(::popen(command, "r"));
    struct stat status {};
    if (stream && ::fstat(::fileno(stream.get()), &status) == 0)
        pipeInode.store(static_cast<std::uint32_t>(status.st_ino)); // pipefs counts its inodes in 32 bits
    return stream;
}

/// True for a process of our group whose standard output is `pipe`; the group is checked because inode numbers are
/// reused.
bool writesTo(const char *pipe, pid_t process)
{
    std::array<char, 64> link{};
    std::array<char, 64> target{};
    std::snprintf(link.data(), link.size(), "/proc/%d/fd/%d", process, STDOUT_FILENO);
    return ::getpgid(process) == ::getpgrp() && ::readlink(link.data(), target.data(), target.size() - 1) > 0 &&
           std::strcmp(pipe, target.data()) == 0;
}

/// Sends `signal` to every process that writes to the pipe; returns how many there were. Not with opendir(3), which
/// needs memory.
int signalWriters(int signal)
{
    const KAV::Descriptor processes(::open("/proc", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    std::array<char, 32> pipe{};
    std::snprintf(pipe.data(), pipe.size(), "pipe:[%u]", pipeInode.load());
    int found = 0;
    alignas(dirent64) std::array<char, 2048> entries;
    ssize_t size = 0;
    while ((size = ::getdents64(processes.get(), entries.data(), entries.size())) > 0) {
        for (ssize_t at = 0; at < size;) {
            const void *const record = entries.data() + at; // aligned by the kernel
            const auto *const entry = static_cast<const dirent64 *>(record);
            const pid_t process = std::atoi(entry->d_name); // 0 for entries that are not processes
            if (process > 0 && process != ::getpid() && writesTo(pipe.data(), process) && ::kill(process, signal) == 0)
                ++found;
            at += entry->d_reclen;
        }
    }
    return found;
}

} // namespace

int kavGPSGetNMEAStrings(int timestamp, LineCallback callback, int interval, const std::string *decoration)
{
    std::array<char, 128> command{};
    std::snprintf(command.data(), command.size(), "gpspipe %s-r", timestamp != 0 ? "-t " : "");
    const Stream stream = start(command.data());
    if (!stream) {
        KAV_LOG(ERROR, "kavGPSGetNMEAStrings(): failed to popen stream for reading output of command '%s'\n",
                command.data());
        reportShortage();
        return noLine;
    }

    std::array<char, 512> line;
    while (std::feof(stream.get()) == 0) {
        if (std::fgets(line.data(), static_cast<int>(line.size()), stream.get()) == nullptr) {
            // Interrupted: pclose would wait for a gpspipe that may never write again.
            if (std::feof(stream.get()) == 0)
                endGpspipe();
            return noLine;
        }
        static_cast<void>(KAV::ifMemoryAllows([&] { callback(line.data(), interval, decoration); }));
    }
    return endOfOutput;
}

void endGpspipe()
{
    constexpr int politeRounds = 10;
    constexpr int rounds = 2 * politeRounds; // bounded: a process in uninterruptible sleep ignores even SIGKILL
    for (int round = 0; round < rounds; ++round) {
        if (signalWriters(round < politeRounds ? SIGTERM : SIGKILL) == 0)
            return;
        KAV::Thread::sleep(20);
    }
}

void endProcess(int status)
{
    const KAV::CancelShield shield;
    startLock.lock(); // never released: the main thread may be about to start another
    endGpspipe();
    ::_exit(status);
}
