#pragma once

#include "tools/console/Connection.h"

#include <QSslConfiguration>
#include <QTcpServer>

#include <deque>
#include <optional>

/// Accepts connections, each for one request. Of more than 128 at a time the oldest gives way, so that slow
/// clients do not keep others out.
class Server : public QTcpServer
{
    Q_OBJECT

public:
    explicit Server(QObject *parent = nullptr);

    /// Speaks TLS from now on; throws CommandError when certificate (PEM, with its chain) or key cannot be
    /// used, or do not belong together.
    void useCertificate(const QString &certificateFile, const QString &keyFile);

signals:
    void requested(Connection *connection, const Request &request);

protected:
    void incomingConnection(qintptr descriptor) override;

private:
    std::optional<QSslConfiguration> m_tls;
    std::deque<Connection *> m_connections; ///< the oldest first
};
