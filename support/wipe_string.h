#pragma once

#include <string>

/// Overwrites `text` with zero bytes, then empties it. The compiler cannot optimise the writes away
/// (explicit_bzero(3)). For every copy of a password that is no longer needed.
void wipe_string(std::string &text);

/// A string that its destructor wipes, also when its owner's constructor throws.
struct WipedString : std::string {
    using std::string::string;
    explicit WipedString(const std::string &text) : std::string(text) {}
    WipedString(std::string &&) = delete; ///< the temporary would not be wiped
    WipedString(const WipedString &) = delete;
    WipedString &operator=(const WipedString &) = delete;
    ~WipedString() { wipe_string(*this); }
};
