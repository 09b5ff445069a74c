#include "recording/ZMRecordingStorage_p.h"

#include "resources/ZMBundleLink_p.h"
#include "base/Bundle_p.h"
#include "base/FileSystem.h"
#include "base/Log_p.h"
#include "zavocore/ZavoCore_p.h"

#include <QDateTime>
#include <QDir>
#include <QTemporaryFile>
#include <QFileInfo>
#include <cstring>
#include <exception>
#include <filesystem>
#include <system_error>

namespace zavo {

QUrl zavocamera_documentsFolder()
{
    const QString path = platform::documentsDirectory();
    if (path.isEmpty())
        return {};
    // A path URL, not a file URL: callers only ever take path() back out, and
    // setPath keeps characters such as '#' or '%' in the path where a parsed
    // string would read them as URL syntax.
    QUrl url;
    url.setPath(path, QUrl::DecodedMode);
    return url;
}

QString ZMRecordingStorage::frameFileName(int32_t index)
{
    return QStringLiteral("bf_sample_buffer_%1.dat").arg(index);
}

QString ZMRecordingStorage::folderPath()
{
    return zavocamera_documentsFolder().path() + QLatin1Char('/') + kFolderName;
}

QString ZMRecordingStorage::recompressedVideoPath()
{
    return folderPath() + QLatin1Char('/') + kRecompressedFileName;
}

void ZMRecordingStorage::createFolderIfMissing()
{
    const QString path = folderPath();
    // Existence only: a regular file in the folder's place stays, and the
    // frame writes that follow fail (and are ignored) instead.
    if (!QFileInfo::exists(path))
        QDir().mkpath(path);
}

void ZMRecordingStorage::recreateEmptyFolder()
{
    const QString path = folderPath();
    try {
        const std::filesystem::path folder(QFile::encodeName(path).toStdString());
        std::error_code error;
        if (std::filesystem::exists(std::filesystem::symlink_status(folder, error))) {
            std::filesystem::remove_all(folder, error);
            if (error) {
                const platform::ErrorObject object(QStringLiteral("POSIX"), error.value(),
                                                   {{platform::kLocalizedDescriptionKey,
                                                     QString::fromStdString(error.message())}});
                qCWarning(platform::lcRecordingStorage, "Error while deleting old video <%s>",
                          qUtf8Printable(describeError(object)));
            }
        }
    } catch (const std::exception& exception) {
        qCWarning(platform::lcRecordingStorage, "NSException while deleting old video <%s>", exception.what());
    }
    QDir().mkpath(path);
}

bool ZMRecordingStorage::isInOwnFolder(const QString& videoPath)
{
    return QFileInfo(videoPath).absolutePath() == QFileInfo(folderPath()).absoluteFilePath();
}

QString ZMRecordingStorage::recompressedPathFor(const QString& videoPath)
{
    if (isInOwnFolder(videoPath))
        return recompressedVideoPath();
    const QFileInfo video(videoPath);
    return video.absolutePath() + QLatin1Char('/') + video.completeBaseName() + QStringLiteral(".recompressing.mp4");
}

QString ZMRecordingStorage::hostVideoPath(const QString& folder, bool keepEach)
{
    const QString base = QDir(folder).absolutePath() + QLatin1Char('/');
    if (!keepEach)
        return base + QStringLiteral("zavocamera-session.mp4");
    const QString stamp = QDateTime::currentDateTime().toString(QStringLiteral("yyyyMMdd-HHmmss"));
    QString path = base + QStringLiteral("zavocamera-%1.mp4").arg(stamp);
    // Two sessions in one second, or a file the host left: never reuse a name.
    for (int n = 2; QFileInfo::exists(path) || QFileInfo::exists(recompressedPathFor(path)); ++n)
        path = base + QStringLiteral("zavocamera-%1-%2.mp4").arg(stamp).arg(n);
    return path;
}

QString ZMRecordingStorage::checkWritableFolder(const QString& folder)
{
    const QFileInfo info(folder);
    if (info.exists() && !info.isDir())
        return QStringLiteral("%1 is a file, not a folder").arg(folder);
    if (!info.exists() && !QDir().mkpath(folder))
        return QStringLiteral("the folder %1 cannot be made").arg(folder);
    // Permission bits say too little (read-only mounts, ACLs, a full disk's
    // reserved blocks): a real file decides.
    QTemporaryFile probe(QDir(folder).absoluteFilePath(QStringLiteral(".zavocamera-probe-XXXXXX")));
    if (!probe.open())
        return QStringLiteral("the folder %1 cannot be written: %2").arg(folder, probe.errorString());
    return {};
}

platform::ErrorPtr ZMRecordingStorage::videoFlushFailedError()
{
    return std::make_shared<platform::ErrorObject>(
        kZavoCameraBundleIdentifier, 1018,
        QVariantMap{{platform::kLocalizedDescriptionKey, QStringLiteral("errors.VIDEO_FLUSH_FAILED")}});
}

platform::ErrorPtr ZMRecordingStorage::badQualityError()
{
    const QString description
        = platform::Bundle::main().localizedString(QStringLiteral("errors.bad_quality"), QString(), QString());
    return std::make_shared<platform::ErrorObject>(core::kZCErrorDomain, 1001,
                                                   QVariantMap{{platform::kLocalizedDescriptionKey, description}});
}

QString describeError(const platform::Error& error)
{
    return QStringLiteral("Error Domain=%1 Code=%2 \"%3\"")
        .arg(error.domain())
        .arg(error.code())
        .arg(error.localizedDescription());
}

}  // namespace zavo
