#pragma once

#include "tools/console/LoginGuard.h"
#include "tools/console/Reply.h"
#include "tools/console/RequestReader.h"
#include "tools/console/Sessions.h"
#include "tools/quillonctl/PasswordFile.h"

/// Who may look and who may change. Without a password whoever is on this machine may look, and nobody may
/// change; with one, a session is needed for both, and its token for a change.
class Access
{
public:
    struct Settings
    {
        bool loopbackOnly = true; ///< only who is on this machine can reach the console
        bool behindProxy = false; ///< X-Forwarded-For and -Proto of a proxy on this machine count
    };

    Access(const QString &configFile, Settings settings);

    /// What is wrong about a request whoever sends it; status 0 when nothing is. A page elsewhere whose name
    /// was made to lead to this machine (DNS rebinding) must not read what the console shows.
    Reply refusal(const Request &request) const;

    /// Looks for a password that was set, changed or removed; whoever was logged in before is no longer.
    /// True when it did.
    bool followPassword();
    bool hasPassword() const { return m_passwordStamp.isValid(); }
    /// Another one after each change of the password; invalid without one.
    QDateTime passwordStamp() const { return m_passwordStamp; }
    bool mayLook(const QByteArray &sessionId) const;
    bool mayChange(const Request &request) const;

    static QByteArray sessionId(const Request &request) { return request.cookie("quillon_session"); }
    QByteArray token(const QByteArray &sessionId) const { return m_sessions.token(sessionId); }
    /// The Set-Cookie line of a new session, or of the end of one.
    QByteArray openSession(const Request &request, QByteArray &token);
    QByteArray closeSession(const Request &request);

    /// Where a request comes from.
    QHostAddress source(const Request &request) const;
    LoginGuard &guard() { return m_guard; }
    const PasswordFile &passwordFile() const { return m_passwordFile; }

private:
    bool isEncrypted(const Request &request) const;

    const PasswordFile m_passwordFile;
    const Settings m_settings;
    QDateTime m_passwordStamp; ///< of the file's content, invalid without one
    Sessions m_sessions;
    LoginGuard m_guard;
};
