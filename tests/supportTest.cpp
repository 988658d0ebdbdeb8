#include "support/Lock.h"
#include "support/Logger.h"
#include "support/Thread.h"

#include "harness.h"

#include <atomic>

TEST(Logger, writesOneHarmlessLineAndKeepsErrno)
{
    KAV::Logger::setPrintLevel(30, false);
    int computed = 0;
    testing::internal::CaptureStderr();
    errno = EPIPE;
    KAV_LOG(ERROR, "%d from\x1b[2J a peer: \x01\ttab\n\r\n", errno);
    KAV_LOG(INFO, "no line end");
    KAV_LOG(DEBUG, "%d", ++computed);
    EXPECT_EQ(errno, EPIPE);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "ERROR: 32 from\\x1B[2J a peer: \\x01\ttab\nINFO: no line end\n");
    EXPECT_EQ(computed, 0);
}

TEST(Logger, passesTextAndNothingThatDrivesATerminal)
{
    const std::pair<const char *, const char *> cases[] = {
        {"junk\rERROR: forged", "junk\\x0DERROR: forged"},
        {"a\r\nb\r", "a\r\nb"},
        {"/dev/\xC3\x96sterreich \xE2\x82\xAC \xF0\x9F\x9B\xB0",
         "/dev/\xC3\x96sterreich \xE2\x82\xAC \xF0\x9F\x9B\xB0"},
        {"\x9B\xC2\x9B\x7F", "\\x9B\\xC2\\x9B\\x7F"},
        {"\xC3(\xC0\xAF\xE0\x80\xAF\xED\xA0\x80\xF4\x90\x80\x80", // not valid: cut, overlong, surrogate, too large
         "\\xC3(\\xC0\\xAF\\xE0\\x80\\xAF\\xED\\xA0\\x80\\xF4\\x90\\x80\\x80"},
        {"\xE2\x82", "\\xE2\\x82"},
    };
    for (const auto &[text, line] : cases) {
        testing::internal::CaptureStderr();
        KAV_LOG(ERROR, "%s", text);
        EXPECT_EQ(testing::internal::GetCapturedStderr(), "ERROR: " + std::string(line) + "\n");
    }
}

/// Standard error on something else for the length of a scope.
struct StandardError {
    explicit StandardError(int other) { ::dup2(other, STDERR_FILENO); }
    ~StandardError() { ::dup2(was.get(), STDERR_FILENO); }
    const KAV::Descriptor was{::fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3)};
};

TEST(Logger, beginsANewLineAfterOneThatWasCutOff)
{
    int ends[2];
    ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
    Peer reader(ends[0]);
    const KAV::Descriptor writer(ends[1]);
    const StandardError redirected(writer.get());
    KAV_LOG(ERROR, "%s", std::string(100'000, 'x').c_str());
    KAV_LOG(ERROR, "lost");
    EXPECT_THAT(reader.readUntil("never", 500ms), testing::EndsWith("xxx"));
    KAV_LOG(ERROR, "whole");
    EXPECT_EQ(reader.readUntil("whole\n"), "\nERROR: whole\n");
}

TEST(Logger, isNotHeldUpByAStoppedTerminal)
{
    const SerialLine terminal;
    const KAV::Descriptor writer(::open(terminal.device(), O_RDWR | O_NOCTTY | O_CLOEXEC));
    const StandardError redirected(writer.get());
    const auto began = std::chrono::steady_clock::now();
    for (int line = 0; line < 100; ++line)
        KAV_LOG(ERROR, "%s", std::string(997, 'x').c_str());
    EXPECT_LT(std::chrono::steady_clock::now() - began, std::chrono::seconds(5));
}

struct Worker : KAV::Thread {
    Worker(bool owned, void (*_body)()) : Thread("navtwine worker-with-a-long-name", owned), body(_body) { start(); }
    ~Worker() override
    {
        stop();
        ++destroyed;
    }
    void execute() override { body(); }

    void (*body)();
    static inline std::atomic<int> destroyed{0};
};

TEST(Thread, stopEndsABlockedBodyAndReleasesItsLocks)
{
    static KAV::Lock lock;
    static std::atomic<bool> entered;
    for (const bool owned : {true, false}) {
        entered = false;
        const auto worker = std::make_unique<Worker>(owned, [] {
            const KAV::Hold hold(lock);
            entered = true;
            KAV::Thread::sleep(3'600'000);
        });
        ASSERT_TRUE(eventually([] { return entered.load(); }));
    }
    const KAV::Hold freeAgain(lock);
}

TEST(Thread, isDeletedByTheLibraryWhenNobodyOwnsIt)
{
    const int before = Worker::destroyed;
    for (int made = 0; made < 200; ++made)
        new Worker(false, [] {});
    EXPECT_TRUE(eventually([before] { return Worker::destroyed == before + 200; }));
    Worker owned(true, [] {});
    owned.wait();
    owned.wait();
    EXPECT_FALSE(owned.isAlive());
}
