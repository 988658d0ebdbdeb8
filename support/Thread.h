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

/// The base of every worker: one operating-system thread per object, which runs the virtual body `execute`.
///
/// A worker's constructor calls `start` as its last step, so that the body never sees a half-built object; its
/// destructor calls `stop` when `isAlive`, before anything that the body uses goes away.
///
/// SIGINT, SIGHUP, SIGPIPE and SIGALRM are blocked on the new thread: they belong to the main thread.
/// Cancellation (`stop`, `cancel`) takes effect at the cancellation points of pthreads(7); bodies block in nothing
/// else.
class Thread {
public:
    Thread(const Thread &) = delete;
    Thread &operator=(const Thread &) = delete;

    /// Releases what the library holds. REQUIRES: the body does not run.
    virtual ~Thread();

    /// Creates the thread. REQUIRES: not started before.
    ///
    /// Errors: std::system_error when the thread cannot be created, like std::thread: `start` is called from
    /// constructors, which have no result, and an object whose body will never run must not come into being.
    /// KAV::startWorker turns that into an ERROR line.
    virtual void start();

    /// Ends the thread, whatever its body is blocked in, and returns once the body no longer runs. At once when
    /// it does not. Called from the destructors of derived classes: from here on the caller destroys the
    /// object.
    virtual void stop();

    /// The body.
    virtual void execute() = 0;

    /// Cancels the body without waiting for its end. An object that the library owns is not deleted then, so this is
    /// for the end of the process. REQUIRES: the object exists; one that the library owns does while its body runs.
    void cancel();

    /// Blocks until the body has returned; at once when it already has.
    void wait();

    /// True from `start` until the body has returned.
    [[nodiscard]] bool isAlive() const;

    /// Suspends the calling thread. A caught signal does not shorten the sleep.
    static void sleep(unsigned int milliseconds);

protected:
    /// `_name` appears in log lines and, without a leading "navtwine " and cut to 15 bytes, in `top -H`.
    /// `_ownerDeletes` true: whoever made the object waits for it and deletes it. False: once started, the
    /// object belongs to the library, which deletes it on its own thread as soon as the body has returned;
    /// nobody else may touch it after that.
    Thread(const std::string &_name, bool _ownerDeletes);

private:
    class BodyScope;

    static void *enter(void *object);
    [[nodiscard]] int create();
    void takeSystemName() const;

    const std::string name;
    const bool ownerDeletes;
    pthread_t handle{};
    bool joinable = false; ///< pthread_join is still to be called

    mutable std::mutex state; ///< guards the members below; held for their changes only
    std::condition_variable ended;
    bool running = false;
    bool stopping = false; ///< a caller of `stop` destroys the object, so the library must not
};

/// Makes a worker, whose constructor starts its thread. Null, after an ERROR line, when the thread could not be
/// created or memory is out; the rest of the program goes on. Who deletes the worker: see Thread.
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
