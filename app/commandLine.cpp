#include "app/commandLine.h"

#include "nmea/Observer.h"
#include "nmea/sentence.h"
#include "support/Logger.h"
#include "support/wipe_string.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <termios.h>

const std::map<std::string, std::uint16_t> baudTable{
    {"4800", B4800}, {"9600", B9600}, {"19200", B19200}, {"38400", B38400}, {"57600", B57600}, {"115200", B115200},
};

namespace {

constexpr const char *usage = R"(
usage: navtwine [OPTIONS]

OPTIONS:
 --[no-]daemonize
 --[no-]timestamp

 --[no-]server
 --server-port PORT [default: 5445]
 --server-passwd PASSWD
 --[no-]client
 --client-protocol tcp|udp [default: tcp]
 --client-remote-host IPADDR/MASK
 --client-port PORT [default: 5445]
 --client-passwd PASSWD
 --serial SERIAL_PORT
 --baud [default: 115200]
 --datalength [7|8 default: 8]
 --parity [none|odd|even default: none]
 --stopbits [1|2 default: 1]
 --hwflow
 [--rs485]

 --id ID
 --id-prefix PREFIX
 --interval INTERVAL [default: 10]

 --[no-]gga
 --[no-]gsa
 --[no-]gsv
 --[no-]gll
 --[no-]rmc
 --[no-]vtg
 --[no-]zda
 --[no-]gbs

 --loglevel [1-100 default 30] )"
                              "\n"
                              " -e  use stderr for log (default: disabled)\n";

[[noreturn]] void abortExecution(const char *complaint, const std::string &value)
{
    std::fprintf(stderr, "%s %s[ABORTING EXECUTION]\n", complaint, value.c_str());
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
        abortExecution("Invalid baud value", value);
    settings.serialSpeed = row->second;
}

void setStopBits(RunSettings &settings, char *value)
{
    const int count = numberOf(value);
    if (count != 1 && count != 2)
        abortExecution("Invalid stop value", value);
    settings.serialStopBits = count == 2 ? CSTOPB : 0;
}

void setDataLength(RunSettings &settings, char *value)
{
    const int bits = numberOf(value);
    if (bits != 7 && bits != 8)
        abortExecution("Invalid datalength value", value);
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
        abortExecution("Unknown protocol", word);
    settings.clientProtocol = word == "TCP" ? 't' : 'u';
}

void setInterval(RunSettings &settings, char *value)
{
    settings.interval = static_cast<std::int32_t>(std::strtoul(value, nullptr, 0));
}

template <bool RunSettings::*field, bool on>
void setFlag(RunSettings &settings, char * /*value*/)
{
    settings.*field = on;
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

template <SentenceType type, bool on>
void setSwitch(RunSettings & /*settings*/, char * /*value*/)
{
    filterOf(type).enabled = on;
}

template <bool on>
void setImmediate(RunSettings & /*settings*/, char * /*value*/)
{
    immediateDelivery = on;
}

struct Option {
    std::string_view name;
    bool takesValue; ///< the next argument, whatever it looks like; if there is none, the option is ignored
    void (*apply)(RunSettings &settings, char *value);
};

constexpr std::array options{
    Option{"--loglevel", true, setLogLevel},
    Option{"--server", false, setFlag<&RunSettings::serverEnabled, true>},
    Option{"-e", false, setFlag<&RunSettings::logToStderr, true>},
    Option{"--no-server", false, setFlag<&RunSettings::serverEnabled, false>},
    Option{"--rs485", false, setFlag<&RunSettings::serialRs485, true>},
    Option{"--serial", true, setText<&RunSettings::serialPort>},
    Option{"--client", false, setFlag<&RunSettings::clientEnabled, true>},
    Option{"--no-client", false, setFlag<&RunSettings::clientEnabled, false>},
    Option{"--timestamp", false, setFlag<&RunSettings::timestamp, true>},
    Option{"--no-timestamp", false, setFlag<&RunSettings::timestamp, false>},
    Option{"--baud", true, setBaud},
    Option{"--stopbits", true, setStopBits},
    Option{"--hwflow", false, [](RunSettings &settings, char *) { settings.serialHwFlow = CRTSCTS; }},
    Option{"--datalength", true, setDataLength},
    Option{"--parity", true, setParity},
    Option{"--server-port", true, setPort<&RunSettings::serverPort>},
    Option{"--client-port", true, setPort<&RunSettings::clientPort>},
    Option{"--server-passwd", true, setSecret<&RunSettings::serverPassword>},
    Option{"--client-passwd", true, setSecret<&RunSettings::clientPassword>},
    Option{"--client-protocol", true, setClientProtocol},
    Option{"--client-remote-host", true, setText<&RunSettings::clientRemoteHost>},
    Option{"--id-prefix", true, setText<&RunSettings::stationIdPrefix>},
    Option{"--id", true, setText<&RunSettings::stationId>},
    Option{"--interval", true, setInterval},
    Option{"--gga", false, setSwitch<SentenceType::GGA, true>},
    Option{"--no-gga", false, setSwitch<SentenceType::GGA, false>},
    Option{"--rmc", false, setSwitch<SentenceType::RMC, true>},
    Option{"--no-rmc", false, setSwitch<SentenceType::RMC, false>},
    Option{"--gsa", false, setSwitch<SentenceType::GSA, true>},
    Option{"--no-gsa", false, setSwitch<SentenceType::GSA, false>},
    Option{"--zda", false, setSwitch<SentenceType::ZDA, true>},
    Option{"--no-zda", false, setSwitch<SentenceType::ZDA, false>},
    Option{"--gbs", false, setSwitch<SentenceType::GBS, true>},
    Option{"--no-gbs", false, setSwitch<SentenceType::GBS, false>},
    Option{"--gll", false, setSwitch<SentenceType::GLL, true>},
    Option{"--no-gll", false, setSwitch<SentenceType::GLL, false>},
    Option{"--gsv", false, setSwitch<SentenceType::GSV, true>},
    Option{"--no-gsv", false, setSwitch<SentenceType::GSV, false>},
    Option{"--vtg", false, setSwitch<SentenceType::VTG, true>},
    Option{"--no-vtg", false, setSwitch<SentenceType::VTG, false>},
    Option{"--immediate", false, setImmediate<true>},
    Option{"--no-immediate", false, setImmediate<false>},
    Option{"--daemonize", false, setFlag<&RunSettings::daemonize, true>},
    Option{"--no-daemonize", false, setFlag<&RunSettings::daemonize, false>},
};

} // namespace

bool wantsUsage(int argc, char *argv[])
{
    return argc <= 1 || std::any_of(argv + 1, argv + argc,
                                    [](std::string_view argument) { return argument == "-h" || argument == "--help"; });
}

void printUsage()
{
    std::puts(usage);
    std::fflush(stdout);
    std::exit(0);
}

RunSettings parseCommandLine(int argc, char *argv[])
{
    RunSettings settings;
    for (int index = 1; index < argc; ++index) {
        const std::string_view argument(argv[index]);
        const auto *const option = std::find_if(options.begin(), options.end(),
                                                [argument](const Option &row) { return row.name == argument; });
        if (option == options.end() || (option->takesValue && index + 1 == argc))
            continue;
        if (option->takesValue)
            ++index;
        option->apply(settings, argv[index]);
    }
    return settings;
}
