#include "nmea/Observer.h"
#include "nmea/Pulse.h"

#include "Mailbox.h"

#include <gtest/gtest.h>
#include <malloc.h>
#include <memory>

TEST(Observer, keepsTheNewestMessagesAndLittleMemory)
{
    static Pulse *const aPulse = new Pulse; // never deleted
    for (const auto &[size, length] : {std::pair{11, 5000UL}, {64, 1000UL}}) {
        pulse = size == 64 ? aPulse : nullptr;
        Mailbox mailbox;
        const std::size_t before = ::mallinfo2().uordblks;
        for (const int sent : {1, size, size + 1, 100}) {
            std::string newest;
            for (int message = 0; message < sent; ++message) {
                mailbox.update(std::to_string(message) + std::string(length, ' '));
                newest += message >= sent - size ? std::to_string(message) + std::string(length, ' ') : "";
            }
            EXPECT_EQ(mailbox.getData(), newest) << sent;
        }
        // With sanitizers, which have a malloc of their own, this says nothing.
        EXPECT_LT(::mallinfo2().uordblks, before + 30'000) << "only eleven places keep memory, and none 5,000 bytes";
    }
    pulse = nullptr;
}

TEST(AutoPtr, releasesArraysToo)
{
    const auto shared = std::make_shared<int>();
    KAV::AutoPtr<std::shared_ptr<int>> owner;
    owner.adoptArray(new std::shared_ptr<int>[2] { shared, shared });
    owner = nullptr;
    EXPECT_EQ(shared.use_count(), 1);
}
