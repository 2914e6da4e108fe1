#include "tools/radiosim/RadiosimOptions.h"

#include "tools/radiosim/TrafficGenerator.h"

#include <QRegularExpression>

#include <array>

namespace {

constexpr int maxCount = 1000;

struct Text
{
    const char *option;
    QString RadioSettings::*setting;
};

constexpr std::array texts{
    Text{"comment1", &RadioSettings::comment1},
    Text{"comment2", &RadioSettings::comment2},
    Text{"dsp", &RadioSettings::dsp},
    Text{"firmware", &RadioSettings::firmware},
    Text{"front", &RadioSettings::front},
};

const char help[] = R"(
Examples:
  quillon-radiosim --link /tmp/ttyRadio --baud 9600
      One radio; whatever opens /tmp/ttyRadio at 9600 bit/s talks to it.
  quillon-radiosim --count 3 --link '/tmp/ttyRadio%1' --traffic 2.5 --line-rate
      Three radios, each hearing five lines in two seconds. Every line holds a
      running number, such as N000123.
  quillon-radiosim --link /tmp/ttyRadio --script evening.txt
      One radio that hears what the script says, from the start of the program.

Script lines:
  DELAY_MS TEXT     TEXT as one frame, DELAY_MS milliseconds after the line before
  DELAY_MS !BYTES   the bytes without a frame around them, such as half a frame
  # anything        a comment; blank lines are skipped, too
  Escapes: \xNN (any byte, in hexadecimal), \n, \r, \t, \0, \\. Example:
    500 *NTF,DPMR,RXVCALL,IND,0047312,1234567,1,30
    100 !\x02*NTF,DPMR,RXS
    250 !TAT,IND,0047312,1234567,1,30,ACK\x03

Commands on the standard input, with --control, one a line:
  unplug [N]        the device of radio N vanishes; of every radio without N
  plug [N]          plugs it in again, as a new device behind the same link
  baud RATE [N]     changes the radio's own speed
  traffic RATE [N]  hears RATE numbered lines per second from now on, 0 for none
  hear TEXT         every radio hears TEXT; "hear:N TEXT" for radio N alone
  raw BYTES         like hear, without a frame; "raw:N BYTES" for radio N alone
  Each is answered by "ok", or by "error: " and a reason, after the lines that
  it causes. TEXT and BYTES take the escapes of a script. The end of the input
  ends the program.

Noise: a radio and a device at different speeds read each other's bytes as noise.
What a radio hears while nobody has its device open is lost.

A program killed with SIGKILL may leave its device locked for all but root, as
serial ports are opened for one program alone: unplug and plug the radio then.

Exit codes: 0 after SIGINT or SIGTERM, 2 for bad input.
)";

QString speedList()
{
    QStringList list;
    for (const int speed : PseudoTerminal::knownSpeeds())
        list.append(QString::number(speed));
    return list.join(QStringLiteral(", "));
}

} // namespace

RadiosimOptions::RadiosimOptions()
{
    const auto add = [this](const char *name, const char *description, const char *value = "") {
        m_parser.addOption(QCommandLineOption(
            QString::fromLatin1(name), QString::fromLatin1(description), QString::fromLatin1(value)));
    };
    m_parser.setApplicationDescription(QStringLiteral("Simulated radios on pseudo-terminals."));
    add("link", "Symbolic link to the radio's device; PATH-1, PATH-2 ... or %1 in PATH with --count.",
        "PATH");
    add("baud", "Speed of the radio in bit/s (19200).", "RATE");
    add("esn", "Serial number of the first radio (28940001); the others count up.", "DIGITS");
    add("comment1", "First cloning comment.", "TEXT");
    add("comment2", "Second cloning comment.", "TEXT");
    add("dsp", "DSP firmware (1.02,DSP), or NG.", "TEXT");
    add("firmware", "Firmware (1.0,$AB12,SIM).", "TEXT");
    add("front", "Front panel firmware (1.00,FRONT), or NG.", "TEXT");
    add("script", "What the radios hear, and when.", "FILE");
    add("traffic", "Lines that each radio hears per second; fractions are fine.", "PER_SECOND");
    add("line-rate", "Send no faster than the radio's speed allows.");
    add("count", "Number of radios (1).", "N");
    add("control", "Take commands from the standard input.");
    add("quiet", "Print only where the radios are, and answers to commands.");
    m_parser.addOption({{QStringLiteral("h"), QStringLiteral("help")}, QStringLiteral("Show this help.")});
    m_parser.addVersionOption();
}

