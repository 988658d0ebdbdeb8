#pragma once

// Both are best effort: when the kernel refuses, its default stays, and the connection works.

/// Gives a TCP socket a small send buffer (SO_SNDBUF, socket(7)); connections accepted from a listening socket
/// inherit it. With the default one, a peer that stops reading parks megabytes of old positions in the kernel
/// and reads them first when it wakes, while the mailbox promises that the newest data wins.
void limitSendBuffer(int socketDescriptor);

/// Makes sends on a connected TCP socket fail once its peer has acknowledged nothing for five minutes
/// (TCP_USER_TIMEOUT, tcp(7)); probes do the same for a connection on which nothing is sent (SO_KEEPALIVE, socket(7)).
/// The kernel's default takes some 15 minutes, or for ever. Not less than five: a peer that is there and does not read
/// counts, too.
void giveUpDeadPeer(int socketDescriptor);
