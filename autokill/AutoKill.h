#pragma once

#include <QNetworkRequest>
#include <QObject>
#include <QPointer>
#include <QString>
#include <QStringList>
#include <QTimer>

class QNetworkAccessManager;
class QNetworkReply;

/// Keeps the list of radios that a resource-management web service flags for automatic kill.
/// Every five minutes it logs in over HTTPS (TLS 1.3 or later), receives a bearer token and fetches the list.
/// Each of the two requests is given up after 60 s or 1 MiB, which counts as a network error, and ends
/// without a word when the next cycle begins.
class AutoKill : public QObject
{
    Q_OBJECT

public:
    /// The process-wide instance, made by the first call and never destroyed.
    static AutoKill *getInstance();

    /// Starts when autokill_enabled says so, which is asked again every second while the file cannot be read.
    void startIfEnabled();
    /// Reads address and credentials from the configuration and logs in at once, then every five minutes.
    /// An address other than "https://host" or "https://host:port", perhaps with a slash at its end, is
    /// logged, and nothing is sent.
    void start();
    /// Whether the radio stands on the list that was fetched last, and the feature is enabled right now.
    bool isFlagged(const QString &radioId) const;

protected:
    explicit AutoKill(QObject *parent = nullptr);

private slots:
    void replyFinished(QNetworkReply *reply);
    void refresh();
    void retrieveDeathNote(QString bearer_token);

private:
    enum State {
        WaitingForLogin = 0,
        WaitingForResources = 1,
        UnexpectedAnswer = 2,
    };

    bool isEnabled() const;
    bool readServiceAddress();
    QNetworkRequest requestTo(const QString &pathAndQuery) const;
    void waitFor(QNetworkReply *reply);
    void handleOkAnswer(QNetworkReply *reply);

    QString m_userName;
    QString m_password;
    const int m_refreshInterval = 300000; // ms
    const QString m_resourcesPath;
    QString m_serviceAddress; // scheme, host and port
    QStringList m_flaggedRadios;
    QTimer m_refreshTimer{this};
    QTimer m_giveUpTimer{this};
    QNetworkAccessManager *m_networkManager = nullptr;
    QPointer<QNetworkReply> m_awaitedReply; // of the latest request; no other one counts
    State m_state = WaitingForLogin;
    bool m_isPutOff = false;
};
