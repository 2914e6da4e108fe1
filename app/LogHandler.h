#pragma once

#include <QString>
#include <QtGlobal>

/// The sink of every log line, for qInstallMessageHandler: writes the line to standard error, then to syslog,
/// both in the local 8-bit encoding. A fatal message aborts the process after both.
void handleLogMessage(QtMsgType type, const QMessageLogContext &context, const QString &message);
