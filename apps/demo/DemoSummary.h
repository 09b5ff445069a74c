#pragma once
// The demo's results as files and one JSON line.
#include "DemoSession.h"

#include <QImage>
#include <QJsonObject>
#include <QString>

namespace zavo::demo {

/// The name of a camera error's case: "accessStatus", "canceled", ...
QString errorCaseName(const ZMCameraError& error);

/// The one-line summary of a finished session. video may be absent when the
/// session had no video or the wait for it did not end.
QJsonObject sessionSummary(const SessionOutcome& outcome, const std::optional<VideoInfo>& video);
/// A summary for a session that never reached an outcome.
QJsonObject failureSummary(const QString& errorText, const std::optional<double>& timeToFirstFrameMs);

/// The best shot with its face box drawn on it.
QImage annotatedBestShot(const core::ZCBestShot& bestShot);

}  // namespace zavo::demo
