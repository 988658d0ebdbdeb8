#pragma once

/// Gives a TCP socket a small send buffer (SO_SNDBUF, socket(7)); connections accepted from a listening socket
/// inherit it. With the default one, a peer that stops reading parks megabytes of old positions in the kernel
/// and reads them first when it wakes, while the mailbox promises that the newest data wins. Best effort.
void limitSendBuffer(int socketDescriptor);
