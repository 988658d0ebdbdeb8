#pragma once

// All are best effort: if the kernel refuses, its default remains, and the connection works.

/// Gives a TCP socket a small send buffer (SO_SNDBUF, socket(7)), which accepted connections inherit. With the default,
/// megabytes of old positions would pile up in the kernel for a peer that stops reading, and it would get these first
/// when it resumes, although the mailbox drops old messages in favour of new ones.
void limitSendBuffer(int socketDescriptor);

/// Lets a TCP socket send small segments before earlier ones are acknowledged (TCP_NODELAY, tcp(7)), which accepted
/// connections inherit. Otherwise a second message can wait 40 ms or more for the peer's delayed acknowledgement.
void disableNagle(int socketDescriptor);

/// Makes sends on a connected TCP socket fail after five minutes without an acknowledgement (TCP_USER_TIMEOUT, tcp(7));
/// keep-alive probes do the same for an idle connection (SO_KEEPALIVE, socket(7)). The kernel's defaults are some 15
/// minutes and never. Not less than five minutes, since a peer that is up but does not read counts as dead too.
void giveUpDeadPeer(int socketDescriptor);
