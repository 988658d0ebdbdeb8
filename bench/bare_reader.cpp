/// The least that reading gpspipe can cost: popen and fgets, nothing done with the lines. Prints its processor
/// time in seconds, gpspipe's not included, and the number of lines.

#include <array>
#include <cstdio>
#include <ctime>

int main()
{
    std::FILE *const stream = ::popen("gpspipe -r", "r");
    if (stream == nullptr)
        return 1;
    std::array<char, 512> line;
    long lines = 0;
    while (std::fgets(line.data(), static_cast<int>(line.size()), stream) != nullptr)
        ++lines;
    timespec used{};
    ::clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &used);
    ::pclose(stream);
    std::printf("%.6f %ld\n", static_cast<double>(used.tv_sec) + static_cast<double>(used.tv_nsec) / 1e9, lines);
    return 0;
}
