#include "support/standardError.h"

#include "support/Descriptor.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstddef>
#include <fcntl.h>
#include <mutex>
#include <poll.h>
#include <sys/stat.h>
#include <type_traits>
#include <unistd.h>
#include <utility>

namespace KAV {

namespace {

using Clock = std::chrono::steady_clock;

/// Pipe writes are atomic only up to PIPE_BUF bytes (pipe(7)); whole lines need the lock. Trivially destructible:
/// threads may log while the process exits.
constinit std::mutex lock;
static_assert(std::is_trivially_destructible_v<std::mutex>);

constinit bool isCut = false; ///< the last line was written without its end

/// Standard error, without blocking. A write to a terminal or pipe may block even after poll(2) reported room, and
/// O_NONBLOCK on the shared file description would affect other processes: so these are opened anew for each line.
class Stream {
public:
    Stream()
    {
        struct stat status {};
        const bool known = ::fstat(STDERR_FILENO, &status) == 0;
        isTerminal = known && S_ISCHR(status.st_mode);
        if (isTerminal || (known && S_ISFIFO(status.st_mode)))
            own.reset(::open("/proc/self/fd/2", O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    }
    [[nodiscard]] int get() const { return own.isOpen() ? own.get() : STDERR_FILENO; }

    /// Bytes that one write takes without blocking when poll(2) reports room. Of a terminal that belongs to another
    /// user, and so cannot be opened anew, that is little: the smallest buffer of a USB adapter's driver has 64 bytes,
    /// and a line feed may take two.
    [[nodiscard]] std::size_t pieceSize() const { return isTerminal && !own.isOpen() ? 32 : PIPE_BUF; }

private:
    Descriptor own;
    bool isTerminal = false;
};

/// The time that all threads together may still wait in this second.
struct Patience {
    Clock::time_point end{}; ///< of this second
    Clock::duration left{};
};
constinit Patience patience;

/// Waits until `stream` is writable; false when the patience is used up.
bool isWritable(int stream)
{
    const auto begin = Clock::now();
    if (begin >= patience.end)
        patience = {begin + std::chrono::seconds{1}, std::chrono::milliseconds{10}};
    pollfd reader{stream, POLLOUT, 0};
    int ready = 0;
    do {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(begin + patience.left - Clock::now());
        ready = ::poll(&reader, 1, static_cast<int>(std::max<std::int64_t>(left.count(), 0)));
    } while (ready < 0 && errno == EINTR);
    patience.left -= std::min(patience.left, Clock::now() - begin);
    return ready > 0;
}

} // namespace

void writeToStandardError(std::string_view line)
{
    const std::lock_guard alone(lock);
    const Stream stream;
    std::size_t missing = line.size();
    while (missing > 0 && isWritable(stream.get())) {
        const std::string_view next = isCut ? "\n" : line.substr(line.size() - missing, stream.pieceSize());
        const ssize_t written = ::write(stream.get(), next.data(), next.size());
        if (written < 0 && errno == EINTR)
            continue;
        if (written <= 0)
            break;
        if (!std::exchange(isCut, false))
            missing -= static_cast<std::size_t>(written);
    }
    isCut = isCut || (missing > 0 && missing < line.size());
}

} // namespace KAV
