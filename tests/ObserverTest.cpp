#include "nmea/Observer.h"

#include "nmea/Pulse.h"

#include "Mailbox.h"

#include <gtest/gtest.h>
#include <malloc.h>

struct ObserverTest : testing::TestWithParam<int> {
    static Pulse *thePulse()
    {
        static Pulse *const one = new Pulse; // never deleted
        return one;
    }
    ~ObserverTest() override { pulse = nullptr; }

    Pulse *const set = pulse = GetParam() == 64 ? thePulse() : nullptr; // before the mailbox, whose size it decides
    Mailbox mailbox;
};
INSTANTIATE_TEST_SUITE_P(sizes, ObserverTest, testing::Values(11, 64));

TEST_P(ObserverTest, keepsTheNewestInOrder)
{
    for (const int sent : {GetParam(), GetParam() + 1, 100}) {
        std::string newest;
        for (int message = 0; message < sent; ++message) {
            const std::string text = std::to_string(message) + std::string(message % 10 == 5 ? 5000 : 1, ' ');
            mailbox.update(text);
            newest += message >= sent - GetParam() ? text : "";
        }
        EXPECT_EQ(mailbox.getData(), newest) << sent;
    }
    mailbox.update("next");
    EXPECT_EQ(mailbox.getData(), "next");
}

TEST_P(ObserverTest, keepsLittleMemory)
{
    const std::size_t before = ::mallinfo2().uordblks;
    for (int message = 0; message < 100; ++message)
        mailbox.update(std::string(1000, ' '));
    static_cast<void>(mailbox.getData());
    EXPECT_LT(::mallinfo2().uordblks, before + 30'000) << "only eleven places keep their memory";
}
