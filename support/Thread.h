#pragma once

#include "support/Logger.h"

#include <condition_variable>
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
/// Cancellation (`stop`, `cancel`) takes effect at the cancellation points of pthreads(7); bodies block in nothing
/// else.
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
    /// destructors of derived classes: from here on the caller destroys the object.
    virtual void stop();

    /// The body.
    virtual void execute() = 0;

    /// Cancels the body without waiting. The library does not delete an object that it owns after that, so this is for
    /// shutdown only. REQUIRES: the object exists; one owned by the library exists while its body runs.
    void cancel();

    /// Blocks until the body has ended.
    void wait();

    /// True from `start` until the body has returned.
    [[nodiscard]] bool isAlive() const;

    /// Suspends the calling thread. A caught signal does not shorten the sleep.
    static void sleep(unsigned int milliseconds);

protected:
    /// `_name` appears in log lines and, without a leading "navtwine " and cut to 15 bytes, in `top -H`.
    /// `_ownerDeletes` true: the creator waits for the object and deletes it. False: once started, the library owns
    /// the object and deletes it on its own thread as soon as the body has returned; nothing else may access it.
    Thread(const std::string &_name, bool _ownerDeletes);

private:
    class BodyScope;

    static void *enter(void *object);
    [[nodiscard]] int create();
    void takeSystemName() const;

    const std::string name;
    const bool ownerDeletes;
    pthread_t handle{};
    bool joinable = false; ///< pthread_join is still due

    mutable std::mutex state; ///< guards the members below
    std::condition_variable ended;
    bool running = false;
    bool stopping = false; ///< the caller of `stop` destroys the object, so the library must not
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
