#pragma once

#include "tools/radiosim/SimulatedRadio.h"

#include <QCommandLineParser>

/// The program's command line, checked.
class RadiosimOptions
{
public:
    RadiosimOptions();

    /// False and errorString() on bad input; nothing is checked when help or the version is asked for.
    bool parse(const QStringList &arguments);
    QString errorString() const { return m_errorString; }
    bool wantsHelp() const { return m_parser.isSet(QStringLiteral("help")); }
    bool wantsVersion() const { return m_parser.isSet(QStringLiteral("version")); }
    /// Options, examples, the script's lines and the commands of the standard input.
    QString helpText() const;

    int count() const { return m_count; }
    /// Radios are numbered from 1; their ESNs count up from the first and keep its width.
    RadioSettings settings(int radio) const;
    /// Empty without --link; with several radios "PATH-1", or PATH with "%1" replaced by the number.
    QString link(int radio) const;

    QString script() const { return m_parser.value(QStringLiteral("script")); }
    /// Lines per second, 0 for none.
    double traffic() const { return m_traffic; }
    bool control() const { return m_parser.isSet(QStringLiteral("control")); }
    bool quiet() const { return m_parser.isSet(QStringLiteral("quiet")); }

private:
    bool readNumbers();
    bool readEsn();
    bool fail(const QString &error);

    QCommandLineParser m_parser;
    QString m_errorString;
    RadioSettings m_settings;
    int m_count = 1;
    double m_traffic = 0;
};
