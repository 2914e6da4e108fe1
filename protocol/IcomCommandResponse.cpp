#include "protocol/IcomCommandResponse.h"

IcomCommandResponse::IcomCommandResponse(QObject *parent, const QByteArray &data)
    : QObject(parent), m_data(data)
{
}

void IcomCommandResponse::stampNow()
{
    m_timestamp = QDateTime::currentDateTimeUtc();
}
