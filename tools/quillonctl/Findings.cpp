#include "tools/quillonctl/Findings.h"

#include "config/ConfigKeys.h"
#include "config/DataForwarderConfig.h"
#include "config/RadioAdapterConfig.h"
#include "forwarders/CloudRequests.h"
#include "forwarders/OutboxFiles.h"
#include "forwarders/PublishRequest.h"
#include "serial/DevicePath.h"
#include "tools/quillonctl/CredentialFile.h"
#include "tools/quillonctl/DaemonLock.h"
#include "tools/quillonctl/InputChecks.h"
#include "tools/quillonctl/KnownKeys.h"
#include "tools/quillonctl/Listing.h"
#include "tools/quillonctl/OutboxFile.h"
#include "tools/quillonctl/ServiceUser.h"
#include "tools/quillonctl/StreamTarget.h"

#include <QFileInfo>
#include <QTcpSocket>

#include <algorithm>

namespace {

const int connectTimeoutMs = 2000;
const QString makeRoom = QStringLiteral("make room: df -h shows the disks");
const QString errorWord = QStringLiteral("error");

enum Severity {
    Warning = 1,
    Error = 2,
};

QString subjectOf(const QSqlRecord &output)
{
    return QStringLiteral("output %1 (%2)")
        .arg(output.value(QStringLiteral("ids")).toString(),
            output.value(QStringLiteral("type")).toString().toUpper());
}

/// Reads the whole file, tries what it names and collects what would not work.
class Check
{
public:
    Check(const ConfigFile &file, const ServiceUser &user, Probing probing)
        : m_file(file), m_user(user), m_probing(probing)
    {
    }

    void run();
    QJsonArray findings() const { return m_findings; }

private:
    void checkFile();
    void checkRelease();
    void checkKeys();
    void checkAutokill();
    void checkRadios();
    void checkDevice(const QString &subject, const QSqlRecord &radio);
    void checkRadioStatus(const QString &subject, const QSqlRecord &radio);
    void checkOutput(const QSqlRecord &output);
    void checkOutputStatus(const QSqlRecord &output);
    void checkServer(const QString &subject, const QString &host, int port, const QString &remedy);
    void checkOutbox(const QString &subject, int id);
    void checkPubSub(const QString &subject, const QSqlRecord &output, const QString &id);
    void checkStream(const QString &subject, const StreamTarget &target, const QString &id);
    void report(Severity severity, const QString &subject, const QString &problem, const QString &remedy);
    bool hasFound(Severity atLeast, const QString &subject) const;

