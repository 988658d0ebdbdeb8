#include "net/reserve.h"

#include "support/Descriptor.h"
#include "support/Lock.h"
#include "support/Thread.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <memory>
#include <sys/resource.h>
#include <sys/socket.h>

namespace {

constexpr rlim_t reservedDescriptors = 4;
constexpr std::size_t reservedTasks = 2;

/// A thread that ends when it gets the lock.
class TrialThread : public KAV::Thread {
public:
    explicit TrialThread(KAV::Lock &_gate) : KAV::Thread("navtwine trial", true), gate(_gate) { KAV::Thread::start(); }
    ~TrialThread() override { KAV::Thread::wait(); }
    void execute() override { const KAV::Hold passed(gate); }

private:
    KAV::Lock &gate;
};

} // namespace

bool isDescriptorFree()
{
    const KAV::Descriptor trial(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!trial.isOpen())
        return false;
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0 ||
        static_cast<rlim_t>(trial.get()) + reservedDescriptors < limit.rlim_cur)
        return true;
    errno = EMFILE;
    return false;
}

bool areTasksFree()
{
    KAV::Lock gate;
    std::array<std::unique_ptr<TrialThread>, 1 + reservedTasks> trials;
    const KAV::Hold closed(gate); // none ends before all are there
    return std::all_of(trials.begin(), trials.end(), [&gate](auto &trial) {
        trial.reset(KAV::startWorker<TrialThread>(gate));
        return trial != nullptr;
    });
}
