// Input: the text, then the limit.
static void check(FuzzedDataProvider input)
{
    const int limit = input.ConsumeIntegralInRange(-1, 8);
    const std::string text = input.ConsumeRemainingBytesAsString();
    const std::vector<std::string> pieces = KAV::Text::split(text, ',', limit);
    std::string joined;
    for (const std::string &piece : pieces) {
        joined += piece + ',';
        assert(piece.find(',') == std::string::npos || (&piece == &pieces.back() && std::ssize(pieces) == limit));
    }
    assert(joined == text + ',' && (limit <= 0 || std::ssize(pieces) <= limit));

    const std::size_t begin = std::min(text.find_first_not_of("\r\n"), text.size());
    assert(KAV::Text::strip(text, {'\r', '\n'}) == text.substr(begin, text.find_last_not_of("\r\n") + 1 - begin));
}
