// Input: the arguments, each but the last ended by NUL.
#include "app/commandLine.h"

/// 1 is the parser's, which must not end the fuzzer.
extern "C" [[noreturn]] void __wrap_exit(int status) { status == 1 ? throw status : std::_Exit(status); }

static void check(FuzzedDataProvider input)
try {
    std::vector<std::string> was = KAV::Text::split(input.ConsumeRemainingBytesAsString(), '\0', 0), now = was;
    std::vector<char *> argv;
    std::transform(now.begin(), now.end(), std::back_inserter(argv), [](auto &word) { return word.data(); });
    const auto parse = [&argv] { return parseCommandLine(static_cast<int>(argv.size()), argv.data()); };
    const RunSettings s = parse();
    assert(
        std::any_of(baudTable.begin(), baudTable.end(), [&](const auto &row) { return row.second == s.serialSpeed; }));
    assert((s.serialParity == 0 || (s.serialParity & ~PARODD) == PARENB) && (s.serialStopBits & ~CSTOPB) == 0);
    assert((s.serialCharSize == CS7 || s.serialCharSize == CS8) && std::strchr("tu", s.clientProtocol) != nullptr);
    for (std::size_t n = 1; n < was.size(); ++n)
        assert(now[n] == was[n] || (was[n - 1].ends_with("-passwd") && now[n] == std::string(was[n].size(), 0)));
    assert((parse().serverPassword + parse().clientPassword).empty()); // nothing is left of them
} catch (int) {
}
