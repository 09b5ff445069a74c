#pragma once
// Reading the session video back once the component says it is final.
#include <QSize>
#include <QString>

namespace zavo::demo {

struct VideoInfo {
    bool finished = false;  // reached its final form within the time limit
    int frames = 0;         // frames decoded from start to end
    QSize size;             // stored picture size
    QSize displaySize;      // as shown, after the file's rotation
    QString problem;        // why it is not finished, or cannot be read
};

/// Opens and decodes the whole file now. problem is set when it cannot be
/// opened or breaks off before its end; frames then counts what decoded.
VideoInfo readVideo(const QString& path);

}  // namespace zavo::demo
