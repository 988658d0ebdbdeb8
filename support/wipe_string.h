#pragma once

#include <string>

/// Overwrites every character of `text` with a zero byte, then empties it. The compiler cannot drop the writes
/// (explicit_bzero(3)). For every copy of a password that is no longer needed.
void wipe_string(std::string &text);

/// A string that is wiped when it goes, on every way out of its scope or of its owner's constructor.
struct WipedString : std::string {
    using std::string::string;
    explicit WipedString(const std::string &text) : std::string(text) {}
    WipedString(std::string &&) = delete; ///< the temporary would go unwiped
    WipedString(const WipedString &) = delete;
    WipedString &operator=(const WipedString &) = delete;
    ~WipedString() { wipe_string(*this); }
};
