#pragma once
// Reading the session video back once the recorder is really done with it.
//
// The movie-output recorder hands the path over while the file is still
// being finished, then re-encodes it into a small rendition that replaces it.
// Nothing public says when that is over, so the host watches the file: it is
// final once it opens, has the rendition's picture size and decodes to its
// end. The wait is bounded; a file that never gets there is reported as it is.
#include <QObject>
#include <QSize>
#include <QString>
#include <QTimer>
#include <chrono>
#include <optional>

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

/// The recompressed rendition's stored size.
inline constexpr QSize kRecompressedVideoSize{320, 180};

/// Polls one file on the main thread until it is final. Main thread.
class VideoReadback : public QObject {
    Q_OBJECT
public:
    explicit VideoReadback(QObject* parent = nullptr);

    /// finalSize: the stored size the file ends at, or nullopt when it is
    /// final as soon as it decodes (the frame-dump recorder's file is
    /// complete when the path is handed over).
    void start(const QString& path, std::optional<QSize> finalSize, std::chrono::milliseconds limit,
               std::chrono::milliseconds interval = std::chrono::milliseconds(200));
    bool isRunning() const { return poll_.isActive(); }

signals:
    /// Once per start.
    void done(const zavo::demo::VideoInfo& info);

private:
    void check();
    void finish(VideoInfo info);

    QString path_;
    std::optional<QSize> finalSize_;
    QTimer poll_;
    QTimer limit_;
};

}  // namespace zavo::demo

Q_DECLARE_METATYPE(zavo::demo::VideoInfo)