    const ConfigFile &m_file;
    const ServiceUser m_user;
    const Probing m_probing;
    bool m_triesServer = true;
    QJsonArray m_findings;
};

void Check::run()
{
    checkFile();
    checkRelease();
    checkKeys();
    checkAutokill();
    checkRadios();
    for (const QSqlRecord &output : m_file.rows(QStringLiteral("data_forwarder"))) {
        const bool works = output.value(QStringLiteral("status")).toInt() == DataForwarderConfig::Working;
        m_triesServer = m_probing == Everything || !works;
        if (!output.value(QStringLiteral("enabled")).toBool())
            continue;
        checkOutput(output);
        checkOutputStatus(output);
    }
}

void Check::report(Severity severity, const QString &subject, const QString &problem, const QString &remedy)
{
    m_findings.append(QJsonObject{
        {QStringLiteral("severity"), severity == Error ? errorWord : QStringLiteral("warning")},
        {QStringLiteral("subject"), subject},
        {QStringLiteral("problem"), problem},
        {QStringLiteral("remedy"), remedy},
    });
}

bool Check::hasFound(Severity atLeast, const QString &subject) const
{
    return std::any_of(m_findings.begin(), m_findings.end(), [&](const QJsonValue &value) {
        const QJsonObject finding = value.toObject();
        return finding.value(QStringLiteral("subject")).toString() == subject
            && severityOf(finding) >= atLeast;
    });
}

void Check::checkFile()
{
    const QString folder = QFileInfo(m_file.path()).absolutePath();
    if (!m_user.may(ServiceUser::Read | ServiceUser::Write, m_file.path())
        || !m_user.may(ServiceUser::Write | ServiceUser::Execute, folder))
        report(Error, QStringLiteral("configuration"),
            QStringLiteral("the user %1 cannot change the file or its folder").arg(m_user.name()),
            QStringLiteral("chown %1 %2 %3").arg(m_user.name(), folder, m_file.path()));
    if (m_user.isDiskFull(m_file.path()))
        report(Error, QStringLiteral("configuration"),
            QStringLiteral("the disk of %1 is full").arg(m_file.path()), makeRoom);
}

void Check::checkRelease()
{
    const QString release = systemValue(m_file, BDD_RELEASE_KEY);
    const QString subject = QStringLiteral("schema release");
    const QString problem = QStringLiteral("it is %1, and %2 is current").arg(release, BDD_RELEASE_VALUE);
    if (release == QLatin1String("1.0"))
        report(Warning, subject, problem,
            QStringLiteral("the daemon brings the file up to date when it starts"));
    else if (migrationRemovesOutputs(release))
        report(Warning, subject, problem,
            QStringLiteral(
                "the daemon brings the file up to date when it starts, and removes every output that is "
                "not GCP: add them again then"));
    else if (release != BDD_RELEASE_VALUE)
        report(Error, subject, problem, QStringLiteral("use the version of the daemon that wrote the file"));
}

void Check::checkKeys()
{
    for (const QSqlRecord &record : m_file.rows(QStringLiteral("system_configuration"))) {
        const QString name = record.value(QStringLiteral("name")).toString();
        if (!findKnownKey(name))
            report(Warning, name, QStringLiteral("the key is unknown and read by nothing"),
                QStringLiteral("look for a misspelling in quillonctl config list"));
    }
    for (const KnownKey &key : knownKeys()) {
        const QString stored = systemValue(m_file, key.name);
        // The daemon reads this one key in any case of letters.
        const QString value = key.name == AUTOKILL_ENABLED_KEY ? stored.toLower() : stored;
        const QString problem = key.kind == KnownKey::ReadOnly ? QString() : valueProblem(key, value);
        if (!problem.isEmpty())
            report(
                Warning, key.name, problem, QStringLiteral("quillonctl config set %1 VALUE").arg(key.name));
    }
}

void Check::checkAutokill()
{
    if (systemValue(m_file, AUTOKILL_ENABLED_KEY).toLower() != QLatin1String("true"))
        return;
    const QString url = systemValue(m_file, AUTOKILL_URL_KEY);
    if (url == UNDEFINED_VALUE)
        report(Warning, AUTOKILL_URL_KEY, QStringLiteral("automatic kill is on, and no service is named"),
            QStringLiteral("quillonctl config set autokill_url https://HOST"));
    else if (valueProblem(*findKnownKey(AUTOKILL_URL_KEY), url).isEmpty())
        checkServer(AUTOKILL_URL_KEY, QUrl(url).host(), QUrl(url).port(443),
            QStringLiteral("quillonctl config set autokill_url https://HOST"));
}

void Check::checkRadios()
{
    const QStringList blacklist = blockedPorts(m_file);
    QStringList seen;
    for (const QSqlRecord &radio : m_file.rows(QStringLiteral("radio_adapters"))) {
        const QString port = radio.value(QStringLiteral("port")).toString();
        const QString id = radio.value(QStringLiteral("ids")).toString();
        const QString subject = QStringLiteral("radio %1 (%2)").arg(id, port);
        const QString device = devicePath(port).isEmpty() ? deviceFile(port) : devicePath(port);
        if (seen.contains(device))
            report(Warning, subject,
                QStringLiteral(
                    "another row stands for the same device; STATIC rows count before others, later "
                    "ones before earlier"),
                QStringLiteral("quillonctl radio remove one of them"));
        seen.append(device);
        if (!radio.value(QStringLiteral("enabled")).toBool())
            continue;
        if (isDeaf(m_file, radio))
            report(Error, subject, QStringLiteral("it is only listened to, and without a fixed speed"),
                QStringLiteral("quillonctl radio set %1 --baud RATE").arg(id));
        const QString blocking =
            blockingEntry(port, radio.value(QStringLiteral("method")).toString(), blacklist);
        if (!blocking.isNull())
            report(Warning, subject, QStringLiteral("its port is blocked as %1").arg(blocking),
                QStringLiteral("quillonctl port unblock %1, or radio disable %2").arg(blocking, id));
        else
            checkDevice(subject, radio);
        checkRadioStatus(subject, radio);
    }
}

void Check::checkDevice(const QString &subject, const QSqlRecord &radio)
{
    const QString path = deviceFile(radio.value(QStringLiteral("port")).toString());
    const bool isStatic = radio.value(QStringLiteral("method")).toString() == QLatin1String("STATIC");
    if (!radio.value(QStringLiteral("autobaud")).toBool()
        && radio.value(QStringLiteral("baudrate")).toInt() <= 0)
        report(Error, subject, QStringLiteral("its fixed speed is no speed"),
            QStringLiteral("quillonctl radio set ID --baud RATE, or --autobaud"));
    if (!QFileInfo::exists(path)) {
        if (isStatic)
            report(Warning, subject, QStringLiteral("%1 does not exist").arg(path),
                QStringLiteral("plug it in, or quillonctl radio remove it"));
        return;
    }
    if (!m_user.may(ServiceUser::Read | ServiceUser::Write, path))
        report(Error, subject, QStringLiteral("%1 cannot be opened by the user %2").arg(path, m_user.name()),
            QStringLiteral("usermod -aG %1 %2, then quillonctl restart").arg(groupOf(path), m_user.name()));
}

/// A radio that is only listened to is left out: it keeps the status when it is plugged in again.
void Check::checkRadioStatus(const QString &subject, const QSqlRecord &radio)
{
    const bool isGivenUp = radio.value(QStringLiteral("tx_enabled")).toBool()
        && radio.value(QStringLiteral("status")).toInt() == RadioAdapterConfig::Stopped;
    if (isGivenUp && !hasFound(Warning, subject)
        && QFileInfo::exists(deviceFile(radio.value(QStringLiteral("port")).toString()))
        && daemonRuns(m_file.path()))
        report(Warning, subject, QStringLiteral("it does not answer"),
            QStringLiteral("check cable and power, then journalctl -u quillon; "
                           "quillonctl radio disable %1 if it is no radio")
                .arg(radio.value(QStringLiteral("ids")).toString()));
}

void Check::checkOutput(const QSqlRecord &output)
{
    const QString type = output.value(QStringLiteral("type")).toString().toUpper();
    const QString target = output.value(QStringLiteral("target")).toString();
    const QString id = output.value(QStringLiteral("ids")).toString();
    const QString subject = subjectOf(output);
    if (type == QLatin1String("RAW") || type == QLatin1String("ERAW")) {
        checkServer(subject, target, output.value(QStringLiteral("port")).toInt(),
            QStringLiteral("start the server, or quillonctl forwarder set %1 --target HOST:PORT").arg(id));
    } else if (type == QLatin1String("FILE")) {
        const QString problem = m_user.writeProblem(target);
        if (!problem.isEmpty())
            report(
                Error, subject, problem, QStringLiteral("quillonctl forwarder set %1 --target PATH").arg(id));
    } else if (type == QLatin1String("GCP")) {
        checkPubSub(subject, output, id);
    } else if (type == QLatin1String("STREAM")) {
        checkStream(subject, StreamTarget::fromRow(output), id);
    } else if (type == QLatin1String("PUBSUB")) {
        checkOutbox(subject, id.toInt());
        checkPubSub(subject, output, id);
    } else if (type != QLatin1String("DUOS")) {
        report(Error, subject, QStringLiteral("the daemon knows no output of this kind and passes it over"),
            QStringLiteral("quillonctl forwarder remove %1").arg(id));
    }
}

void Check::checkOutputStatus(const QSqlRecord &output)
{
    const QString subject = subjectOf(output);
    const bool hasFailed = output.value(QStringLiteral("status")).toInt() == DataForwarderConfig::Failed;
    if (hasFailed && !hasFound(Error, subject) && daemonRuns(m_file.path()))
        report(Warning, subject, QStringLiteral("it has failed"),
            QStringLiteral("journalctl -u quillon tells why"));
}

void Check::checkOutbox(const QString &subject, int id)
{
    const QString path = outboxPath(QFileInfo(m_file.path()).absoluteFilePath(), id);
    const QString problem = m_user.writeProblem(path);
    if (!problem.isEmpty())
        report(Error, subject, QStringLiteral("its outbox cannot be kept: ") + problem,
            m_user.isDiskFull(path)
                ? makeRoom
                : QStringLiteral("chown %1 %2").arg(m_user.name(), QFileInfo(path).absolutePath()));
    const QString damage = outboxCounts(path, connectTimeoutMs).value(QStringLiteral("problem")).toString();
    if (problem.isEmpty() && !damage.isEmpty())
        report(
            Warning, subject, damage, QStringLiteral("the daemon moves a damaged one aside and begins anew"));
}

void Check::checkPubSub(const QString &subject, const QSqlRecord &output, const QString &id)
{
    const CredentialFile credential =
        CredentialFile::fromSecret(output.value(QStringLiteral("secret")).toString());
    const QString problem = credential.problem();
    const bool isDurable =
        output.value(QStringLiteral("type")).toString().toUpper() == QLatin1String("PUBSUB");
    if (!problem.isEmpty()) {
        const QString text = isDurable
            ? QStringLiteral("its credential cannot be used: %1")
            : QStringLiteral("its credential cannot be used: %1; what it postpones "
                             "stays in memory, and more comes with every frame");
        report(Error, subject, text.arg(problem),
            QStringLiteral("quillonctl forwarder set %1 --credentials FILE, or forwarder disable %1")
                .arg(id));
        return;
    }
    const QString topic = output.value(QStringLiteral("context")).toString();
    const QString topicRemedy = QStringLiteral("quillonctl forwarder set %1 --topic NAME").arg(id);
    if (topic.isEmpty())
        report(Error, subject, QStringLiteral("it has no topic"), topicRemedy);
    else if (isDurable && !isTopicId(topic))
        report(Error, subject,
            QStringLiteral("nothing is sent: there can be no topic of the name \"%1\"").arg(topic),
            topicRemedy);
    const QString target = output.value(QStringLiteral("target")).toString();
    if (!endpointProblem(target).isEmpty()) {
        report(Error, subject, QStringLiteral("nothing is sent: ") + endpointProblem(target),
            QStringLiteral("quillonctl forwarder set %1 --endpoint URL, or default").arg(id));
        return;
    }
    for (const QUrl &server : {pubSubEndpoint(target), credential.tokenUri()}) {
        const int usual = server.scheme() == QLatin1String("http") ? 80 : 443;
        checkServer(subject, server.host(), server.port(usual),
            QStringLiteral(
                "check the network and the firewall; quillonctl forwarder list shows the endpoint"));
    }
}

void Check::checkStream(const QString &subject, const StreamTarget &target, const QString &id)
{
    QString problem = target.problem();
    if (problem.isEmpty() && !target.path.isEmpty())
        problem = m_user.writeProblem(target.path);
    if (!problem.isEmpty())
        report(Error, subject, problem,
            QStringLiteral("quillonctl forwarder set %1 --target PATH, or ADDRESS:PORT").arg(id));
}

void Check::checkServer(const QString &subject, const QString &host, int port, const QString &remedy)
{
    if (!m_triesServer)
        return;
    QTcpSocket socket;
    if (port > 0 && port <= 65535 && hostProblem(host).isEmpty()) {
        socket.connectToHost(host, quint16(port));
        if (socket.waitForConnected(connectTimeoutMs))
            return;
    }
    const QString reason = socket.error() == QAbstractSocket::UnknownSocketError
        ? QStringLiteral("no host and port")
        : socket.errorString();
    report(Error, subject, QStringLiteral("%1 cannot be reached: %2").arg(hostAndPort(host, port), reason),
        remedy);
}

} // namespace

int severityOf(const QJsonObject &finding)
{
    return finding.value(QStringLiteral("severity")).toString() == errorWord ? Error : Warning;
}

QJsonArray findingRows(const ConfigFile &file, const ServiceUser &user, Probing probing)
{
    Check check(file, user, probing);
    check.run();
    return check.findings();
}
