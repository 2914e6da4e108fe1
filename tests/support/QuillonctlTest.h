#pragma once

#include "support/OpenSsl.h"
#include "support/TestDatabase.h"

#include <memory>

/// What the tests of quillonctl share: a database with a radio, two outputs and an action, anew for each
/// test, and the built command.
class QuillonctlTest : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase()
    {
        init();
        FreshDatabase made(m_file->path());
        m_file->run(
            "INSERT INTO radio_adapters VALUES (1, 'UART', 'ttyUSB7', 'n', 0, 0, 4800, 1, 1, 1, '28931')"_s);
        m_file->run(
            "UPDATE data_forwarder SET secret = 's', context = 't', comment = '', target = 'http://h'"_s);
        m_file->run("INSERT INTO data_forwarder VALUES (2, 'Raw', 's', 'c', 'x', 'h', '1', 0, 3)"_s);
        m_file->run("INSERT INTO pending_actions VALUES (1, 'RESTART_APP')"_s);
        m_filledFile = fileBytes();
    }

protected slots:
    void init()
    {
        m_file = std::make_unique<TestDatabase>();
        m_file->writeFile("quillon.sqlite"_s, m_filledFile);
    }

protected:
    /// Runs a line of the shell after the command's name and the file's; the exit code, -1 after a crash.
    int run(const QString &command, const QByteArray &input = {}, const QString &path = {})
    {
        QProcess process;
        process.setWorkingDirectory(m_file->folder());
        process.start("sh"_s,
            {"-c"_s, "exec \"$0\" -c \"$1\" "_s + command, m_program,
                path.isEmpty() ? m_file->path() : path});
        process.write(input);
        process.closeWriteChannel();
        process.waitForFinished();
        m_out = process.readAllStandardOutput();
        m_error = process.readAllStandardError();
        return process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
    }
    /// Every row of the file, each after the name of its table.
    QSet<QString> rows() const
    {
        QStringList all;
        for (const QString &table : {"radio_adapters"_s, "port_blacklist"_s, "data_forwarder"_s,
                 "system_configuration"_s, "pending_actions"_s})
            all += m_file->run("SELECT '%1', * FROM %1"_s.arg(table)).split(u'\n', Qt::SkipEmptyParts);
        return {all.begin(), all.end()};
    }
    QByteArray fileBytes() const { return m_file->readFile("quillon.sqlite"_s); }

    const QString m_program = QUILLON_BIN_DIR "/quillonctl"_s;
    std::unique_ptr<TestDatabase> m_file;
    QByteArray m_filledFile;
    TestCredential m_credential;
    QByteArray m_out;
    QByteArray m_error;
};
