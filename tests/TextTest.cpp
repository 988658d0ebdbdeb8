#include "support/Text.h"

#include <gtest/gtest.h>

TEST(Text, splitsAtEveryDelimiter)
{
    EXPECT_EQ(KAV::Text::split("", ',', 0), (std::vector<std::string>{""}));
    EXPECT_EQ(KAV::Text::split(",a,,b,", ',', 0), (std::vector<std::string>{"", "a", "", "b", ""}));
}

TEST(Text, stripsBothEnds)
{
    EXPECT_EQ(KAV::Text::strip("\na\r\nb\r\n", {'\n', '\r'}), "a\r\nb");
    EXPECT_EQ(KAV::Text::strip("\r\n", {'\n', '\r'}), "");
}
