#include "support/Lock.h"
#include "support/Logger.h"
#include "support/Text.h"
#include "support/Thread.h"
#include "support/wipe_string.h"

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
    KAV::Logger::printfError("whatever the threshold: %s", std::string(1000, 'x').c_str());
    EXPECT_EQ(errno, EPIPE);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "ERROR: 32 from\\x1B[2J a peer: \\x01\ttab\nINFO: no line end\nERROR: whatever the threshold: " +
                  std::string(1000, 'x') + "\n");
    EXPECT_EQ(computed, 0);
}

TEST(Logger, passesTextAndNothingThatDrivesATerminal)
{
    std::vector<std::pair<std::string, std::string>> cases{
        {"junk\rERROR: forged", "junk\\x0DERROR: forged"},
        {"a\r\nb\r", "a\r\nb"},
        {"\xC2\xA0\xDF\xBF \xE0\xA0\x80\xE2\x82\xAC\xED\x9F\xBF\xEE\x80\x80\xEF\xBF\xBF", ""}, // valid UTF-8: as it is
        {"\xF0\x90\x80\x80\xF0\x9F\x9B\xB0\xF4\x8F\xBF\xBF", ""},
        {"\xC2\x9B", "\\xC2\\x9B"},                                       // a control code
        {"\xC3(\xC0\xAF\xE0\x9F\xBF", "\\xC3(\\xC0\\xAF\\xE0\\x9F\\xBF"}, // cut short, overlong
        {"\xF0\x8F\xBF\xBF\xED\xA0\x80\xED\xBF\xBF",
         "\\xF0\\x8F\\xBF\\xBF\\xED\\xA0\\x80\\xED\\xBF\\xBF"},         // surrogates
        {"\xF4\x90\x80\x80\xE2\x82", "\\xF4\\x90\\x80\\x80\\xE2\\x82"}, // more than Unicode has, cut off
    };
    for (int byte = 1; byte < 256; ++byte) {
        char escaped[8];
        std::snprintf(escaped, sizeof escaped, "\\x%02X", static_cast<unsigned int>(byte));
        const std::string text = std::string("a") + static_cast<char>(byte) + "z";
        const bool isHarmless = byte == '\t' || byte == '\n' || (byte >= ' ' && byte <= '~');
        cases.emplace_back(text, isHarmless ? text : std::string("a") + escaped + "z");
    }
    for (const auto &[text, line] : cases) {
        testing::internal::CaptureStderr();
        KAV_LOG(ERROR, "%s", text.c_str());
        EXPECT_EQ(testing::internal::GetCapturedStderr(), "ERROR: " + (line.empty() ? text : line) + "\n");
    }
}

/// Standard error on something else for the length of a scope.
struct StandardError {
    explicit StandardError(int other) { ::dup2(other, STDERR_FILENO); }
    ~StandardError() { ::dup2(was.get(), STDERR_FILENO); }
    const KAV::Descriptor was{::fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3)};
};

/// Logs more than a reader takes who takes nothing.
static void expectThatNobodyIsHeldUp()
{
    const auto began = std::chrono::steady_clock::now();
    for (int line = 0; line < 100; ++line)
        KAV_LOG(ERROR, "%s", std::string(9997, 'x').c_str());
    EXPECT_LT(std::chrono::steady_clock::now() - began, std::chrono::seconds(4));
}

TEST(Logger, isNotHeldUpByAStoppedTerminal)
{
    const SerialLine terminal;
    const KAV::Descriptor writer(::open(terminal.device(), O_RDWR | O_NOCTTY | O_CLOEXEC));
    const StandardError redirected(writer.get());
    expectThatNobodyIsHeldUp();
}

TEST(Logger, beginsANewLineAfterOneThatWasCutOff)
{
    int ends[2];
    ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
    Peer reader(ends[0]);
    const KAV::Descriptor writer(ends[1]);
    const StandardError redirected(writer.get());
    expectThatNobodyIsHeldUp();
    EXPECT_THAT(reader.readUntil("never", 500ms), testing::EndsWith("xxx"));
    KAV_LOG(ERROR, "whole");
    EXPECT_EQ(reader.readUntil("whole\n"), "\nERROR: whole\n");
}

TEST(Text, splitsAndStrips)
{
    using Pieces = std::vector<std::string>;
    EXPECT_EQ(KAV::Text::split(",a,,b,", ',', 0), (Pieces{"", "a", "", "b", ""}));
    EXPECT_EQ(KAV::Text::split("a,b,c", ',', 2), (Pieces{"a", "b,c"}));
    EXPECT_EQ(KAV::Text::split("a", ',', 2), Pieces{"a"});
    EXPECT_EQ(KAV::Text::strip("\r\na\rb\n\r", {'\r', '\n'}) + KAV::Text::strip("\n", {'\n'}), "a\rb");
}

TEST(wipe_string, leavesNothing)
{
    std::string text("a secret");
    const char *const bytes = text.data();
    wipe_string(text);
    EXPECT_EQ(std::string(bytes, 8), std::string(8, '\0'));
    EXPECT_EQ(text, "");
}

TEST(Descriptor, ownsOneAndKeepsErrno)
{
    KAV::Descriptor first(::dup(STDERR_FILENO));
    const int number = first.get();
    KAV::Descriptor second(std::move(first));
    EXPECT_EQ(std::tuple(first.isOpen(), second.get()), std::tuple(false, number));
    ::close(number); // behind its back: the second time fails
    errno = EPIPE;
    second.reset();
    EXPECT_EQ(std::tuple(errno, second.get()), std::tuple(EPIPE, -1));
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
        EXPECT_TRUE(worker->isAlive());
    }
    const KAV::Hold freeAgain(lock);
}

TEST(Thread, isDeletedByTheLibraryWhenNobodyOwnsIt)
{
    const int before = Worker::destroyed;
    for (int made = 0; made < 200; ++made)
        new Worker(false, [] {});
    EXPECT_TRUE(eventually([before] { return Worker::destroyed == before + 200; }));
}

TEST(Thread, runsItsBodyWithASmallStackAndNoSignals)
{
    static int blocked = 0;
    static std::size_t stack = 0;
    const auto countBlocked = [] {
        sigset_t set;
        ::pthread_sigmask(SIG_BLOCK, nullptr, &set);
        return sigismember(&set, SIGINT) + sigismember(&set, SIGHUP) + sigismember(&set, SIGPIPE) +
               sigismember(&set, SIGALRM);
    };
    static const auto count = countBlocked;
    testing::internal::CaptureStderr();
    Worker worker(true, [] {
        blocked = count();
        pthread_attr_t attributes;
        EXPECT_EQ(::pthread_getattr_np(::pthread_self(), &attributes), 0);
        ::pthread_attr_getstacksize(&attributes, &stack);
        ::pthread_attr_destroy(&attributes);
        KAV::Thread::sleep(300);
        throw std::runtime_error("thrown");
    });
    const auto began = std::chrono::steady_clock::now();
    worker.wait();
    EXPECT_GE(std::chrono::steady_clock::now() - began, 200ms);
    worker.wait();
    EXPECT_FALSE(worker.isAlive());
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "ERROR: thread 'navtwine worker-with-a-long-name' ended early: thrown\n");
    EXPECT_EQ(std::tuple(blocked, countBlocked()), std::tuple(4, 0));
    EXPECT_LE(stack, 1024U * 1024) << "thousands of them must fit into 32 bits";
}
