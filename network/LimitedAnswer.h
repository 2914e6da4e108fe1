#pragma once

#include <QString>

class QNetworkReply;

/// Aborts the request when its answer, unpacked, is longer than 1 MiB, and holds back what comes faster than
/// it is looked at. For replies that are read at their end. A server that packs its answer gets past this by
/// what one packet unpacks to, so ask for "Accept-Encoding: identity".
void limitAnswer(QNetworkReply *reply);

/// Why a reply of limitAnswer() has no whole answer.
QString failureText(const QNetworkReply *reply);
