#pragma once

#include "protocol/IcomCommandResponse.h"

#include <QString>

// What an identified radio reports by itself. What the fields of a call mean on the air, other than callerId,
// is not fixed; they are carried as text.

/// Parses one frame. A frame that is no notification becomes an UnsollicitedCommandResponse; null means that
/// the frame is to be dropped, as a malformed text message is, on purpose.
QSharedPointer<IcomCommandResponse> parseNotification(QObject *adapter, const QByteArray &frame);

/// What the three dPMR notifications share: a flagged caller is killed at once.
class DpmrNotification : public IcomCommandResponse
{
    Q_OBJECT

public:
    /// `fields` in the order of their captures: field1, callerId, field3, field4 and what the kind adds.
    DpmrNotification(QObject *parent, const QByteArray &data, const QStringList &fields);

    void process() override;

    QString field1() const { return m_fields.at(0); }
    QString callerId() const { return m_fields.at(1); }
    QString field3() const { return m_fields.at(2); }
    QString field4() const { return m_fields.at(3); }

protected:
    const QStringList m_fields;
};

class RetrieveReceivedDpmrCallCommandResponse : public DpmrNotification
{
    Q_OBJECT

public:
    using DpmrNotification::DpmrNotification;
    int responseType() const override { return DpmrCall; }
};

class RetrieveReceivedDpmrStatusCommandResponse : public DpmrNotification
{
    Q_OBJECT

public:
    using DpmrNotification::DpmrNotification;
    int responseType() const override { return DpmrStatus; }
    QString field5() const { return m_fields.at(4); }
};

class RetrieveReceivedDpmrGpsLocationCommandResponse : public DpmrNotification
{
    Q_OBJECT

public:
    using DpmrNotification::DpmrNotification;
    int responseType() const override { return DpmrGpsLocation; }
    QString message() const { return m_fields.at(4); }
};

/// A 5-tone code that was heard; a flagged one is killed a second later.
class RetrieveReceivedAnalogCallCommandResponse : public IcomCommandResponse
{
    Q_OBJECT

public:
    RetrieveReceivedAnalogCallCommandResponse(QObject *parent, const QByteArray &data, const QString &code,
        const QString &field2, const QString &field3);

    int responseType() const override { return AnalogCall; }
    void process() override;

    QString code() const { return m_code; }
    QString field2() const { return m_field2; }
    QString field3() const { return m_field3; }

private:
    const QString m_code;
    const QString m_field2;
    const QString m_field3;
};

/// A report that is logged by its state and has no other effect.
class Alert : public IcomCommandResponse
{
    Q_OBJECT

public:
    Alert(QObject *parent, const QByteArray &data, const QString &state);
    QString state() const { return m_state; }

private:
    const QString m_state;
};

class BatteryLimitationAlert : public Alert
{
    Q_OBJECT

public:
    using Alert::Alert;
    int responseType() const override { return BatteryLimitation; }
    void process() override;
};

class TxPowerLimitationAlert : public Alert
{
    Q_OBJECT

public:
    using Alert::Alert;
    int responseType() const override { return TxPowerLimitation; }
    void process() override;
};

/// A frame that nothing claimed.
class UnsollicitedCommandResponse : public IcomCommandResponse
{
    Q_OBJECT

public:
    using IcomCommandResponse::IcomCommandResponse;
    int responseType() const override { return Unsollicited; }
};
