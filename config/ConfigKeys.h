#pragma once

#include <QString>

// Keys of the system_configuration table, and the values that the whole system agrees on. All values are
// texts.

inline const QString AUTOKILL_ENABLED_KEY = QStringLiteral("autokill_enabled");
inline const QString AUTOKILL_USER_KEY = QStringLiteral("autokill_user");
inline const QString AUTOKILL_PWD_KEY = QStringLiteral("autokill_pwd");
/// Optional, not in a new file: the resource-management service, "https://host" or "https://host:port".
inline const QString AUTOKILL_URL_KEY = QStringLiteral("autokill_url");
inline const QString OWNER_DEPT_KEY = QStringLiteral("owner_dept");
inline const QString OWNER_EMAIL_KEY = QStringLiteral("owner_email");
inline const QString BDD_RELEASE_KEY = QStringLiteral("bdd_release");
inline const QString FORWARD_INVALID_DATA_KEY = QStringLiteral("forward_invalid_data");
/// Optional, not in a new file: how much an outbox may hold on the disk, in MiB.
inline const QString OUTBOX_LIMIT_KEY = QStringLiteral("outbox_limit");

/// The schema release that this version of the daemon writes and expects.
inline const QString BDD_RELEASE_VALUE = QStringLiteral("1.1");
/// What a setting reads as when it was never configured, or when its key is missing.
inline const QString UNDEFINED_VALUE = QStringLiteral("undefined");
