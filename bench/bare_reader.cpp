/// The least that reading gpspipe can cost: popen and fgets, nothing done with the lines. Prints its processor
/// time in seconds, gpspipe's not included.

#include <array>
#include <cstdio>
#include <ctime>

int main()
{
    std::FILE *const stream = ::popen("gpspipe -r", "r");
    if (stream == nullptr)
        return 1;
    std::array<char, 512> line;
    while (std::fgets(line.data(), static_cast<int>(line.size()), stream) != nullptr) {
    }
    std::printf("%.6f\n", static_cast<double>(std::clock()) / CLOCKS_PER_SEC);
    return ::pclose(stream) == 0 ? 0 : 1;
}
