#include "app/commandLine.h"

#include "app/usage.h"
#include "nmea/sentence.h"
#include "support/Logger.h"
#include "support/wipe_string.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <termios.h>

const std::map<std::string, std::uint16_t> baudTable{
    {"4800", B4800}, {"9600", B9600}, {"19200", B19200}, {"38400", B38400}, {"57600", B57600}, {"115200", B115200},
};

namespace {

[[noreturn]] void abortExecution(const std::string &complaint)
{
    std::fprintf(stderr, "%s[ABORTING EXECUTION]\n", complaint.c_str());
    std::exit(1);
}

/// A decimal, 0x hexadecimal or 0 octal number, truncated to 16 bits. Trailing text is ignored; no digits give 0.
std::int16_t numberOf(const char *value) { return static_cast<std::int16_t>(std::strtol(value, nullptr, 0)); }

void setLogLevel(RunSettings &settings, char *value)
{
    settings.logLevel = numberOf(value);
    KAV::Logger::setPrintLevel(settings.logLevel, false);
}

void setBaud(RunSettings &settings, char *value)
{
    const auto row = baudTable.find(value);
    if (row == baudTable.end())
        abortExecution(std::string("Invalid baud value ") + value);
    settings.serialSpeed = row->second;
}

void setStopBits(RunSettings &settings, char *value)
{
    const int count = numberOf(value);
    if (count != 1 && count != 2)
        abortExecution(std::string("Invalid stop value ") + value);
    settings.serialStopBits = count == 2 ? CSTOPB : 0;
}

void setDataLength(RunSettings &settings, char *value)
{
    const int bits = numberOf(value);
    if (bits != 7 && bits != 8)
        abortExecution(std::string("Invalid datalength value ") + value);
    settings.serialCharSize = bits == 7 ? CS7 : CS8;
}

void setParity(RunSettings &settings, char *value)
{
    const std::string_view word(value);
    if (word == "odd")
        settings.serialParity = PARENB | PARODD;
    else
        settings.serialParity = word == "even" ? PARENB : 0;
}

void setClientProtocol(RunSettings &settings, char *value)
{
    std::string word(value);
    std::transform(word.begin(), word.end(), word.begin(),
                   [](unsigned char letter) { return static_cast<char>(std::toupper(letter)); });
    if (word != "TCP" && word != "UDP")
        abortExecution(std::string("Unknown protocol ") + word);
    settings.clientProtocol = word == "TCP" ? 't' : 'u';
}

template <std::int32_t RunSettings::*field>
void setSeconds(RunSettings &settings, char *value)
{
    settings.*field = static_cast<std::int32_t>(std::strtoul(value, nullptr, 0));
}

template <std::string RunSettings::*field>
void setText(RunSettings &settings, char *value)
{
    settings.*field = value;
}

template <std::string RunSettings::*field>
void setSecret(RunSettings &settings, char *value)
{
    wipe_string(settings.*field); // the option may be given twice
    settings.*field = value;
    ::explicit_bzero(value, std::strlen(value));
}

template <std::uint16_t RunSettings::*field>
void setPort(RunSettings &settings, char *value)
{
    settings.*field = static_cast<std::uint16_t>(numberOf(value));
}

template <bool RunSettings::*field>
void setFlag(RunSettings &settings, bool on)
{
    settings.*field = on;
}

void setHwFlow(RunSettings &settings, bool on) { settings.serialHwFlow = on ? CRTSCTS : 0; }

template <SentenceType type>
void setSentence(RunSettings & /*settings*/, bool on)
{
    filterOf(type).enabled = on;
}

struct Switch {
    std::string_view on;
    std::string_view off; ///< empty: it cannot be switched off
    void (*set)(RunSettings &settings, bool on);
};

/// In the order of the usage text, which does not name the last two.
constexpr std::array switches{
    Switch{"--daemonize", "--no-daemonize", setFlag<&RunSettings::daemonize>},
    Switch{"--timestamp", "--no-timestamp", setFlag<&RunSettings::timestamp>},
    Switch{"--server", "--no-server", setFlag<&RunSettings::serverEnabled>},
    Switch{"--client", "--no-client", setFlag<&RunSettings::clientEnabled>},
    Switch{"--hwflow", "", setHwFlow},
    Switch{"--rs485", "", setFlag<&RunSettings::serialRs485>},
    Switch{"--gga", "--no-gga", setSentence<SentenceType::GGA>},
    Switch{"--gsa", "--no-gsa", setSentence<SentenceType::GSA>},
    Switch{"--gsv", "--no-gsv", setSentence<SentenceType::GSV>},
    Switch{"--gll", "--no-gll", setSentence<SentenceType::GLL>},
    Switch{"--rmc", "--no-rmc", setSentence<SentenceType::RMC>},
    Switch{"--vtg", "--no-vtg", setSentence<SentenceType::VTG>},
    Switch{"--zda", "--no-zda", setSentence<SentenceType::ZDA>},
    Switch{"--gbs", "--no-gbs", setSentence<SentenceType::GBS>},
    Switch{"-e", "", setFlag<&RunSettings::logToStderr>},
    Switch{"--immediate", "--no-immediate", setFlag<&RunSettings::immediate>},
    Switch{"--strict", "", setFlag<&RunSettings::strict>},
};

/// Takes the next argument as its value, whatever that looks like; if there is none, the option is ignored.
struct ValueOption {
    std::string_view name;
    void (*set)(RunSettings &settings, char *value);
    bool (*isValid)(const char *value) = [](const char *) { return true; }; ///< for --strict
};

/// A whole number, decimal, 0x hexadecimal or 0 octal, and nothing else.
template <long lowest, long highest>
bool isNumber(const char *value)
{
    char *end = nullptr;
    errno = 0;
    const long number = std::strtol(value, &end, 0);
    const bool startsWithDigit = std::isdigit(static_cast<unsigned char>(*value)) != 0;
    return startsWithDigit && *end == '\0' && errno == 0 && number >= lowest && number <= highest;
}
constexpr auto isPort = isNumber<1, 65535>;
constexpr auto isSeconds = isNumber<0, 2147483647>;

/// A line of the handshake holds no more.
bool isPassword(const char *value) { return std::strlen(value) <= 255; }

bool isParity(const char *value)
{
    const std::string_view word(value);
    return word == "none" || word == "odd" || word == "even";
}

/// In the order of the usage text, which does not name the last.
constexpr std::array valueOptions{
    ValueOption{"--server-port", setPort<&RunSettings::serverPort>, isPort},
    ValueOption{"--server-passwd", setSecret<&RunSettings::serverPassword>, isPassword},
    ValueOption{"--client-protocol", setClientProtocol},
    ValueOption{"--client-remote-host", setText<&RunSettings::clientRemoteHost>},
    ValueOption{"--client-port", setPort<&RunSettings::clientPort>, isPort},
    ValueOption{"--client-passwd", setSecret<&RunSettings::clientPassword>, isPassword},
    ValueOption{"--serial", setText<&RunSettings::serialPort>},
    ValueOption{"--baud", setBaud},
    ValueOption{"--datalength", setDataLength, isNumber<7, 8>},
    ValueOption{"--parity", setParity, isParity},
    ValueOption{"--stopbits", setStopBits, isNumber<1, 2>},
    ValueOption{"--id", setText<&RunSettings::stationId>},
    ValueOption{"--id-prefix", setText<&RunSettings::stationIdPrefix>},
    ValueOption{"--interval", setSeconds<&RunSettings::interval>, isSeconds},
    ValueOption{"--loglevel", setLogLevel, isNumber<1, 100>},
    ValueOption{"--status", setSeconds<&RunSettings::statusInterval>, isSeconds},
};

/// False if `argument` is no switch. An opposite that does not exist matches nothing.
bool applySwitch(RunSettings &settings, std::string_view argument)
{
    const auto *const row = std::find_if(switches.begin(), switches.end(), [argument](const Switch &each) {
        return argument == each.on || (argument == each.off && !each.off.empty());
    });
    if (row == switches.end())
        return false;
    row->set(settings, argument == row->on);
    return true;
}

/// What --strict has against a value; empty if nothing. Passwords are not repeated.
std::string complaintAbout(const ValueOption &option, const char *value)
{
    if (option.isValid(value))
        return {};
    const std::string name(option.name);
    return "Invalid value of " + (option.isValid == isPassword ? name : name + " " + value);
}

/// What does not fit together; empty if all does.
std::string findContradiction(const RunSettings &settings)
{
    const bool anyType = std::any_of(sentenceFilters.begin(), sentenceFilters.end(),
                                     [](const SentenceFilter &filter) { return filter.enabled; });
    if (settings.wantsConsumer() && !anyType)
        return "No sentence type, such as --gga, for a consumer";
    if (!settings.wantsConsumer() && anyType)
        return "No --server, --client or --serial for a sentence type";
    if (settings.daemonize && settings.logToStderr)
        return "-e does not go with --daemonize";
    if (settings.clientEnabled && settings.clientRemoteHost.empty())
        return "No --client-remote-host for --client";
    return {};
}

} // namespace

RunSettings parseCommandLine(int argc, char *argv[])
{
    RunSettings settings;
    std::string complaint; // the first
    std::string_view previous = "navtwine";
    for (int index = 1; index < argc; ++index) {
        const std::string_view argument(argv[index]);
        const auto *const option = std::find_if(valueOptions.begin(), valueOptions.end(),
                                                [argument](const ValueOption &row) { return row.name == argument; });
        std::string next;
        if (argument == "--version")
            printVersion();
        if (option != valueOptions.end() && index + 1 < argc) {
            next = complaintAbout(*option, argv[++index]);
            option->set(settings, argv[index]);
        } else if (!applySwitch(settings, argument)) {
            // Stray text may be a part of a password, and so may what follows a "=".
            const std::string name(argument.substr(0, argument.find('=')));
            next = argument.starts_with('-') ? "Unknown, or without its value: " + name
                                             : "Unexpected text after " + std::string(previous);
        }
        previous = argument;
        complaint = complaint.empty() ? next : complaint;
    }
    if (complaint.empty())
        complaint = findContradiction(settings);
    if (settings.strict && !complaint.empty())
        abortExecution(complaint);
    return settings;
}
