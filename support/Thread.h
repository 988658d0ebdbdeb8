#pragma once

#include "support/Broadcast.h"
#include "support/Logger.h"

#include <exception>
#include <mutex>
#include <new>
#include <pthread.h>
#include <string>
#include <utility>

namespace KAV {

/// Base of every worker: one operating-system thread per object, which runs the virtual body `execute`.
///
/// A worker's constructor calls `start` as its last step, so that the body never sees a partly constructed object; its
/// destructor calls `stop` if `isAlive`, before anything that the body uses is destroyed.
///
/// SIGINT, SIGHUP, SIGPIPE and SIGALRM are blocked on the new thread; the main thread handles them.
/// Cancellation (`stop`, `cancel`) takes effect at the cancellation points of pthreads(7). Bodies block in nothing else
/// but KAV::Broadcast, whose waits an exit request ends.
class Thread {
public:
    Thread(const Thread &) = delete;
    Thread &operator=(const Thread &) = delete;

    /// Joins the thread if necessary. REQUIRES: the body is not running.
    virtual ~Thread();

    /// Creates the thread. REQUIRES: not started before.
    ///
    /// Errors: std::system_error when the thread cannot be created, like std::thread: constructors call `start` and
    /// have no other way to fail. KAV::startWorker turns it into an ERROR line.
    virtual void start();

    /// Cancels the thread and waits until the body has ended; returns at once if it is not running. Called from the
    /// destructors of derived classes.
    virtual void stop();

    /// The body.
    virtual void execute() = 0;

    /// Cancels the body without waiting.
    void cancel();

    /// Blocks until the body has ended.
    void wait();

    /// True from `start` until the body has returned.
    [[nodiscard]] bool isAlive() const;

    /// Suspends the calling thread. A caught signal does not shorten the sleep.
    static void sleep(unsigned int milliseconds);

protected:
    /// `_name` appears in log lines and, without a leading "navtwine " and cut to 15 bytes, in `top -H`.
    /// `_joinable` true: the destructor joins the thread. False: the thread is detached, and its object must not be
    /// deleted while the body runs.
    Thread(const std::string &_name, bool _joinable);

    /// Makes the thread delete its own object as soon as the body has returned. Nothing else may access the object
    /// after `start`. Called by the constructor of a worker that is not joinable.
    void deleteAtEnd() { deletesItself = true; }

private:
    class BodyScope;

    static void *enter(void *object);
    [[nodiscard]] int create();
    void takeSystemName() const;

    const std::string name;
    const bool joinable;
    bool deletesItself = false;
    pthread_t handle{};

    Broadcast ended;
    mutable std::mutex state; ///< guards the members below
    bool wasStarted = false;
    bool running = false;
};

/// Creates a worker, whose constructor starts its thread. Null, after an ERROR line, if the thread cannot be created
/// or memory is exhausted; the rest of the program continues. Ownership: see Thread.
template <typename Worker, typename... Arguments>
[[nodiscard]] Worker *startWorker(Arguments &&...arguments)
{
    try {
        return new Worker(std::forward<Arguments>(arguments)...);
    } catch (const std::bad_alloc &) {
        KAV_LOG(ERROR, "out of memory: no thread was created\n");
    } catch (const std::exception &error) {
        KAV_LOG(ERROR, "%s\n", error.what());
    }
    return nullptr;
}

} // namespace KAV
