#pragma once
// Small helpers shared by the camera and capture-manager suites.
#include "media/PixelBuffer.h"

#include <QDir>
#include <QFile>
#include <QString>

#include <cstring>
#include <memory>

namespace zavo::testing {

/// Threads of this process right now, of every kind, except the workers of
/// Qt's global thread pool: Qt's painting starts them on its own and lets them
/// idle for half a minute, so they say nothing about the code under test.
inline int processThreadCount()
{
    int count = 0;
    const QDir tasks(QStringLiteral("/proc/self/task"));
    for (const QString& task : tasks.entryList(QDir::Dirs | QDir::NoDotAndDotDot)) {
        QFile comm(tasks.filePath(task + QStringLiteral("/comm")));
        if (comm.open(QIODevice::ReadOnly) && comm.readAll().trimmed() == "Thread (pooled)")
            continue;
        ++count;
    }
    return count;
}

/// An NV12 frame whose left half is black and right half white, so that
/// mirroring and turning can be read back from the BGRA result.
inline std::shared_ptr<platform::PixelBuffer> makeHalfWhiteFrame(int width, int height)
{
    auto buffer = platform::PixelBuffer::create(width, height, platform::PixelFormat::NV12VideoRange);
    buffer->lockBaseAddress();
    for (int row = 0; row < height; ++row) {
        uint8_t* luma = buffer->baseAddress(0) + size_t(row) * buffer->bytesPerRow(0);
        std::memset(luma, 16, size_t(width / 2));
        std::memset(luma + width / 2, 235, size_t(width - width / 2));
    }
    for (int row = 0; row < buffer->heightOfPlane(1); ++row)
        std::memset(buffer->baseAddress(1) + size_t(row) * buffer->bytesPerRow(1), 128, size_t(width));
    buffer->unlockBaseAddress();
    return buffer;
}

/// Green channel of a BGRA pixel.
inline int greenAt(const platform::PixelBuffer& bgra, int x, int y)
{
    return bgra.baseAddress(0)[size_t(y) * bgra.bytesPerRow(0) + size_t(x) * 4 + 1];
}

}  // namespace zavo::testing
