#include "nmea/Observer.h"
#include "nmea/Pulse.h"

#include "Mailbox.h"

#include <gtest/gtest.h>
#include <malloc.h>

TEST(Observer, keepsTheNewestMessagesAndLittleMemory)
{
    static Pulse *const aPulse = new Pulse; // never deleted
    for (const int size : {11, 64}) {
        pulse = size == 64 ? aPulse : nullptr;
        Mailbox mailbox;
        const std::size_t before = ::mallinfo2().uordblks;
        for (const int sent : {1, size, size + 1, 100}) {
            std::string newest;
            for (int message = 0; message < sent; ++message) {
                mailbox.update(std::to_string(message) + std::string(1000, ' '));
                newest += message >= sent - size ? std::to_string(message) + std::string(1000, ' ') : "";
            }
            EXPECT_EQ(mailbox.getData(), newest) << sent;
        }
        EXPECT_LT(::mallinfo2().uordblks, before + 30'000) << "only eleven places keep their memory";
    }
    pulse = nullptr;
}
