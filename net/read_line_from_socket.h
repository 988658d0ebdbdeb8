#pragma once

/// Reads one line from a connected socket into `buffer`, byte by byte, so that nothing behind the line is
/// taken.
///
/// Returns the number of bytes taken, "\n" included, when a "\n" arrived: the buffer then holds the bytes
/// before it, "\r" included, ending in NUL. Returns `bufferSize` when `bufferSize` - 1 bytes were stored and
/// one more arrived: that one is lost, the buffer holds the others. Returns -1 when more than `timeoutSeconds`
/// have passed (also for a peer that closed meanwhile), and when poll or recv failed. `bufferSize` in bytes, at
/// least 1. Blocks for at most a little over `timeoutSeconds` (whole seconds of time()); sleeps whenever there
/// is nothing to take. Thread: the socket's own.
int read_line_from_socket(int socketDescriptor, char *buffer, unsigned int bufferSize, unsigned int timeoutSeconds);
