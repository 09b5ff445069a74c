#include "camera/CaptureVideoPreviewLayer.h"

namespace zavo::platform {

std::shared_ptr<CaptureVideoPreviewLayer> CaptureVideoPreviewLayer::layerWithSession(
    const std::shared_ptr<CaptureSession>& session)
{
    auto layer = std::make_shared<CaptureVideoPreviewLayer>(ConstructionKey{}, session);
    if (session)
        session->registerPreviewLayer(layer);
    return layer;
}

CaptureVideoPreviewLayer::CaptureVideoPreviewLayer(ConstructionKey, const std::shared_ptr<CaptureSession>& session)
    : session_(session), connection_(std::make_shared<CaptureConnection>())
{
    connection_->setAutomaticallyAdjustsVideoMirroring(true);
}

CaptureVideoPreviewLayer::~CaptureVideoPreviewLayer() = default;

QRectF CaptureVideoPreviewLayer::frame() const
{
    MutexLocker lock(mutex_);
    return frame_;
}

void CaptureVideoPreviewLayer::setFrame(const QRectF& frame)
{
    {
        MutexLocker lock(mutex_);
        if (frame_ == frame)
            return;
        frame_ = frame;
    }
    notify(Change::Geometry);
}

CaptureVideoPreviewLayer::VideoGravity CaptureVideoPreviewLayer::videoGravity() const
{
    MutexLocker lock(mutex_);
    return gravity_;
}

void CaptureVideoPreviewLayer::setVideoGravity(VideoGravity gravity)
{
    {
        MutexLocker lock(mutex_);
        gravity_ = gravity;
    }
    notify(Change::Geometry);
}

std::shared_ptr<CaptureConnection> CaptureVideoPreviewLayer::connection() const
{
    auto session = session_.lock();
    return session && session->hasVideoInput() ? connection_ : nullptr;
}

CaptureVideoPreviewLayer::Frame CaptureVideoPreviewLayer::newestFrame() const
{
    MutexLocker lock(mutex_);
    return newest_;
}

int64_t CaptureVideoPreviewLayer::receivedFrameCount() const
{
    MutexLocker lock(mutex_);
    return received_;
}

void CaptureVideoPreviewLayer::enqueueFrame(const SampleBuffer& frame, CaptureDevicePosition position)
{
    SampleBuffer previous;
    {
        MutexLocker lock(mutex_);
        previous = std::exchange(newest_.sample, frame);
        newest_.position = position;
        ++received_;
    }
    // The replaced frame goes back to its pool outside the lock.
    previous = SampleBuffer();
    notify(Change::NewFrame);
}

int CaptureVideoPreviewLayer::addListener(Listener listener)
{
    MutexLocker lock(listenersMutex_);
    const int token = nextToken_++;
    listeners_.emplace_back(token, std::move(listener));
    return token;
}

void CaptureVideoPreviewLayer::removeListener(int token)
{
    MutexLocker lock(listenersMutex_);
    std::erase_if(listeners_, [token](const auto& entry) { return entry.first == token; });
}

void CaptureVideoPreviewLayer::notify(Change change)
{
    // Called under the lock so that removeListener() is a barrier: a view
    // that has removed itself is never called afterwards.
    MutexLocker lock(listenersMutex_);
    for (const auto& [token, listener] : listeners_)
        listener(change);
}

}  // namespace zavo::platform
