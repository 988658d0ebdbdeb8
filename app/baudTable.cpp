#include "app/baudTable.h"

#include <termios.h>

const std::map<std::string, std::uint16_t> baudTable{
    {"4800", B4800}, {"9600", B9600}, {"19200", B19200}, {"38400", B38400}, {"57600", B57600}, {"115200", B115200},
};
