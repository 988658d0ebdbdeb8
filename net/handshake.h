#pragma once

#include <string>

/// Reads one line from a connected socket into `buffer`, byte by byte, so that nothing after the line is consumed.
///
/// Returns the number of bytes read, including the "\n", if one arrived; the buffer then holds the bytes before it,
/// including any "\r", terminated by NUL. Returns `bufferSize` if `bufferSize` - 1 bytes were stored and one more
/// arrived, which is lost. Returns -1 after more than `timeoutSeconds` (also if the peer closed meanwhile, but at once
/// while `isShort`), and if poll or recv failed. Blocks for at most a little over `timeoutSeconds` (whole seconds of
/// time()). Thread: the socket's own. REQUIRES: `bufferSize` is at least 1.
int read_line_from_socket(int socketDescriptor, char *buffer, unsigned int bufferSize, unsigned int timeoutSeconds);

/// The password handshake, in lines of clear text that end in CR LF:
///
///     listening side:  PASSWORD
///     connecting side: (the password)
///     listening side:  OK, or ERROR and the prompt again
///
/// Each side logs why it failed. Every received line may take a little over 30 s. Thread: the socket's own.
namespace handshake {

/// The listening side. True when the peer knew `password` and `OK` was sent. `maxAttempts` 0: no limit.
/// REQUIRES: `password` is not empty.
[[nodiscard]] bool admit(int socketDescriptor, const std::string &password, unsigned int maxAttempts);

/// The connecting side, one attempt. True when the peer accepted `password`.
[[nodiscard]] bool logIn(int socketDescriptor, const std::string &password);

} // namespace handshake
