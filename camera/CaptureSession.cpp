#include "camera/CaptureSession.h"

#include "camera/CaptureDevice_p.h"
#include "camera/CaptureVideoPreviewLayer.h"
#include "base/Log_p.h"
#include "base/NotificationCenter.h"

#include <algorithm>
#include <optional>

#include <pthread.h>

namespace zavo::platform {

int CaptureConnection::rotationDegreesFor(VideoOrientation orientation)
{
    switch (orientation) {
    case VideoOrientation::Portrait: return 0;
    case VideoOrientation::PortraitUpsideDown: return 180;
    case VideoOrientation::LandscapeRight: return 270;
    case VideoOrientation::LandscapeLeft: return 90;
    }
    return 0;
}

// ------------------------------------------------------------------ inputs

std::shared_ptr<CaptureDeviceInput> CaptureDeviceInput::deviceInputWithDevice(const CaptureDevicePtr& device,
                                                                             ErrorPtr* error)
{
    if (!device) {
        if (error)
            *error = makeCaptureError(CaptureErrorCode::DeviceNotAvailable, QStringLiteral("No camera device"));
        return nullptr;
    }
    if (!device->canMakeInput(error))
        return nullptr;
    return std::make_shared<CaptureDeviceInput>(ConstructionKey{}, device);
}

// ----------------------------------------------------------------- outputs

CaptureOutput::CaptureOutput() : connection_(std::make_shared<CaptureConnection>()) {}

CaptureOutput::~CaptureOutput() = default;

std::shared_ptr<CaptureSession> CaptureOutput::session() const
{
    MutexLocker lock(sessionMutex_);
    return session_.lock();
}

void CaptureOutput::setSession(const std::weak_ptr<CaptureSession>& session)
{
    MutexLocker lock(sessionMutex_);
    session_ = session;
}

bool CaptureOutput::isInSession() const
{
    MutexLocker lock(sessionMutex_);
    return !session_.expired();
}

std::shared_ptr<CaptureConnection> CaptureOutput::connectionWithMediaType(MediaType mediaType) const
{
    if (mediaType != MediaType::Video)
        return nullptr;
    auto session = this->session();
    return session && session->hasVideoInput() ? connection_ : nullptr;
}

// ----------------------------------------------------------------- session

struct CaptureSession::Run {
    CaptureSession* session = nullptr;
    std::unique_ptr<CaptureDeviceStream> stream;
    std::vector<std::shared_ptr<CaptureOutput>> outputs;
    CaptureDevicePosition position = CaptureDevicePosition::Unspecified;
    QString deviceName;
    int64_t frameDurationNs = 33333333;
    std::optional<int64_t> offsetNs;  // camera time to session time, fixed at the first frame
    std::thread thread;
};

std::shared_ptr<CaptureSession> CaptureSession::create() { return std::make_shared<CaptureSession>(ConstructionKey{}); }

CaptureSession::CaptureSession(ConstructionKey) {}

CaptureSession::~CaptureSession()
{
    // A session dropped while running ends like a stopped one, so that a
    // recording under way is finished rather than abandoned.
    const bool wasRunning = running_.exchange(false);
    stopCapture();
    if (wasRunning) {
        for (const auto& output : outputs_)
            output->sessionDidStopRunning();
    }
}

void CaptureSession::beginConfiguration()
{
    MutexLocker lock(mutex_);
    ++configurationDepth_;
}

void CaptureSession::commitConfiguration()
{
    {
        MutexLocker lock(mutex_);
        if (configurationDepth_ == 0)
            return;
        if (--configurationDepth_ > 0 || !pendingChange_)
            return;
        pendingChange_ = false;
    }
    applyConfiguration();
}

void CaptureSession::configurationChanged()
{
    {
        MutexLocker lock(mutex_);
        if (configurationDepth_ > 0) {
            pendingChange_ = true;
            return;
        }
    }
    applyConfiguration();
}

void CaptureSession::applyConfiguration()
{
    if (!running_.load())
        return;
    // Inputs, outputs or the preset changed under a running capture: the
    // camera is reopened with the new set-up.
    stopCapture();
    startCapture();
}

QString CaptureSession::sessionPreset() const
{
    MutexLocker lock(mutex_);
    return preset_;
}

bool CaptureSession::canSetSessionPreset(const QString& preset) const
{
    MutexLocker lock(mutex_);
    return std::all_of(inputs_.begin(), inputs_.end(), [&](const std::shared_ptr<CaptureInput>& input) {
        auto* deviceInput = dynamic_cast<CaptureDeviceInput*>(input.get());
        return !deviceInput || deviceInput->device()->supportsSessionPreset(preset);
    });
}

void CaptureSession::setSessionPreset(const QString& preset)
{
    {
        MutexLocker lock(mutex_);
        if (preset_ == preset)
            return;
        preset_ = preset;
    }
    configurationChanged();
}

bool CaptureSession::canAddInput(const std::shared_ptr<CaptureInput>& input) const
{
    if (!input)
        return false;
    MutexLocker lock(mutex_);
    if (!input->session_.expired())
        return false;
    // One camera at a time, as on phones without multi-camera capture.
    return !std::any_of(inputs_.begin(), inputs_.end(), [](const std::shared_ptr<CaptureInput>& existing) {
        return dynamic_cast<CaptureDeviceInput*>(existing.get()) != nullptr;
    }) || !dynamic_cast<CaptureDeviceInput*>(input.get());
}

void CaptureSession::addInputLocked(const std::shared_ptr<CaptureInput>& input)
{
    inputs_.push_back(input);
    input->session_ = weak_from_this();
}

void CaptureSession::addInput(const std::shared_ptr<CaptureInput>& input)
{
    if (!canAddInput(input)) {
        qCWarning(lcCameraSession) << "capture session: input refused";
        return;
    }
    {
        MutexLocker lock(mutex_);
        addInputLocked(input);
    }
    configurationChanged();
}

void CaptureSession::addInputWithNoConnections(const std::shared_ptr<CaptureInput>& input) { addInput(input); }

void CaptureSession::removeInput(const std::shared_ptr<CaptureInput>& input)
{
    {
        MutexLocker lock(mutex_);
        auto it = std::find(inputs_.begin(), inputs_.end(), input);
        if (it == inputs_.end())
            return;
        (*it)->session_.reset();
        inputs_.erase(it);
    }
    configurationChanged();
}

std::vector<std::shared_ptr<CaptureInput>> CaptureSession::inputs() const
{
    MutexLocker lock(mutex_);
    return inputs_;
}

bool CaptureSession::canAddOutput(const std::shared_ptr<CaptureOutput>& output) const
{
    if (!output)
        return false;
    if (output->isInSession())
        return false;
    MutexLocker lock(mutex_);
    return std::all_of(inputs_.begin(), inputs_.end(), [&](const std::shared_ptr<CaptureInput>& input) {
        auto* deviceInput = dynamic_cast<CaptureDeviceInput*>(input.get());
        return !deviceInput || deviceInput->device()->acceptsOutput(*output);
    });
}

void CaptureSession::addOutput(const std::shared_ptr<CaptureOutput>& output)
{
    if (!canAddOutput(output)) {
        qCWarning(lcCameraSession) << "capture session: output refused";
        return;
    }
    {
        MutexLocker lock(mutex_);
        outputs_.push_back(output);
        output->setSession(weak_from_this());
    }
    configurationChanged();
}

void CaptureSession::removeOutput(const std::shared_ptr<CaptureOutput>& output)
{
    {
        MutexLocker lock(mutex_);
        auto it = std::find(outputs_.begin(), outputs_.end(), output);
        if (it == outputs_.end())
            return;
        (*it)->setSession({});
        outputs_.erase(it);
    }
    configurationChanged();
}

std::vector<std::shared_ptr<CaptureOutput>> CaptureSession::outputs() const
{
    MutexLocker lock(mutex_);
    return outputs_;
}

CaptureDevicePtr CaptureSession::videoDevice() const
{
    MutexLocker lock(mutex_);
    for (const auto& input : inputs_) {
        if (auto* deviceInput = dynamic_cast<CaptureDeviceInput*>(input.get()))
            return deviceInput->device();
    }
    return nullptr;
}

bool CaptureSession::hasVideoInput() const { return videoDevice() != nullptr; }

ErrorPtr CaptureSession::runtimeError() const
{
    MutexLocker lock(mutex_);
    return runtimeError_;
}

bool CaptureSession::isCapturing() const { return run_ && run_->thread.joinable(); }

void CaptureSession::startRunning()
{
    if (running_.exchange(true))
        return;
    startCapture();
}

void CaptureSession::stopRunning()
{
    if (!running_.exchange(false))
        return;
    stopCapture();
    for (const auto& output : outputs())
        output->sessionDidStopRunning();
}

namespace {
/// Logs the format the stream opened with; `opened` is its place among the
/// ranked candidates, the ones before it having been refused by the driver.
void logFormatChoice(const CaptureDevice& device, const QString& preset,
                     const std::vector<CaptureDeviceFormatPtr>& candidates, size_t opened)
{
    const CaptureDeviceFormat& format = *candidates[opened];
    // The reason is the opened format's among what was left to choose from,
    // not the refused favourite's.
    const std::vector<CaptureDeviceFormatPtr> remaining(candidates.begin() + ptrdiff_t(opened), candidates.end());
    QString reason = captureFormatChoiceReason(remaining, preset);
    if (opened > 0)
        reason += QStringLiteral("; the driver refused %1 better").arg(opened);
    const double rate = format.captureFrameRate(0.0);
    qCInfo(lcCameraSession, "capture format of <%s>: %s %dx%d at %s for %s: %s", qUtf8Printable(device.localizedName()),
           qUtf8Printable(fourCharCodeText(format.mediaSubType())), format.width(), format.height(),
           rate > 0 ? qUtf8Printable(QStringLiteral("%1 fps").arg(rate, 0, 'f', 3)) : "its own rate",
           qUtf8Printable(preset),
           qUtf8Printable(reason));
}
}  // namespace

void CaptureSession::postRuntimeError()
{
    NotificationCenter::defaultCenter().post(kCaptureSessionRuntimeErrorNotification, this);
}

void CaptureSession::startCapture()
{
    CaptureDevicePtr device = videoDevice();
    QString preset = sessionPreset();
    auto run = std::make_unique<Run>();
    run->session = this;
    run->outputs = outputs();
    if (device) {
        ErrorPtr error;
        const auto candidates = device->formatsForSessionPreset(preset);
        for (size_t i = 0; i < candidates.size(); ++i) {
            const auto& format = candidates[i];
            run->stream = device->openStream(format, &error);
            if (run->stream) {
                // The driver may run the format slower than it listed.
                const double rate = run->stream->frameRate();
                run->frameDurationNs = int64_t(1e9 / (rate > 0 ? rate : format->captureFrameRate()));
                if (candidates.size() > 1)
                    logFormatChoice(*device, preset, candidates, i);
                break;
            }
            // Only a camera that refused this very format, or whose bus
            // cannot carry it, may take another: a busy or forbidden camera
            // says the same for every format.
            if (!error
                || (error->code() != long(CaptureErrorCode::FormatRefused)
                    && error->code() != long(CaptureErrorCode::NoBandwidth))
                || i + 1 == candidates.size())
                break;
            qCWarning(lcCameraSession, "%s; trying the next format", qUtf8Printable(error->localizedDescription()));
        }
        if (candidates.empty())
            run->stream = device->openStream(nullptr, &error);
        run->position = device->position();
        run->deviceName = device->localizedName();
        if (!run->stream) {
            qCWarning(lcCameraSession, "Cannot start capture from <%s>: %s", qUtf8Printable(device->localizedName()),
                      qUtf8Printable(error ? error->localizedDescription() : QString()));
            {
                MutexLocker lock(mutex_);
                runtimeError_ = error;
            }
            postRuntimeError();
        }
    }
    if (run->stream)
        run->thread = std::thread(&CaptureSession::captureLoop, run.get());
    run_ = std::move(run);
}

void CaptureSession::stopCapture()
{
    if (!run_)
        return;
    if (run_->stream)
        run_->stream->interrupt();
    if (run_->thread.joinable())
        run_->thread.join();
    // Closing the stream closes the camera.
    run_.reset();
}

SampleBuffer CaptureSession::retimed(Run& run, const SampleBuffer& frame)
{
    // Each camera counts time from its own start; a restart (camera switch,
    // reconfiguration) must not send time backwards to recorders.
    const MediaTime cameraTime = frame.presentationTimeStamp().convertScale(1000000000);
    const int64_t cameraNs = cameraTime.isValid() ? cameraTime.value : nextPtsNs_;
    if (!run.offsetNs)
        run.offsetNs = nextPtsNs_ - cameraNs;
    const int64_t sessionNs = std::max(cameraNs + *run.offsetNs, nextPtsNs_);
    nextPtsNs_ = sessionNs + run.frameDurationNs;
    return SampleBuffer(frame.imageBuffer(), MediaTime::make(sessionNs, 1000000000), frame.formatDescription(),
                        frame.duration());
}

void CaptureSession::registerPreviewLayer(const std::weak_ptr<CaptureVideoPreviewLayer>& layer)
{
    MutexLocker lock(layersMutex_);
    std::erase_if(layers_, [](const std::weak_ptr<CaptureVideoPreviewLayer>& l) { return l.expired(); });
    layers_.push_back(layer);
}

void CaptureSession::captureLoop(Run* run)
{
    pthread_setname_np(pthread_self(), "CaptureSession");
    CaptureSession* session = run->session;
    SampleBuffer frame;
    for (;;) {
        const auto result = run->stream->read(frame);
        if (result == CaptureDeviceStream::ReadResult::Interrupted)
            break;
        if (result == CaptureDeviceStream::ReadResult::Ended) {
            const QString reason = run->stream->endReason();
            qCWarning(lcCameraSession, "Capture from <%s> ended: %s", qUtf8Printable(run->deviceName), qUtf8Printable(reason));
            const auto error = makeCaptureError(CaptureErrorCode::DeviceNotAvailable, reason, run->stream->endCause());
            {
                MutexLocker lock(session->mutex_);
                session->runtimeError_ = error;
            }
            session->postRuntimeError();
            break;
        }
        session->capturedFrames_.fetch_add(1, std::memory_order_relaxed);
        frame = session->retimed(*run, frame);
        for (const auto& output : run->outputs)
            output->captureFrame(frame, run->position);
        {
            MutexLocker lock(session->layersMutex_);
            for (const auto& weakLayer : session->layers_) {
                if (auto layer = weakLayer.lock())
                    layer->enqueueFrame(frame, run->position);
            }
        }
        frame = SampleBuffer();
    }
}

}  // namespace zavo::platform
