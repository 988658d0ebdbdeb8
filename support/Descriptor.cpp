#include "support/Descriptor.h"

#include "support/guards.h"

#include <unistd.h>

namespace KAV {

void Descriptor::reset(int next) noexcept
{
    const int old = std::exchange(fd, next);
    if (old < 0)
        return;
    const ErrnoKeeper keeper;
    const CancelShield shield;
    ::close(old);
}

} // namespace KAV