bool RadiosimOptions::parse(const QStringList &arguments)
{
    if (!m_parser.parse(arguments))
        return fail(m_parser.errorText());
    if (wantsHelp() || wantsVersion())
        return true;
    if (!m_parser.positionalArguments().isEmpty())
        return fail(QStringLiteral("unexpected argument '%1'").arg(m_parser.positionalArguments().first()));
    for (const Text &text : texts) {
        const QString option = QString::fromLatin1(text.option);
        if (m_parser.isSet(option))
            m_settings.*text.setting = m_parser.value(option);
    }
    m_settings.lineRate = m_parser.isSet(QStringLiteral("line-rate"));
    return readNumbers() && readEsn();
}

QString RadiosimOptions::helpText() const
{
    return m_parser.helpText() + QString::fromUtf8(help);
}

RadioSettings RadiosimOptions::settings(int radio) const
{
    RadioSettings settings = m_settings;
    const qulonglong esn = m_settings.esn.toULongLong() + qulonglong(radio - 1);
    settings.esn = QString::number(esn).rightJustified(m_settings.esn.size(), QLatin1Char('0'));
    return settings;
}

QString RadiosimOptions::link(int radio) const
{
    QString path = m_parser.value(QStringLiteral("link"));
    if (path.contains(QStringLiteral("%1")))
        return path.replace(QStringLiteral("%1"), QString::number(radio));
    return path.isEmpty() || m_count == 1 ? path : QStringLiteral("%1-%2").arg(path).arg(radio);
}

bool RadiosimOptions::readNumbers()
{
    bool isNumber = true;
    const QString baud = m_parser.value(QStringLiteral("baud"));
    if (m_parser.isSet(QStringLiteral("baud")))
        m_settings.baud = baud.toInt(&isNumber);
    if (!isNumber || !PseudoTerminal::knownSpeeds().contains(m_settings.baud))
        return fail(QStringLiteral("--baud: '%1' is none of %2").arg(baud, speedList()));

    const QString count = m_parser.value(QStringLiteral("count"));
    if (m_parser.isSet(QStringLiteral("count")))
        m_count = count.toInt(&isNumber);
    if (!isNumber || m_count < 1 || m_count > maxCount)
        return fail(QStringLiteral("--count: '%1' is not a number from 1 to %2").arg(count).arg(maxCount));

    const QString traffic = m_parser.value(QStringLiteral("traffic"));
    if (!m_parser.isSet(QStringLiteral("traffic")))
        return true;
    m_traffic = traffic.toDouble(&isNumber);
    if (!isNumber || !(m_traffic > 0 && m_traffic <= TrafficGenerator::maxPerSecond))
        return fail(QStringLiteral("--traffic: '%1' is not a number above 0, up to %2")
                        .arg(traffic)
                        .arg(TrafficGenerator::maxPerSecond));
    return true;
}

bool RadiosimOptions::readEsn()
{
    if (!m_parser.isSet(QStringLiteral("esn")))
        return true;
    static const QRegularExpression digits(QStringLiteral("\\A[0-9]{1,18}\\z"));
    m_settings.esn = m_parser.value(QStringLiteral("esn"));
    return digits.match(m_settings.esn).hasMatch()
        || fail(QStringLiteral("--esn: '%1' is not a number of 1 to 18 digits").arg(m_settings.esn));
}

bool RadiosimOptions::fail(const QString &error)
{
    m_errorString = error;
    return false;
}
