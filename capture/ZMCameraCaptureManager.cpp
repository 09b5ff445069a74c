#include "capture/ZMCameraCaptureManager.h"

#include "camera/CaptureAuthorization_p.h"
#include "shell/DeviceScreen.h"
#include "base/Log_p.h"
#include "base/NotificationCenter.h"
#include "base/ProcessInfo_p.h"
#include "recording/ZMRecordingStorage_p.h"
#include "recording/ZMSaveVideoExService.h"
#include "base/Affinity_p.h"
#include "recording/ZMSaveVideoService.h"

#include <QFile>
#include <QUrl>

namespace zavo {

using namespace platform;

// ------------------------------------------------------------------ helpers

VideoOrientation CaptureSessionHelpers::currentOrientation()
{
    switch (Device::orientation()) {
    case DeviceOrientation::LandscapeLeft: return VideoOrientation::LandscapeRight;
    case DeviceOrientation::LandscapeRight: return VideoOrientation::LandscapeLeft;
    default: return VideoOrientation::Portrait;
    }
}

QString FourCharCodetoString(uint32_t code)
{
    const QChar characters[4] = {QChar(char16_t((code >> 24) & 0xff)), QChar(char16_t((code >> 16) & 0xff)),
                                 QChar(char16_t((code >> 8) & 0xff)), QChar(char16_t(code & 0xff))};
    return QString(characters, 4);
}

// ---------------------------------------------------------- init / dealloc

std::shared_ptr<ZMCameraCaptureManager> ZMCameraCaptureManager::create()
{
    auto manager = std::make_shared<ZMCameraCaptureManager>(ConstructionKey{});
    manager->setupObservation();
    return manager;
}

ZMCameraCaptureManager::ZMCameraCaptureManager(ConstructionKey)
    : captureSessionQueue_(DispatchQueue::create(QStringLiteral("CaptureSessionQueue")))
    , sampleBufferDelegateQueue_(DispatchQueue::create(QStringLiteral("SampleBufferDelegateQueue")))
{
}

ZMCameraCaptureManager::~ZMCameraCaptureManager() { NotificationCenter::defaultCenter().removeObserver(this); }

// --------------------------------------------------------------- permission

AuthorizationStatus ZMCameraCaptureManager::cameraAuthorizationStatus()
{
    return CaptureAuthorization::authorizationStatusForMediaType(MediaType::Video);
}

CameraFailureReason ZMCameraCaptureManager::cameraAccessDenialReason()
{
    return CaptureAuthorization::denialReasonForMediaType(MediaType::Video);
}

void ZMCameraCaptureManager::requestAccessForVideoWithCompletion(AuthorizationCompletion completion)
{
    // Whatever the path, the answer is read again on the main queue: the
    // request's own flag is never passed on.
    auto answerOnMain = [completion] {
        DispatchQueue::main().async([completion] {
            if (completion)
                completion(cameraAuthorizationStatus());
        });
    };
    if (cameraAuthorizationStatus() != AuthorizationStatus::NotDetermined) {
        answerOnMain();
        return;
    }
    CaptureAuthorization::requestAccessForMediaType(MediaType::Video, [answerOnMain](bool) { answerOnMain(); });
}

// --------------------------------------------------------------- properties

std::shared_ptr<ZMCameraCaptureManagerDelegate> ZMCameraCaptureManager::delegate() const
{
    MutexLocker lock(mutex_);
    return delegate_.lock();
}

void ZMCameraCaptureManager::setDelegate(const std::weak_ptr<ZMCameraCaptureManagerDelegate>& delegate)
{
    MutexLocker lock(mutex_);
    delegate_ = delegate;
}

QString ZMCameraCaptureManager::videoFile() const
{
    MutexLocker lock(mutex_);
    return videoFile_;
}

DispatchQueuePtr ZMCameraCaptureManager::setSampleBufferDelegateQueue() const
{
    MutexLocker lock(mutex_);
    return sampleBufferDelegateQueue_;
}

void ZMCameraCaptureManager::setSetSampleBufferDelegateQueue(DispatchQueuePtr queue)
{
    MutexLocker lock(mutex_);
    sampleBufferDelegateQueue_ = std::move(queue);
}

CaptureSessionPtr ZMCameraCaptureManager::session() const
{
    MutexLocker lock(mutex_);
    return session_;
}

CaptureDevicePtr ZMCameraCaptureManager::camera() const
{
    MutexLocker lock(mutex_);
    return camera_;
}

std::shared_ptr<ZMSaveVideoServiceProtocol> ZMCameraCaptureManager::saveVideoService() const
{
    MutexLocker lock(mutex_);
    return saveVideoService_;
}

QVariantMap ZMCameraCaptureManager::videoSettings() const
{
    return {{kPixelBufferPixelFormatTypeKey, QVariant::fromValue(uint32_t(PixelFormat::BGRA32))}};
}

// ------------------------------------------------------------ configuration

void ZMCameraCaptureManager::configureWithCameraPosition(CaptureDevicePosition position,
                                                         std::function<void()> completion)
{
    captureSessionQueue_->async([self = shared_from_this(), position, completion = std::move(completion)] {
        self->configureTask(position, completion);
    });
}

void ZMCameraCaptureManager::configureTask(CaptureDevicePosition position, const std::function<void()>& completion)
{
    ZAVO_ASSERT_ON(captureSessionQueue_);
    auto call = [&completion] {
        if (completion)
            completion();
    };
    // A session stored before is replaced as it is, running or not.
    auto newSession = CaptureSession::create();
    {
        MutexLocker lock(mutex_);
        session_ = newSession;
    }
    newSession->beginConfiguration();

    CaptureDevicePtr device = cameraDeviceWithPosition(position);
    {
        MutexLocker lock(mutex_);
        camera_ = device;
    }
    cameraPosition_.store(int(position));
    setupFocusForCamera(device);

    ErrorPtr error;
    auto input = CaptureDeviceInput::deviceInputWithDevice(device, &error);
    if (error) {
        // The configuration stays open on purpose: the session keeps no
        // input and no output until it is configured again.
        cameraPosition_.store(int(CaptureDevicePosition::Unspecified));
        call();
        return;
    }
    if (newSession->canAddInput(input))
        newSession->addInputWithNoConnections(input);

    configureActiveFormat(device);

    auto output = CaptureVideoDataOutput::create();
    output->setVideoSettings(videoSettings());
    output->setAlwaysDiscardsLateVideoFrames(true);
    output->setSampleBufferDelegate(weak_from_this(), setSampleBufferDelegateQueue());

    if (newSession->canAddOutput(output)) {
        newSession->addOutput(output);
        auto connection = output->connectionWithMediaType(MediaType::Video);
        if (connection) {
            // Mirroring follows the position asked for, even when the format
            // step has just reported a failure.
            connection->setVideoMirrored(position == CaptureDevicePosition::Front);
            connection->setVideoOrientation(CaptureSessionHelpers::currentOrientation());
        }
        setupVideoService(newSession, connection);
    }
    newSession->commitConfiguration();
    call();
}

void ZMCameraCaptureManager::setupVideoService(const CaptureSessionPtr& session,
                                               const std::shared_ptr<CaptureConnection>& connection)
{
    std::shared_ptr<ZMSaveVideoServiceProtocol> service;
    if (ProcessInfo::isOperatingSystemAtLeast(16, 0, 0)) {
        auto movieService =
            ZMSaveVideoExService::videoServiceWithDelegate(weak_from_this(), frameWidth(), frameHeight(), fps());
        movieService->attachWithSession(session, connection);
        service = movieService;
    } else {
        service = ZMSaveVideoService::videoServiceWithDelegate(weak_from_this(), frameWidth(), frameHeight(), fps());
    }
    MutexLocker lock(mutex_);
    saveVideoService_ = std::move(service);
}

// ------------------------------------------------------------- start / stop

void ZMCameraCaptureManager::start()
{
    auto current = session();
    if (current && current->isRunning())
        return;
    captureSessionQueue_->async([self = shared_from_this()] {
        if (auto running = self->session())
            running->startRunning();
        self->startVideoFileRecord();
    });
}

void ZMCameraCaptureManager::stopWithCompletion(std::function<void()> completion)
{
    auto current = session();
    if (!current || !current->isRunning()) {
        if (completion)
            completion();
        return;
    }
    captureSessionQueue_->async([self = shared_from_this(), completion = std::move(completion)] {
        if (auto running = self->session())
            running->stopRunning();
        self->stopVideoFileRecordWithCompletion([completion] {
            if (completion)
                completion();
        });
    });
}

void ZMCameraCaptureManager::setVideoDestination(const QString& folder, bool keepEach)
{
    MutexLocker lock(mutex_);
    videoFolder_ = folder;
    keepEachVideo_ = keepEach;
}

void ZMCameraCaptureManager::startVideoFileRecord()
{
    if (!recordVideo())
        return;
    QString folder;
    bool keepEach = false;
    {
        MutexLocker lock(mutex_);
        folder = videoFolder_;
        keepEach = keepEachVideo_;
    }
    const QString path = folder.isEmpty()
        ? ZMRecordingStorage::folderPath() + QLatin1Char('/') + ZMRecordingStorage::kRecordedVideoFileName
        : ZMRecordingStorage::hostVideoPath(folder, keepEach);
    {
        MutexLocker lock(mutex_);
        videoFile_ = path;
    }
    recordedFrames_.store(0);
    recordingFinal_.store(false);
    QFile::remove(path);  // a leftover from an earlier session; failure does not matter
    if (auto service = saveVideoService())
        service->beginRecordWithFileURL(QUrl::fromLocalFile(path));
}

void ZMCameraCaptureManager::stopVideoFileRecordWithCompletion(std::function<void()> completion)
{
    auto service = recordVideo() ? saveVideoService() : nullptr;
    if (!service) {
        // Not recording, or no recorder could be made (the frame output was
        // refused): there is nothing to wait for.
        completion();
        return;
    }
    service->endRecordWithCompletion(std::move(completion));
}

// ------------------------------------------------------------------ frames

void ZMCameraCaptureManager::defineSampleBufferhandler(SampleBufferHandler handler)
{
    auto stored = std::make_shared<const SampleBufferHandler>(std::move(handler));
    MutexLocker lock(mutex_);
    sampleBufferHandler_ = std::move(stored);
}

void ZMCameraCaptureManager::captureOutputDidOutputSampleBuffer(CaptureVideoDataOutput&,
                                                                const SampleBuffer& sampleBuffer, CaptureConnection&)
{
    ZAVO_ASSERT_ON(setSampleBufferDelegateQueue());
    if (recordVideo()) {
        if (auto service = saveVideoService()) {
            recordedFrames_.fetch_add(1, std::memory_order_relaxed);
            service->appendStorageWithSampleBuffer(sampleBuffer);
        }
    }
    std::shared_ptr<const SampleBufferHandler> handler;
    {
        MutexLocker lock(mutex_);
        handler = sampleBufferHandler_;
    }
    if (handler && *handler)
        (*handler)(sampleBuffer);
}

// ------------------------------------------------------- recorder callbacks

void ZMCameraCaptureManager::videoFlushingWillBegin()
{
    if (auto target = delegate())
        target->videoSaveProcessBegan();
}

void ZMCameraCaptureManager::videoFlushingDidEndWithError(ErrorPtr error)
{
    const QString file = videoFile();
    if (error)
        qCWarning(lcCapture, ">>> Error while flushing video file <%s>: <%s>", qUtf8Printable(file),
                  qUtf8Printable(describeError(*error)));
    auto target = delegate();
    if (!target)
        return;
    if (target->shouldDeleteResultingVideo()) {
        if (!QFile::remove(file))
            qCWarning(lcCapture, ">>> Error while deleting video file <%s>", qUtf8Printable(file));
    }
    target->videoSavedWithError(error);
}

void ZMCameraCaptureManager::videoRecordingDidFinish(ErrorPtr error)
{
    // The recorder's contract is one final per recording; a second would
    // tell the host about a file it may already have moved or deleted.
    if (recordingFinal_.exchange(true)) {
        qCWarning(lcCapture, "a recorder reported a second end of one recording; ignored");
        return;
    }
    auto target = delegate();
    if (!target)
        return;
    const QString file = videoFile();
    const bool exists = QFile::exists(file);
    target->recordingDidFinish(exists ? std::optional<QString>(file) : std::nullopt, error);
}

// ---------------------------------------------- discovery and format choice

CaptureDevicePtr ZMCameraCaptureManager::cameraDeviceWithPosition(CaptureDevicePosition position)
{
    ZAVO_ASSERT_ON(captureSessionQueue_);
    const auto wanted = position == CaptureDevicePosition::Unspecified ? CaptureDevicePosition::Front : position;
    const auto discovery = CaptureDeviceDiscoverySession::discoverySession({kCaptureDeviceTypeBuiltInWideAngleCamera},
                                                                           MediaType::Video, wanted);
    for (const auto& device : discovery.devices()) {
        if (device->position() == wanted)
            return device;
    }
    return nullptr;
}

CaptureDeviceFormatPtr ZMCameraCaptureManager::findRequiredFormatWithDevice(const CaptureDevicePtr& device,
                                                                            double width, double height,
                                                                            double maximumFPS)
{
    if (!device)
        return nullptr;
    const auto formats = device->formats();
    // The latest qualifying format in the device's list wins.
    for (auto it = formats.rbegin(); it != formats.rend(); ++it) {
        const auto& format = *it;
        const auto& description = *format->formatDescription();
        const QString subtype = FourCharCodetoString(description.mediaSubType());
        const int32_t formatWidth = description.width();
        const int32_t formatHeight = description.height();
        const auto& ranges = format->videoSupportedFrameRateRanges();
        const bool qualifies = double(formatHeight) == height && double(formatWidth) == width
            && subtype == QLatin1String("420v");
        if (!qualifies)
            continue;
        // Only the first range counts, and its maximum is a ceiling: a
        // format without ranges reads 0 and passes.
        const double maxFrameRate = ranges.empty() ? 0.0 : ranges.front().maxFrameRate;
        if (maxFrameRate <= maximumFPS) {
            qCInfo(lcCapture, "format <%s> width = <%i> height = <%i> fps = <%.3f>", qUtf8Printable(subtype),
                   formatWidth, formatHeight, maxFrameRate);
            return format;
        }
    }
    return nullptr;
}

void ZMCameraCaptureManager::configureActiveFormat(const CaptureDevicePtr& device)
{
    ZAVO_ASSERT_ON(captureSessionQueue_);
    const auto format = findRequiredFormatWithDevice(device, frameWidth(), frameHeight(), fps());
    if (format) {
        useSessionPreset(CaptureSessionPreset::InputPriority);
        if (device->lockForConfiguration(nullptr)) {
            device->setActiveFormat(format);
            device->unlockForConfiguration();
        }
        return;
    }
    const QString preset = MainScreen::bounds().height() == 480.0 ? CaptureSessionPreset::Preset640x480
                                                                    : CaptureSessionPreset::Preset1280x720;
    if (!useSessionPreset(preset))
        cameraPosition_.store(int(CaptureDevicePosition::Unspecified));
}

bool ZMCameraCaptureManager::useSessionPreset(const QString& preset)
{
    ZAVO_ASSERT_ON(captureSessionQueue_);
    // Asks the stored camera, not the device being configured.
    const auto device = camera();
    const bool supported = device && device->supportsSessionPreset(preset);
    if (supported) {
        if (auto current = session())
            current->setSessionPreset(preset);
    }
    return supported;
}

// --------------------------------------------------------------------- focus

void ZMCameraCaptureManager::setupFocusForCamera(const CaptureDevicePtr& device)
{
    if (!device || !device->isFocusModeSupported(FocusMode::ContinuousAutoFocus))
        return;
    device->lockForConfiguration(nullptr);
    device->setFocusMode(FocusMode::ContinuousAutoFocus);
    device->unlockForConfiguration();
}

void ZMCameraCaptureManager::setupFocus(QPointF point, const CaptureDevicePtr& device)
{
    if (!device || !device->isFocusPointOfInterestSupported() || !device->isFocusModeSupported(FocusMode::Locked))
        return;
    device->lockForConfiguration(nullptr);
    device->setFocusPointOfInterest(point);
    device->unlockForConfiguration();
}

// --------------------------------------------------------------- orientation

void ZMCameraCaptureManager::setupObservation()
{
    std::weak_ptr<ZMCameraCaptureManager> weakSelf = weak_from_this();
    NotificationCenter::defaultCenter().addObserver(this, kDeviceOrientationDidChangeNotification, nullptr,
                                                    [weakSelf](const Notification&) {
                                                        if (auto self = weakSelf.lock())
                                                            self->didChangeOrientation();
                                                    });
    // Only this manager's current session counts; an old one replaced by a
    // configuration may still report while it winds down.
    NotificationCenter::defaultCenter().addObserver(
        this, kCaptureSessionRuntimeErrorNotification, nullptr, [weakSelf](const Notification& notification) {
            auto self = weakSelf.lock();
            if (!self)
                return;
            auto current = self->session();
            if (!current || current.get() != notification.sender)
                return;
            if (auto target = self->delegate())
                target->captureDidFailWithError(current->runtimeError());
        });
}

void ZMCameraCaptureManager::didChangeOrientation()
{
    if (!orientationEnabled())
        return;
    CaptureVideoPreviewLayerPtr layer;
    {
        MutexLocker lock(mutex_);
        layer = previewLayer_.lock();
    }
    if (!layer)
        return;
    auto connection = layer->connection();
    if (!connection)
        return;
    connection->setVideoOrientation(CaptureSessionHelpers::currentOrientation());
}

// ------------------------------------------------------------ camera switch

void ZMCameraCaptureManager::switchCameraType()
{
    captureSessionQueue_->async([self = shared_from_this()] { self->switchTask(); });
}

void ZMCameraCaptureManager::switchTask()
{
    ZAVO_ASSERT_ON(captureSessionQueue_);
    auto current = session();
    if (!current)
        return;
    current->beginConfiguration();

    const auto inputs = current->inputs();
    std::shared_ptr<CaptureInput> oldInput = inputs.empty() ? nullptr : inputs.front();
    if (oldInput)
        current->removeInput(oldInput);
    auto* oldDeviceInput = dynamic_cast<CaptureDeviceInput*>(oldInput.get());
    const bool wasBack = oldDeviceInput && oldDeviceInput->device()->position() == CaptureDevicePosition::Back;
    const auto newPosition = wasBack ? CaptureDevicePosition::Front : CaptureDevicePosition::Back;
    cameraPosition_.store(int(newPosition));

    ErrorPtr error;
    auto input = CaptureDeviceInput::deviceInputWithDevice(cameraDeviceWithPosition(newPosition), &error);
    if (!input || error) {
        qCWarning(lcCapture, "Error creating capture device input: %s",
                  qUtf8Printable(error ? error->localizedDescription() : QStringLiteral("(null)")));
        cameraPosition_.store(int(CaptureDevicePosition::Unspecified));
    } else if (current->canAddInput(input)) {
        current->addInput(input);
    }

    const auto outputs = current->outputs();
    if (!outputs.empty()) {
        if (auto connection = outputs.front()->connectionWithMediaType(MediaType::Video)) {
            connection->setVideoMirrored(cameraPosition() == CaptureDevicePosition::Front);
            connection->setVideoOrientation(CaptureSessionHelpers::currentOrientation());
        }
    }
    current->commitConfiguration();
}

// ------------------------------------------------------------ preview layer

CaptureVideoPreviewLayerPtr ZMCameraCaptureManager::previewLayerForSession(const CaptureSessionPtr& session)
{
    MutexLocker lock(mutex_);
    auto layer = previewLayer_.lock();
    if (!layer) {
        layer = CaptureVideoPreviewLayer::layerWithSession(session);
        previewLayer_ = layer;
    }
    return layer;
}

CaptureVideoPreviewLayerPtr ZMCameraCaptureManager::previewLayer()
{
    auto current = session();
    if (!current) {
        qCWarning(lcCapture, "Error: session not configurred!");
        return nullptr;
    }
    return previewLayerForSession(current);
}

void ZMCameraCaptureManager::findPreviewLayerWithCompletion(PreviewLayerCompletion completion)
{
    captureSessionQueue_->async([self = shared_from_this(), completion = std::move(completion)] {
        auto current = self->session();
        if (!current) {
            // No early return: the completion is called a second time below,
            // with a layer that has no session.
            qCWarning(lcCapture, "Error: session not configurred!");
            if (completion)
                completion(nullptr);
        }
        auto layer = self->previewLayerForSession(current);
        if (completion)
            completion(layer);
    });
}

void ZMCameraCaptureManager::updateLayerFrameWithRect(const QRectF& rect)
{
    CaptureVideoPreviewLayerPtr layer;
    {
        MutexLocker lock(mutex_);
        layer = previewLayer_.lock();
    }
    if (layer)
        layer->setFrame(rect);
}

}  // namespace zavo
