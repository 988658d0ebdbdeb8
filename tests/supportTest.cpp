#include "support/Descriptor.h"
#include "support/Lock.h"
#include "support/Logger.h"
#include "support/Thread.h"

#include "harness.h"

TEST(Logger, writesOneHarmlessLineAndKeepsErrno)
{
    KAV::Logger::setPrintLevel(30, false);
    int computed = 0;
    testing::internal::CaptureStderr();
    errno = EPIPE;
    KAV::Descriptor(9999).reset(); // was not open: errno would become EBADF
    KAV_LOG(ERROR, "%d from\x1b[2J a peer: \x01\ttab\n\r\n", errno);
    KAV_LOG(INFO, "no line end");
    KAV_LOG(DEBUG, "%d", ++computed);
    KAV::Logger::printfError("%s", std::string(1000, 'x').c_str());
    EXPECT_EQ(errno, EPIPE);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "ERROR: 32 from\\x1B[2J a peer: \\x01\ttab\nINFO: no line end\n"
                                                      "ERROR: " +
                                                          std::string(1000, 'x') + "\n");
    EXPECT_EQ(computed, 0);
}

TEST(Logger, passesTextAndNothingThatDrivesATerminal)
{
    std::vector<std::pair<std::string, std::string>> cases{
        {"junk\rERROR: forged", "junk\\x0DERROR: forged"},
        {"a\r\nb\r", "a\r\nb"},
        {"\xC2\xA0\xDF\xBF\xE0\xA0\x80\xED\x9F\xBF\xEE\x80\x80\xEF\xBF\xBF\xF0\x90\x80\x80\xF4\x8F\xBF\xBF",
         ""},                                                        // UTF-8
        {"\xC2\x9B \xC3( \xE2\x82", "\\xC2\\x9B \\xC3( \\xE2\\x82"}, // a control code, cut short
        {"\xC0\xAF\xE0\x9F\xBF\xF0\x8F\xBF\xBF", "\\xC0\\xAF\\xE0\\x9F\\xBF\\xF0\\x8F\\xBF\\xBF"}, // overlong
        {"\xED\xA0\x80\xED\xBF\xBF\xF4\x90\x80\x80",
         "\\xED\\xA0\\x80\\xED\\xBF\\xBF\\xF4\\x90\\x80\\x80"}, // no characters
    };
    for (int byte = 1; byte < 256; ++byte) {
        char escaped[8] = {static_cast<char>(byte)};
        if (byte != '\t' && byte != '\n' && (byte < ' ' || byte > '~'))
            std::snprintf(escaped, sizeof escaped, "\\x%02X", static_cast<unsigned int>(byte));
        cases.emplace_back(std::string("a") + static_cast<char>(byte) + "z", std::string("a") + escaped + "z");
    }
    for (const auto &[text, line] : cases) {
        testing::internal::CaptureStderr();
        KAV_LOG(ERROR, "%s", text.c_str());
        EXPECT_EQ(testing::internal::GetCapturedStderr(), "ERROR: " + (line.empty() ? text : line) + "\n");
    }
}

/// Logs more than a reader takes who takes nothing, and to him.
static void expectNotToBeHeldUp(int logStream)
{
    const KAV::Descriptor was(::fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3));
    ::dup2(logStream, STDERR_FILENO);
    const auto began = std::chrono::steady_clock::now();
    for (int line = 0; line < 100; ++line)
        KAV_LOG(ERROR, "%s", std::string(99'997, 'x').c_str());
    const auto end = std::chrono::steady_clock::now();
    ::dup2(was.get(), STDERR_FILENO);
    EXPECT_LT(end - began, 4s);
}

TEST(Logger, isNotHeldUpByAReaderThatStalls)
{
    const SerialLine terminal;
    const KAV::Descriptor writer(::open(terminal.device(), O_RDWR | O_NOCTTY | O_CLOEXEC));
    expectNotToBeHeldUp(writer.get());
    int ends[2];
    ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
    Peer reader(ends[0]);
    const KAV::Descriptor pipe(ends[1]);
    expectNotToBeHeldUp(pipe.get());
    EXPECT_THAT(reader.readUntil("never", 500ms), testing::EndsWith("xxx"));
    expectNotToBeHeldUp(pipe.get());
    EXPECT_THAT(reader.readUntil("never", 500ms), StartsWith("\nERROR: xxx")) << "after one that was cut off";
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

TEST(Thread, endsHoweverItIsOwned)
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
    for (int made = 0; made < 200; ++made)
        new Worker(false, [] {});
    EXPECT_TRUE(eventually([] { return Worker::destroyed == 202; })) << "the library deletes what nobody owns";
}

TEST(Thread, runsItsBodyWithASmallStackAndNoSignals)
{
    static int blocked = 0;
    static std::size_t stack = 0;
    testing::internal::CaptureStderr();
    const auto began = std::chrono::steady_clock::now();
    Worker worker(true, [] {
        sigset_t set;
        ::pthread_sigmask(SIG_BLOCK, nullptr, &set);
        for (const int signal : {SIGINT, SIGHUP, SIGPIPE, SIGALRM})
            blocked += sigismember(&set, signal);
        pthread_attr_t attributes;
        ::pthread_getattr_np(::pthread_self(), &attributes);
        ::pthread_attr_getstacksize(&attributes, &stack);
        ::pthread_attr_destroy(&attributes);
        KAV::Thread::sleep(300);
        throw std::runtime_error("thrown");
    });
    worker.wait();
    worker.wait();
    EXPECT_GE(std::chrono::steady_clock::now() - began, 300ms);
    EXPECT_FALSE(worker.isAlive());
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "ERROR: thread 'navtwine worker-with-a-long-name' ended early: thrown\n");
    EXPECT_EQ(blocked, 4);
    EXPECT_LE(stack, 1024U * 1024) << "thousands of them must fit into 32 bits";
}
