#pragma once
// Shared by the media and recording suites: making clips with the ffmpeg
// command line and inspecting files with ffprobe, so that what the code under
// test writes is checked by an independent reader.
#include <QByteArray>
#include <QFile>
#include <QImage>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QStandardPaths>
#include <QStringList>

namespace zavo::testing {

inline bool haveFfmpegTools()
{
    return !QStandardPaths::findExecutable(QStringLiteral("ffmpeg")).isEmpty()
        && !QStandardPaths::findExecutable(QStringLiteral("ffprobe")).isEmpty();
}

/// Runs a tool to completion; returns its standard output, or a null array
/// when it fails.
inline QByteArray runTool(const QString& program, const QStringList& arguments, QString* errors = nullptr)
{
    QProcess process;
    process.start(program, arguments);
    if (!process.waitForFinished(120000) || process.exitStatus() != QProcess::NormalExit || process.exitCode() != 0) {
        if (errors)
            *errors = QString::fromLocal8Bit(process.readAllStandardError());
        return {};
    }
    QByteArray out = process.readAllStandardOutput();
    return out.isNull() ? QByteArray("") : out;
}

/// ffmpeg -y -v error <arguments>; true on success.
inline bool ffmpeg(const QStringList& arguments, QString* errors = nullptr)
{
    return !runTool(QStringLiteral("ffmpeg"), QStringList{"-y", "-v", "error"} + arguments, errors).isNull();
}

/// The streams of a file as ffprobe reports them (-show_streams -of json).
inline QJsonArray probeStreams(const QString& path)
{
    const QByteArray json = runTool(QStringLiteral("ffprobe"), {"-v", "error", "-show_streams", "-of", "json", path});
    return QJsonDocument::fromJson(json).object().value(QStringLiteral("streams")).toArray();
}

/// Presentation times in seconds of the decoded video frames.
inline QList<double> probeFrameTimes(const QString& path)
{
    const QByteArray json = runTool(QStringLiteral("ffprobe"),
                                    {"-v", "error", "-select_streams", "v:0", "-show_entries",
                                     "frame=best_effort_timestamp_time", "-of", "json", path});
    QList<double> times;
    const auto frames = QJsonDocument::fromJson(json).object().value(QStringLiteral("frames")).toArray();
    for (const auto& frame : frames)
        times.append(frame.toObject().value(QStringLiteral("best_effort_timestamp_time")).toString().toDouble());
    return times;
}

/// The display matrix rotation ffprobe derives for a stream (0 without one).
inline double probeRotation(const QJsonObject& stream)
{
    for (const auto& item : stream.value(QStringLiteral("side_data_list")).toArray()) {
        const QJsonObject data = item.toObject();
        if (data.value(QStringLiteral("side_data_type")).toString() == QLatin1String("Display Matrix"))
            return data.value(QStringLiteral("rotation")).toDouble();
    }
    return 0;
}

/// The first frame of a file as a player shows it: the display matrix
/// applied and stored pixels stretched by their sample aspect ratio.
inline QImage shownFirstFrame(const QString& path, const QString& scratchFolder)
{
    const QString png = scratchFolder + QStringLiteral("/shown-frame.png");
    if (!ffmpeg({"-i", path, "-frames:v", "1", "-vf", "scale=trunc(iw*sar/2)*2:ih,setsar=1", png}))
        return {};
    QImage image(png);
    QFile::remove(png);
    return image.convertToFormat(QImage::Format_RGB32);
}

/// A frame near the end of a file as a player shows it (see shownFirstFrame).
inline QImage shownLastFrame(const QString& path, const QString& scratchFolder)
{
    const QString png = scratchFolder + QStringLiteral("/shown-last-frame.png");
    if (!ffmpeg({"-sseof", "-0.4", "-i", path, "-frames:v", "1", "-vf", "scale=trunc(iw*sar/2)*2:ih,setsar=1", png}))
        return {};
    QImage image(png);
    QFile::remove(png);
    return image.convertToFormat(QImage::Format_RGB32);
}

}  // namespace zavo::testing
