#include "support/Text.h"

#include <gtest/gtest.h>

TEST(Text, splitsAtEveryDelimiter)
{
    const std::pair<const char *, std::vector<std::string>> cases[] = {
        {"", {""}},
        {"a", {"a"}},
        {",a,,b,", {"", "a", "", "b", ""}},
    };
    for (const auto &[text, pieces] : cases)
        EXPECT_EQ(KAV::Text::split(text, ',', 0), pieces) << text;
}

TEST(Text, stripsBothEnds)
{
    const std::pair<const char *, const char *> cases[] = {
        {"", ""}, {"\r\n", ""}, {"a", "a"}, {"\na\r\nb\r\n", "a\r\nb"}, {" a ", " a "},
    };
    for (const auto &[text, stripped] : cases)
        EXPECT_EQ(KAV::Text::strip(text, {'\n', '\r'}), stripped) << text;
}
