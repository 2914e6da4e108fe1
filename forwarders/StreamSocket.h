#pragma once

#include <QString>

// Sockets of the stream, as system calls make them. No descriptor outlives an exec. A function that fails
// returns -1, and errno tells why.

namespace StreamSocket {

/// Listens on a Unix stream socket with the mode 0660. What lies at the path is replaced when it is a socket
/// that nobody listens on; otherwise the error is EADDRINUSE.
int listenOnPath(const QString &path);
/// Listens on a TCP port of an IP address.
int listenOnAddress(const QString &address, quint16 port);
/// The next client that waits; neither this nor its socket ever blocks.
int acceptClient(int listener);

/// Connects to a Unix stream socket, without waiting for a server that is busy.
int connectToPath(const QString &path);
/// Connects to a TCP server, and waits for it as long as the system does.
int connectToHost(const QString &host, quint16 port);

/// The longest path that a Unix socket can have, in bytes.
int longestPath();

} // namespace StreamSocket
