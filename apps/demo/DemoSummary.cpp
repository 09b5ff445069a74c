#include "DemoSummary.h"

#include <QJsonArray>
#include <QPainter>

namespace zavo::demo {

namespace {

QJsonValue optionalNumber(const std::optional<double>& value)
{
    return value ? QJsonValue(std::round(*value * 10) / 10) : QJsonValue(QJsonValue::Null);
}

QJsonValue rounded(double value)
{
    return std::round(value * 1000) / 1000;
}

QJsonArray sizeArray(QSize size)
{
    return {size.width(), size.height()};
}

QJsonObject qualityJson(const core::ZCQualityScore& quality)
{
    return {{QStringLiteral("total"), rounded(quality.total)},
            {QStringLiteral("sharpness"), rounded(quality.sharpness)},
            {QStringLiteral("exposure"), rounded(quality.exposure)},
            {QStringLiteral("faceSize"), rounded(quality.faceSize)},
            {QStringLiteral("centring"), rounded(quality.centring)},
            {QStringLiteral("pose"), rounded(quality.pose)},
            {QStringLiteral("eyesOpen"), rounded(quality.eyesOpen)}};
}

QJsonArray boxJson(const QRectF& box)
{
    return {rounded(box.x()), rounded(box.y()), rounded(box.width()), rounded(box.height())};
}

// The code of the failure underneath, when there is one: the detector's code
// for bestShotError, the inner error's for error.
std::optional<long> innerCode(const ZMCameraError& error)
{
    switch (error.kind()) {
    case ZMCameraError::Case::bestShotError:
        if (const auto inner = error.bestShotErrorValue())
            return inner->code();
        break;
    case ZMCameraError::Case::error:
        if (const auto inner = error.errorValue())
            return inner->code();
        break;
    default:
        break;
    }
    return std::nullopt;
}

void addVideo(QJsonObject& summary, const std::optional<QString>& videoFile, const std::optional<VideoInfo>& video)
{
    summary.insert(QStringLiteral("videoPath"), videoFile ? QJsonValue(*videoFile) : QJsonValue(QJsonValue::Null));
    const bool readable = video && video->frames > 0;
    summary.insert(QStringLiteral("videoFrames"), readable ? QJsonValue(video->frames) : QJsonValue(QJsonValue::Null));
    summary.insert(QStringLiteral("videoSize"), readable ? QJsonValue(sizeArray(video->size)) : QJsonValue(QJsonValue::Null));
    summary.insert(QStringLiteral("videoDisplaySize"),
                   readable ? QJsonValue(sizeArray(video->displaySize)) : QJsonValue(QJsonValue::Null));
    if (video && !video->problem.isEmpty())
        summary.insert(QStringLiteral("videoProblem"), video->problem);
}

}  // namespace

QString errorCaseName(const ZMCameraError& error)
{
    switch (error.kind()) {
    case ZMCameraError::Case::accessStatus:
        return QStringLiteral("accessStatus");
    case ZMCameraError::Case::networkingError:
        return QStringLiteral("networkingError");
    case ZMCameraError::Case::bestShotError:
        return QStringLiteral("bestShotError");
    case ZMCameraError::Case::error:
        return QStringLiteral("error");
    case ZMCameraError::Case::canceled:
        return QStringLiteral("canceled");
    }
    return QStringLiteral("unknown");
}

QJsonObject sessionSummary(const SessionOutcome& outcome, const std::optional<VideoInfo>& video)
{
    QJsonObject summary;
    const QJsonValue null(QJsonValue::Null);
    if (outcome.bestShot) {
        summary.insert(QStringLiteral("outcome"), QStringLiteral("bestShot"));
        summary.insert(QStringLiteral("errorCode"), null);
        summary.insert(QStringLiteral("errorText"), null);
        const core::ZCQualityScore& quality = outcome.bestShot->quality();
        summary.insert(QStringLiteral("quality"), qualityJson(quality));
        summary.insert(QStringLiteral("faceBox"), boxJson(outcome.bestShot->faceRect()));
        summary.insert(QStringLiteral("pose"), QJsonObject{{QStringLiteral("yaw"), rounded(quality.headPose.yaw)},
                                                           {QStringLiteral("pitch"), rounded(quality.headPose.pitch)},
                                                           {QStringLiteral("roll"), rounded(quality.headPose.roll)}});
        summary.insert(QStringLiteral("eyesOpen"), rounded(quality.eyesOpen));
    } else {
        const ZMCameraError& error = *outcome.error;
        summary.insert(QStringLiteral("outcome"), QStringLiteral("error"));
        summary.insert(QStringLiteral("errorCode"), int(error.code()));
        summary.insert(QStringLiteral("errorCase"), errorCaseName(error));
        if (const auto inner = innerCode(error))
            summary.insert(QStringLiteral("errorInnerCode"), int(*inner));
        summary.insert(QStringLiteral("errorText"), error.localizedDescription());
        summary.insert(QStringLiteral("quality"), null);
        summary.insert(QStringLiteral("faceBox"), null);
        summary.insert(QStringLiteral("pose"), null);
        summary.insert(QStringLiteral("eyesOpen"), null);
    }
    summary.insert(QStringLiteral("guidance"), QJsonArray::fromStringList(outcome.guidance));
    addVideo(summary, outcome.videoFile, video);
    summary.insert(QStringLiteral("timeToFirstFrameMs"), optionalNumber(outcome.timeToFirstFrameMs));
    summary.insert(QStringLiteral("timeToBestShotMs"), optionalNumber(outcome.timeToBestShotMs));
    return summary;
}

QJsonObject failureSummary(const QString& errorText, const std::optional<double>& timeToFirstFrameMs)
{
    const QJsonValue null(QJsonValue::Null);
    QJsonObject summary{{QStringLiteral("outcome"), QStringLiteral("error")},
                        {QStringLiteral("errorCode"), null},
                        {QStringLiteral("errorText"), errorText},
                        {QStringLiteral("quality"), null},
                        {QStringLiteral("faceBox"), null}};
    addVideo(summary, std::nullopt, std::nullopt);
    summary.insert(QStringLiteral("timeToFirstFrameMs"), optionalNumber(timeToFirstFrameMs));
    summary.insert(QStringLiteral("timeToBestShotMs"), null);
    return summary;
}

QImage annotatedBestShot(const core::ZCBestShot& bestShot)
{
    QImage image = bestShot.image().convertToFormat(QImage::Format_RGB32);
    QPainter painter(&image);
    painter.setRenderHint(QPainter::Antialiasing);
    // Thick enough to see on a shot that is shown scaled down.
    const double penWidth = std::max(2.0, image.width() / 200.0);
    painter.setPen(QPen(QColor(0, 200, 0), penWidth));
    painter.drawRect(bestShot.faceRect());
    return image;
}

}  // namespace zavo::demo
