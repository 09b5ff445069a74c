#include "base/FileSystem.h"
#include "base/FileSystem_p.h"
#include "base/ThreadSafety.h"

#include <QFile>

#include <QSaveFile>
#include <QStandardPaths>
#include <atomic>
#include <cerrno>

#include <fcntl.h>
#include <stdio.h>
#include <unistd.h>

namespace zavo::platform {

namespace {
Guarded<QString> gDocumentsOverride;
}  // namespace

QString documentsDirectory()
{
    if (QString path = gDocumentsOverride.get(); !path.isEmpty())
        return path;
    return QStandardPaths::writableLocation(QStandardPaths::DocumentsLocation);
}

void setDocumentsDirectory(const QString& path)
{
    gDocumentsOverride.set(path);
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

namespace {

/// Writes all of data, resuming after signals and short writes.
bool writeAll(int fd, const char* data, qint64 size)
{
    while (size > 0) {
        const ssize_t written = ::write(fd, data, size_t(size));
        if (written < 0 && errno == EINTR)
            continue;
        if (written <= 0)
            return false;
        data += written;
        size -= written;
    }
    return true;
}

/// A name beside target that no other thread of any process picks at the
/// same time: pid, thread and a counter, hidden so listings skip it.
QByteArray asideName(const QByteArray& target)
{
    static std::atomic<unsigned> counter{0};
    const qsizetype slash = target.lastIndexOf('/');
    QByteArray name = target.left(slash + 1);
    name += '.';
    name += target.mid(slash + 1);
    name += '.';
    name += QByteArray::number(qint64(::getpid()));
    name += '-';
    name += QByteArray::number(qint64(::gettid()));
    name += '-';
    name += QByteArray::number(counter.fetch_add(1, std::memory_order_relaxed));
    name += ".part";
    return name;
}

}  // namespace

bool writeScratchFileAtomically(const QString& path, const char* data, qint64 size)
{
    const QByteArray target = QFile::encodeName(path);
    const QByteArray aside = asideName(target);
    const int fd = ::open(aside.constData(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    if (fd < 0)
        return false;
    // close() can be the first to report a full disk on some file systems.
    const bool written = writeAll(fd, data, size);
    const bool closed = ::close(fd) == 0;
    if (written && closed && ::rename(aside.constData(), target.constData()) == 0)
        return true;
    ::unlink(aside.constData());
    return false;
}

bool writeFileAtomically(const QString& path, const QByteArray& data)
{
    return writeFileAtomically(path, data.constData(), data.size());
}

}  // namespace zavo::platform
