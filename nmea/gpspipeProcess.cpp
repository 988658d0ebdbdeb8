#include "nmea/gpspipeProcess.h"

#include "support/CancelShield.h"
#include "support/Thread.h"

#include <array>
#include <atomic>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <memory>
#include <mutex>
#include <sys/stat.h>
#include <unistd.h>

namespace {

/// Inode of the pipe, 0 before the first one. Outlives the stream: pclose may still be waiting.
constinit std::atomic<std::uint32_t> pipeInode{0};

/// Held while gpspipe is started, so that nobody looks for it in between.
constinit std::mutex startLock;

struct CloseFolder {
    void operator()(DIR *folder) const
    {
        const KAV::CancelShield shield;
        ::closedir(folder);
    }
};

/// True for a process of ours, the group included, since the inode's number may come round again, that has the pipe as
/// its standard output. Allocates nothing: it must work while memory is out.
bool writesTo(const char *pipe, pid_t process)
{
    std::array<char, 64> link{};
    std::array<char, 64> target{};
    std::snprintf(link.data(), link.size(), "/proc/%d/fd/%d", process, STDOUT_FILENO);
    return ::getpgid(process) == ::getpgrp() && ::readlink(link.data(), target.data(), target.size() - 1) > 0 &&
           std::strcmp(pipe, target.data()) == 0;
}

/// Returns how many processes were sent `signal`.
int signalWriters(int signal)
{
    const std::unique_ptr<DIR, CloseFolder> processes(::opendir("/proc"));
    std::array<char, 32> pipe{};
    std::snprintf(pipe.data(), pipe.size(), "pipe:[%u]", pipeInode.load());
    int found = 0;
    while (const dirent *const entry = processes ? ::readdir(processes.get()) : nullptr) {
        const pid_t process = std::atoi(entry->d_name); // 0 for what is not a process
        if (process > 0 && process != ::getpid() && writesTo(pipe.data(), process) && ::kill(process, signal) == 0)
            ++found;
    }
    return found;
}

} // namespace

std::FILE *startGpspipe(const char *command)
{
    const std::lock_guard starting(startLock);
    std::FILE *const stream = ::popen(command, "r");
    struct stat status {};
    if (stream != nullptr && ::fstat(::fileno(stream), &status) == 0)
        pipeInode.store(static_cast<std::uint32_t>(status.st_ino)); // pipefs counts its inodes in 32 bits
    return stream;
}

void endGpspipe()
{
    constexpr int politeRounds = 10;
    constexpr int rounds = 2 * politeRounds; // bounded: in the kernel's hands a process outlives even SIGKILL
    for (int round = 0; round < rounds; ++round) {
        if (signalWriters(round < politeRounds ? SIGTERM : SIGKILL) == 0)
            return;
        KAV::Thread::sleep(20);
    }
}

void exitWithoutGpspipe(int status)
{
    const KAV::CancelShield shield; // this end is decided
    startLock.lock();               // for good: the main thread may be about to start another
    endGpspipe();
    ::_exit(status);
}
