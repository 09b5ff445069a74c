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
    /// Sent when a file is done (null error) or failed.
    virtual void videoFlushingDidEndWithError(platform::ErrorPtr error) = 0;
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
