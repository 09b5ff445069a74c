#include "recording/ZMRecordingStorage_p.h"

#include "resources/ZMBundleLink_p.h"
#include "base/Bundle_p.h"
#include "base/FileSystem.h"
#include "base/Log_p.h"
#include "zavocore/ZavoCore_p.h"

#include <QDir>
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
