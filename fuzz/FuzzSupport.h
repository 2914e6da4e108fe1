#pragma once

#include <QCoreApplication>
#include <QString>

#include <cstddef>
#include <cstdint>

/// What every fuzzer needs of the process: an application object, a folder in memory and silence.
class FuzzEnvironment
{
public:
    FuzzEnvironment();
    ~FuzzEnvironment();
    Q_DISABLE_COPY(FuzzEnvironment)

    /// A file in the folder; the file system under it is held in memory.
    QString file(const QString &name) const { return m_folder + QLatin1Char('/') + name; }

private:
    int m_argc = 1;
    char m_name[5] = "fuzz";
    char *m_argv[2] = {m_name, nullptr};
    QCoreApplication m_application{m_argc, m_argv};
    QString m_folder;
};

/// Ends the process as a finding when a promise does not hold.
void require(bool holds, const char *promise);
