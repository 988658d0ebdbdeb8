#include "app/usage.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string_view>

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

[[noreturn]] void printAndExit(const char *text)
{
    std::puts(text);
    std::fflush(stdout);
    std::exit(0);
}

} // namespace

bool wantsUsage(int argc, char *argv[])
{
    const bool isEmpty = argc <= 1 || (argc == 2 && std::string_view(argv[1]) == "--strict");
    return isEmpty || std::any_of(argv + 1, argv + argc,
                                  [](std::string_view argument) { return argument == "-h" || argument == "--help"; });
}

void printUsage() { printAndExit(usage); }

void printVersion() { printAndExit("navtwine " NAVTWINE_VERSION); }
