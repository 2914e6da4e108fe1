#include "tools/quillonctl/KnownKeys.h"

#include "config/ConfigKeys.h"
#include "tools/quillonctl/InputChecks.h"

#include <QRegularExpression>

const QVector<KnownKey> &knownKeys()
{
    static const QVector<KnownKey> keys{
        {AUTOKILL_ENABLED_KEY, KnownKey::Switch, false, true, QStringLiteral("true, false"),
            QStringLiteral(
                "Ask the resource-management service which radios are flagged for automatic kill")},
        {AUTOKILL_USER_KEY, KnownKey::Login, false, true, QStringLiteral("text"),
            QStringLiteral("User name at that service")},
        {AUTOKILL_PWD_KEY, KnownKey::Login, true, true, QStringLiteral("text"),
            QStringLiteral("Password at that service")},
        {AUTOKILL_URL_KEY, KnownKey::ServiceUrl, false, true,
            QStringLiteral("https://HOST[:PORT], undefined"), QStringLiteral("Address of that service")},
        {OWNER_EMAIL_KEY, KnownKey::Email, false, false, QStringLiteral("address, undefined"),
            QStringLiteral("Owner of this gateway, sent with every published message")},
        {OWNER_DEPT_KEY, KnownKey::Text, false, false, QStringLiteral("text"),
            QStringLiteral("Department of the owner, sent likewise")},
        {FORWARD_INVALID_DATA_KEY, KnownKey::Switch, false, false, QStringLiteral("true, false"),
            QStringLiteral("true: outputs also get commands to radios that are not identified yet, and what "
                           "those send unasked; false: they do not")},
        {OUTBOX_LIMIT_KEY, KnownKey::Number, false, false, QStringLiteral("1 to 1048576, undefined"),
            QStringLiteral("How much each outbox may hold on the disk, in MiB; 256 when undefined")},
        {BDD_RELEASE_KEY, KnownKey::ReadOnly, false, false, QStringLiteral("read only"),
            QStringLiteral("Release of the file's schema, kept by the daemon")},
    };
    return keys;
}

const KnownKey *findKnownKey(const QString &name)
{
    for (const KnownKey &key : knownKeys()) {
        if (key.name == name)
            return &key;
    }
    return nullptr;
}

QString valueProblem(const KnownKey &key, const QString &value)
{
    static const QRegularExpression email(QStringLiteral("^[^\\s@]+@[^\\s@]+$"));
    if (key.kind == KnownKey::ReadOnly)
        return QStringLiteral("it is kept by the daemon");
    if (key.kind == KnownKey::Switch)
        return value == QLatin1String("true") || value == QLatin1String("false")
            ? QString()
            : QStringLiteral("it is either true or false");
    if (value == UNDEFINED_VALUE)
        return {};
    if (key.kind == KnownKey::ServiceUrl) {
        const bool hasOneSlash = value.endsWith(QLatin1Char('/')) && !value.endsWith(QLatin1String("//"));
        return serviceUrlProblem(hasOneSlash ? value.chopped(1) : value, {QStringLiteral("https")});
    }
    static const QRegularExpression number(QStringLiteral("^[1-9][0-9]{0,6}$"));
    if (key.kind == KnownKey::Number && (!number.match(value).hasMatch() || value.toInt() > 1048576))
        return QStringLiteral("it is a whole number from 1 to 1048576");
    if (key.kind == KnownKey::Email && !email.match(value).hasMatch())
        return QStringLiteral("it is no e-mail address");
    if (key.kind == KnownKey::Login
        && (value.contains(QLatin1Char('"')) || value.contains(QLatin1Char('\\'))))
        return QStringLiteral("it must not hold \" or \\, since the login request carries it as it stands");
    return {};
}
