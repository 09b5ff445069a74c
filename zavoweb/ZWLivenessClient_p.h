#pragma once
// How one answer of a liveness server becomes a check result, apart from the
// network code that receives it, so that any answer can be tried without a
// server.
#include "base/ZavoExport.h"
#include "zavoweb/ZWLivenessClient.h"

#include <QByteArray>
#include <QString>
#include <optional>

namespace zavo::web {

/// What came back for one check.
struct ZAVO_EXPORT LivenessAnswer {
    /// The HTTP status; none when no HTTP answer came at all (refused,
    /// unreachable, timed out, aborted), and then body and reason are unused.
    std::optional<int> httpStatus;
    QString reasonPhrase;
    QByteArray body;
    /// The transport's error (a QNetworkReply::NetworkError) and its text.
    long transportError = 0;
    QString transportErrorString;
};

/// The result the client reports for answer (the table in ZWLivenessClient.h).
ZAVO_EXPORT ZWLivenessClient::Result resultOfAnswer(const LivenessAnswer& answer);

}  // namespace zavo::web
