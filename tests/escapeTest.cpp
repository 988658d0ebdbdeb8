#include "support/escape.h"

#include <gtest/gtest.h>

static std::string escaped(std::string_view text, std::size_t room)
{
    std::string result(room, '#');
    result.resize(static_cast<std::size_t>(KAV::escape(text, result.data(), result.data() + room) - result.data()));
    return result;
}

TEST(escape, showsTheCodesOfAllButText)
{
    for (const char *const text :
         {"", " plain~", "\ttab\n", "end\r\n", "\u00a0\u07ff\u0800\u20ac\ud7ff\ue000", "\U00010000\U0010ffff"})
        EXPECT_EQ(escaped(text, 64), text);
    const std::pair<std::string_view, const char *> cases[] = {
        {{"\0\x1b\x1f\x7f", 4}, R"(\x00\x1B\x1F\x7F)"},
        {"\rover\r", R"(\x0Dover\x0D)"},
        {"\xc2\x80\xc2\x9b", R"(\xC2\x80\xC2\x9B)"}, // C1 controls
        {"\xc3(\x80\xff", R"(\xC3(\x80\xFF)"},       // no continuation, no beginning
        {"\xe2\x82", R"(\xE2\x82)"},                 // cut
        {"\xc0\xaf\xe0\x9f\xbf\xf0\x8f\xbf\xbf", R"(\xC0\xAF\xE0\x9F\xBF\xF0\x8F\xBF\xBF)"}, // longer than necessary
        {"\xed\xa0\x80\xed\xbf\xbf", R"(\xED\xA0\x80\xED\xBF\xBF)"},                         // surrogates
        {"\xf4\x90\x80\x80\xf5", R"(\xF4\x90\x80\x80\xF5)"},                                 // beyond U+10FFFF
    };
    for (const auto &[text, shown] : cases)
        EXPECT_EQ(escaped(text, 64), shown);
    EXPECT_EQ(escaped("ab\u20ac", 5), "ab") << "no part of a character";
    EXPECT_EQ(escaped("ab\x01", 6), "ab");
}
