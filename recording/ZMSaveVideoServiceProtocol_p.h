#pragma once
// The contract between the capture manager and a session-video recorder.
#include "base/Error.h"
#include "media/SampleBuffer.h"

#include <QUrl>
#include <functional>

namespace zavo {

/// What a recorder reports back. Calls arrive on whichever thread finished
/// the work (never moved to the main queue).
class ZMSaveVideoServiceDelegate {
public:
    virtual ~ZMSaveVideoServiceDelegate() = default;
    /// Sent synchronously from endRecordWithCompletion, before the file is made.
    virtual void videoFlushingWillBegin() = 0;
    /// Sent when a file is done (null error) or failed. A recorder that goes
    /// on to work on the file (recompression) sends it again for that step.
    virtual void videoFlushingDidEndWithError(platform::ErrorPtr error) = 0;
    /// Sent once, after the last videoFlushingDidEndWithError of a recording:
    /// the file is as it will stay (or gone), and nothing more comes for it.
    /// error is the one that decided the outcome (null on success). Only the
    /// recorder knows which report is its last, so it says so here rather
    /// than leaving the listener to count.
    virtual void videoRecordingDidFinish(platform::ErrorPtr error) = 0;
};

class ZMSaveVideoServiceProtocol {
public:
    virtual ~ZMSaveVideoServiceProtocol() = default;
    /// Starts a recording into the file at fileURL (a local-file URL).
    virtual void beginRecordWithFileURL(const QUrl& fileURL) = 0;
    /// Hands over one frame; called on the capture manager's frame queue.
    virtual void appendStorageWithSampleBuffer(const platform::SampleBuffer& sampleBuffer) = 0;
    /// Stops; completion is the caller's "stopped" signal.
    virtual void endRecordWithCompletion(std::function<void()> completion) = 0;
};

}  // namespace zavo
