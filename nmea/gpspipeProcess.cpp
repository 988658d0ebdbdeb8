#include "nmea/gpspipeProcess.h"

#include "support/Thread.h"

#include <array>
#include <atomic>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <dirent.h>
#include <memory>
#include <mutex>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace {

/// Inode of the pipe, 0 before the first one. Outlives the stream: pclose may still be waiting.
constinit std::atomic<std::uint32_t> pipeInode{0};

/// Held while gpspipe is started, so that nobody looks for it in between.
constinit std::mutex startLock;

struct CloseFolder {
    void operator()(DIR *folder) const { ::closedir(folder); }
};

bool writesTo(const std::string &pipe, pid_t process)
{
    const std::string link = "/proc/" + std::to_string(process) + "/fd/" + std::to_string(STDOUT_FILENO);
    std::array<char, 64> target{};
    return ::readlink(link.c_str(), target.data(), target.size() - 1) > 0 && pipe == target.data();
}

/// Returns how many processes were sent `signal`.
int signalWriters(int signal)
{
    const std::unique_ptr<DIR, CloseFolder> processes(::opendir("/proc"));
    const std::string pipe = "pipe:[" + std::to_string(pipeInode.load()) + "]";
    int found = 0;
    while (const dirent *const entry = processes ? ::readdir(processes.get()) : nullptr) {
        const pid_t process = std::atoi(entry->d_name); // 0 for what is not a process
        if (process > 0 && process != ::getpid() && writesTo(pipe, process) && ::kill(process, signal) == 0)
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
    startLock.lock(); // for good: the main thread may be about to start another
    endGpspipe();
    ::_exit(status);
}
