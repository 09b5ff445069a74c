#pragma once
// Where session videos live: the recording folder under Documents, the names
// of the files in it, and the errors the recorders report.
#include "base/ZavoExport.h"
#include "base/Error.h"

#include <QString>
#include <QUrl>
#include <cstdint>

namespace zavo {

/// The app's Documents folder as a URL made from its path, not a file URL:
/// only its path() is ever used. Invalid when the platform knows no Documents
/// folder.
ZAVO_EXPORT QUrl zavocamera_documentsFolder();

/// The recording folder's layout and the operations on it that both recorders
/// share. Paths are built as strings from the Documents path, so an unknown
/// Documents folder is not guarded against: the paths just start at "/".
struct ZAVO_EXPORT ZMRecordingStorage {
    /// The recording folder under Documents.
    static inline const QString kFolderName = QStringLiteral("bright_fold");
    /// The session video, named by the capture manager.
    static inline const QString kRecordedVideoFileName = QStringLiteral("ZMRecordedVideo.mp4");
    /// The compressor's temporary output, moved over the session video.
    static inline const QString kRecompressedFileName = QStringLiteral("recompressed.mp4");

    /// "bf_sample_buffer_<index>.dat", one raw frame of the frame-dump recorder.
    static QString frameFileName(int32_t index);
    /// `<Documents>/bright_fold`
    static QString folderPath();
    /// `<Documents>/bright_fold/recompressed.mp4`
    static QString recompressedVideoPath();

    /// The frame-dump recorder's folder check: creates the folder (with its
    /// parents) when nothing exists at its path. Errors are ignored.
    static void createFolderIfMissing();
    /// The movie-output recorder's reset: removes the folder with everything
    /// in it, logging what goes wrong, then creates it again (errors ignored),
    /// so each recording starts from an empty folder.
    static void recreateEmptyFolder();

    /// Whether a video at this path lives in the component's own folder,
    /// which is emptied at each recording; a host's folder never is.
    static bool isInOwnFolder(const QString& videoPath);
    /// Where the compressor writes before its result replaces videoPath: in
    /// the same folder, so the swap is a rename. The component's own folder
    /// keeps its one fixed name; in a host's folder each video gets its own,
    /// so sessions that overlap never share one.
    static QString recompressedPathFor(const QString& videoPath);
    /// The session video's path in a host's folder: one fixed name, or with
    /// keepEach a name of its own from the local time, numbered when taken.
    static QString hostVideoPath(const QString& folder, bool keepEach);
    /// An empty string when a video can be written into folder (made with its
    /// parents when missing), else why not, for the user.
    static QString checkWritableFolder(const QString& folder);

    /// Code 1018 in the component's domain: the frame-dump writer could not be
    /// set up. Its description is the key "errors.VIDEO_FLUSH_FAILED" itself.
    static platform::ErrorPtr videoFlushFailedError();
    /// Code 1001 in the core framework's domain: recompression failed. Its
    /// description is "errors.bad_quality" from the host app's string table.
    static platform::ErrorPtr badQualityError();
};

/// An error as a log line shows it: `Error Domain=<domain> Code=<code> "<description>"`.
ZAVO_EXPORT QString describeError(const platform::Error& error);

}  // namespace zavo
