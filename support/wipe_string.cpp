#include "support/wipe_string.h"

#include <cstring>

void wipe_string(std::string &text)
{
    ::explicit_bzero(text.data(), text.size());
    text.clear();
}
