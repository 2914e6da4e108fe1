#pragma once

#include <QString>

#include <exception>

/// Ends a command that cannot be carried out: one line for standard error, exit code 2.
class CommandError : public std::exception
{
public:
    explicit CommandError(const QString &message) : m_message(message) { }

    QString message() const { return m_message; }
    const char *what() const noexcept override { return "command error"; }

private:
    QString m_message;
};
