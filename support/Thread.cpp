#include "support/Thread.h"

#include <array>
#include <cassert>
#include <cerrno>
#include <csignal>
#include <ctime>
#include <exception>
#include <string_view>
#include <system_error>

namespace KAV {

namespace {

/// With the default of 8 MiB, a few hundred threads would exhaust a 32-bit address space.
constexpr std::size_t stackBytes = std::size_t{KAV_THREAD_STACK_KIB} * 1024;

constexpr std::array mainThreadSignals{SIGINT, SIGHUP, SIGPIPE, SIGALRM};

/// Blocks the main thread's signals until the end of the scope; threads created within inherit the mask.
class SignalsBlocked {
public:
    SignalsBlocked()
    {
        sigset_t blocked;
        sigemptyset(&blocked);
        for (const int signal : mainThreadSignals)
            sigaddset(&blocked, signal);
        pthread_sigmask(SIG_BLOCK, &blocked, &before);
    }
    SignalsBlocked(const SignalsBlocked &) = delete;
    SignalsBlocked &operator=(const SignalsBlocked &) = delete;
    ~SignalsBlocked() { pthread_sigmask(SIG_SETMASK, &before, nullptr); }

private:
    sigset_t before{};
};

} // namespace

/// Records the end of the body, by return or cancellation.
class Thread::BodyScope {
public:
    explicit BodyScope(Thread &_thread) : thread(_thread) {}
    BodyScope(const BodyScope &) = delete;
    BodyScope &operator=(const BodyScope &) = delete;
    ~BodyScope()
    {
        const std::lock_guard hold(thread.state);
        thread.running = false;
        thread.ended.send(); // with the lock held: whoever waits may delete the object afterwards
    }

private:
    Thread &thread;
};

Thread::Thread(const std::string &_name, bool _joinable) : name(_name), joinable(_joinable) {}

Thread::~Thread()
{
    assert(!isAlive());
    if (joinable && wasStarted)
        pthread_join(handle, nullptr);
}

void Thread::start()
{
    int error = 0;
    {
        // Held until the members are set: the new thread waits for the lock and may then delete the object.
        const std::lock_guard hold(state);
        error = create();
        wasStarted = error == 0;
        running = wasStarted;
    }
    if (error != 0)
        throw std::system_error(error, std::generic_category(), "pthread_create() failed for thread '" + name + "'");
}

int Thread::create()
{
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstacksize(&attributes, stackBytes);
    pthread_attr_setdetachstate(&attributes, joinable ? PTHREAD_CREATE_JOINABLE : PTHREAD_CREATE_DETACHED);
    const SignalsBlocked blocked;
    const int error = pthread_create(&handle, &attributes, &Thread::enter, this);
    pthread_attr_destroy(&attributes);
    return error;
}

void *Thread::enter(void *object)
{
    auto *const self = static_cast<Thread *>(object);
    self->takeSystemName();
    const bool deletesItself = self->deletesItself; // afterwards the owner may have deleted the object
    {
        const BodyScope scope(*self);
        try {
            self->execute();
        } catch (const std::exception &error) {
            KAV_LOG(ERROR, "thread '%s' ended early: %s\n", self->name.c_str(), error.what());
        }
    }
    if (deletesItself)
        delete self;
    return nullptr;
}

void Thread::takeSystemName() const
{
    constexpr std::string_view program = "navtwine ";
    constexpr std::size_t longest = 15; // pthread_setname_np(3)
    const std::lock_guard started(state);
    const std::size_t skipped = name.compare(0, program.size(), program) == 0 ? program.size() : 0;
    pthread_setname_np(pthread_self(), name.substr(skipped, longest).c_str());
}

void Thread::stop()
{
    cancel();
    wait();
}

void Thread::cancel()
{
    const std::lock_guard hold(state);
    if (running)
        pthread_cancel(handle);
}

void Thread::wait()
{
    while (isAlive())
        ended.await(0);
}

bool Thread::isAlive() const
{
    const std::lock_guard hold(state);
    return running;
}

// Most bodies are cancelled here. AddressSanitizer does not track that unwinding and would leave this frame poisoned.
[[gnu::no_sanitize_address]] void Thread::sleep(unsigned int milliseconds)
{
    timespec left{static_cast<time_t>(milliseconds / 1000), static_cast<long>(milliseconds % 1000) * 1'000'000L};
    while (::clock_nanosleep(CLOCK_MONOTONIC, 0, &left, &left) == EINTR) {
    }
}

} // namespace KAV
