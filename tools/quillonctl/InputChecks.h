#pragma once

#include <QString>
#include <QStringList>

#include <string>

// Checks of what comes from the command line or the file. The checked... functions take an argument in UTF-8
// and throw CommandError with a line that says what is wrong and what is expected.

struct HostPort
{
    QString host; ///< name or address, IPv6 without its brackets
    int port = 0; ///< 1 to 65535
};

bool isUtf8(const std::string &text);

/// Text of 1 to `maximum` characters without control characters; `what` names it in the error.
QString checkedText(const std::string &argument, const QString &what, int maximum);
/// A row id, 1 to 2147483647.
int checkedId(const std::string &argument);
/// A usual serial speed in bit/s.
int checkedBaudRate(const std::string &argument);
/// A serial port: a name under /dev, with or without "/dev/" before it, or an absolute path. Returned as the
/// daemon names it, without "/dev/".
QString checkedPort(const std::string &argument);
/// The display name of a radio; without "|", which ends it in the extended raw stream.
QString checkedRadioName(const std::string &argument);
HostPort checkedHostPort(const std::string &argument);
/// A Pub/Sub topic id.
QString checkedTopic(const std::string &argument);

/// What keeps a text from being SCHEME://HOST or SCHEME://HOST:PORT; empty when it is one.
QString serviceUrlProblem(const QString &url, const QStringList &schemes);
/// What keeps a text from being a host name or address; empty when it is one.
QString hostProblem(const QString &host);

/// The path of the device that a port name stands for.
QString deviceFile(const QString &port);
