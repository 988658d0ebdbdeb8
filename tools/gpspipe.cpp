/// Stand-in for gpsd's gpspipe on machines without a receiver: prints what `gpspipe -r` prints for a
/// multi-constellation receiver on a boat under way, ten sentences a second, line by line.
///
/// Options of gpspipe: -r (required), -t, -n COUNT (lines). For benchmarks, from the environment: GPSPIPE_RATE, epochs
/// per second (default 1, 0: without a pause), and GPSPIPE_EPOCHS (default: unlimited).

#include <chrono>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>
#include <thread>
#include <unistd.h>

namespace {

struct Options {
    bool raw = false;
    bool timestamps = false;
    long lines = -1;  ///< left to print, negative: no limit
    long epochs = -1; ///< left to print, negative: no limit
    double rate = 1;  ///< epochs per second
};

struct Fix {
    std::tm utc;
    double latitude;  ///< degrees, north
    double longitude; ///< degrees, east
    double course;    ///< degrees, true
    double speed;     ///< knots
};

double fromEnvironment(const char *name, double otherwise)
{
    const char *const text = std::getenv(name);
    return text != nullptr ? std::atof(text) : otherwise;
}

Options parse(int argc, char *argv[])
{
    Options options;
    for (int letter = 0; (letter = ::getopt(argc, argv, "rtn:")) != -1;) {
        switch (letter) {
        case 'r':
            options.raw = true;
            break;
        case 't':
            options.timestamps = true;
            break;
        case 'n':
            options.lines = std::atol(::optarg);
            break;
        default:
            std::exit(1);
        }
    }
    options.rate = fromEnvironment("GPSPIPE_RATE", options.rate);
    options.epochs = static_cast<long>(fromEnvironment("GPSPIPE_EPOCHS", -1));
    return options;
}

class Printer {
public:
    explicit Printer(const Options &options) : timestamps(options.timestamps), left(options.lines) {}

    /// Prints and flushes one line; ends the program when the line count is used up or the pipe is closed.
    void line(const std::string &text)
    {
        if (left == 0)
            std::exit(0);
        --left;
        if (timestamps)
            std::fputs(stamp().c_str(), stdout);
        std::fputs(text.c_str(), stdout);
        if (std::fflush(stdout) != 0)
            std::exit(1);
    }

    [[gnu::format(printf, 2, 3)]] void sentence(const char *format, ...)
    {
        char body[128];
        va_list values;
        va_start(values, format);
        std::vsnprintf(body, sizeof body, format, values);
        va_end(values);
        unsigned int checksum = 0;
        for (const char *at = body; *at != '\0'; ++at)
            checksum ^= static_cast<unsigned char>(*at);
        char whole[sizeof body + 8];
        std::snprintf(whole, sizeof whole, "$%s*%02X\r\n", body, checksum);
        line(whole);
    }

private:
    static std::string stamp()
    {
        const std::time_t now = std::time(nullptr);
        std::tm local{};
        ::localtime_r(&now, &local);
        char text[64];
        return {text, std::strftime(text, sizeof text, "%F %T: ", &local)};
    }

    bool timestamps;
    long left;
};

/// Degrees in NMEA format: degrees and minutes, "5332.1234".
std::string nmeaAngle(double degrees, int degreeDigits)
{
    const int whole = static_cast<int>(degrees);
    char text[32];
    std::snprintf(text, sizeof text, "%0*d%07.4f", degreeDigits, whole, (degrees - whole) * 60);
    return text;
}

Fix fixAt(std::time_t seconds, long epoch)
{
    constexpr double degreesASecond = 6.0 / 3600 / 60; // 6 knots: six minutes of latitude an hour
    const double way = degreesASecond * static_cast<double>(epoch);
    Fix fix{{}, 53.54 + way * 0.5, 9.97 - way * 1.4, 300.0 + 5 * std::sin(static_cast<double>(epoch) / 20), 6.0};
    ::gmtime_r(&seconds, &fix.utc);
    return fix;
}

void printBanner(Printer &out)
{
    out.line(R"({"class":"VERSION","release":"3.22","rev":"3.22","proto_major":3,"proto_minor":14})"
             "\r\n");
    out.line(R"({"class":"DEVICES","devices":[{"class":"DEVICE","path":"/dev/ttyAMA0","driver":"u-blox",)"
             R"("native":1,"bps":9600,"parity":"N","stopbits":1,"cycle":1.00}]})"
             "\r\n");
    out.line(R"({"class":"WATCH","enable":true,"json":false,"nmea":true,"raw":0,"scaled":false,"timing":false})"
             "\r\n");
}

void printEpoch(Printer &out, const Fix &fix)
{
    char time[16];
    char date[16];
    std::strftime(time, sizeof time, "%H%M%S.00", &fix.utc);
    std::snprintf(date, sizeof date, "%02u%02u%02u", static_cast<unsigned>(fix.utc.tm_mday) % 100U,
                  static_cast<unsigned>(fix.utc.tm_mon + 1) % 100U, static_cast<unsigned>(fix.utc.tm_year) % 100U);
    const std::string latitude = nmeaAngle(fix.latitude, 2);
    const std::string longitude = nmeaAngle(fix.longitude, 3);

    out.sentence("GNRMC,%s,A,%s,N,%s,E,%.2f,%.1f,%s,,,A", time, latitude.c_str(), longitude.c_str(), fix.speed,
                 fix.course, date);
    out.sentence("GNVTG,%.1f,T,,M,%.2f,N,%.2f,K,A", fix.course, fix.speed, fix.speed * 1.852);
    out.sentence("GNGGA,%s,%s,N,%s,E,1,11,0.9,4.2,M,45.1,M,,", time, latitude.c_str(), longitude.c_str());
    out.sentence("GNGSA,A,3,02,05,07,13,15,20,24,28,29,30,,,1.7,0.9,1.4");
    out.sentence("GPGSV,3,1,11,02,61,112,44,05,38,297,41,07,22,058,37,13,55,208,43");
    out.sentence("GPGSV,3,2,11,15,30,174,40,20,17,268,35,24,08,031,29,28,44,081,42");
    out.sentence("GPGSV,3,3,11,29,12,330,31,30,67,256,45,21,04,145,");
    out.sentence("GPGLL,%s,N,%s,E,%s,A,A", latitude.c_str(), longitude.c_str(), time);
    out.sentence("GPZDA,%s,%02d,%02d,%04d,00,00", time, fix.utc.tm_mday, fix.utc.tm_mon + 1, fix.utc.tm_year + 1900);
    out.sentence("GPGBS,%s,1.2,1.0,2.4,,,,", time);
}

} // namespace

int main(int argc, char *argv[])
{
    Options options = parse(argc, argv);
    if (!options.raw) {
        std::fputs("gpspipe (stand-in): give -r, and -t for time stamps, -n COUNT for a count\n", stderr);
        return 1;
    }
    Printer out(options);
    printBanner(out);
    const std::time_t begin = std::time(nullptr);
    auto next = std::chrono::steady_clock::now();
    for (long epoch = 0; options.epochs < 0 || epoch < options.epochs; ++epoch) {
        printEpoch(out, fixAt(begin + epoch, epoch));
        if (options.rate > 0) {
            next += std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                std::chrono::duration<double>(1 / options.rate));
            std::this_thread::sleep_until(next);
        }
    }
    return 0;
}
