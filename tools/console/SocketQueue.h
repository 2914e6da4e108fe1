#pragma once

#include <QSslSocket>

/// The bytes that were written to a socket and that the system has not taken yet, those that TLS has
/// encrypted already included.
inline qint64 waitingOf(const QTcpSocket &socket)
{
    const auto *tls = qobject_cast<const QSslSocket *>(&socket);
    return socket.bytesToWrite() + (tls ? tls->encryptedBytesToWrite() : 0);
}
