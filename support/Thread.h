#pragma once

#include <condition_variable>
#include <mutex>
#include <pthread.h>
#include <string>

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

    /// Releases what the library holds. The body must not run any more.
    virtual ~Thread();

    /// Creates the thread. Not to be called twice.
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

    /// Ends the body as `stop` does, but does not wait for that. An object of the library's is not deleted then: only
    /// for the end of the process. REQUIRES: the object exists; one of the library's does as long as its body runs.
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
    bool joinable = false; ///< an operating-system thread waits for its pthread_join

    mutable std::mutex state; ///< guards the members below; nothing is called out to while it is held
    std::condition_variable ended;
    bool running = false;
    bool stopping = false; ///< a caller of `stop` destroys the object, so the library must not
};

} // namespace KAV
