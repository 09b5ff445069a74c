#include "platform/FileSystem.h"

#include <QSaveFile>
#include <QStandardPaths>
#include <mutex>

namespace zavo::platform {

namespace {
std::mutex gDocumentsMutex;
QString gDocumentsOverride;  // guarded by gDocumentsMutex
}  // namespace

QString documentsDirectory()
{
    {
        std::lock_guard lock(gDocumentsMutex);
        if (!gDocumentsOverride.isEmpty())
            return gDocumentsOverride;
    }
    return QStandardPaths::writableLocation(QStandardPaths::DocumentsLocation);
}

void setDocumentsDirectory(const QString& path)
{
    std::lock_guard lock(gDocumentsMutex);
    gDocumentsOverride = path;
}

bool writeFileAtomically(const QString& path, const char* data, qint64 size)
{
    QSaveFile file(path);
    if (!file.open(QIODevice::WriteOnly))
        return false;
    if (file.write(data, size) != size) {
        file.cancelWriting();
        return false;
    }
    return file.commit();
}

bool writeFileAtomically(const QString& path, const QByteArray& data)
{
    return writeFileAtomically(path, data.constData(), data.size());
}

}  // namespace zavo::platform
