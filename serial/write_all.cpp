#include "serial/write_all.h"

#include <cerrno>
#include <unistd.h>

int write_all(int descriptor, const char *data, std::size_t size)
{
    std::size_t total = 0;
    while (total < size) {
        const ssize_t written = ::write(descriptor, data + total, size - total);
        if (written >= 0)
            total += static_cast<std::size_t>(written);
        else if (errno != EINTR)
            return total > 0 ? static_cast<int>(total) : static_cast<int>(written);
    }
    return static_cast<int>(total);
}
