#pragma once
// The camera screen: owns the capture manager and the best-shot detector,
// shows the live preview under an overlay of its own views, feeds every frame
// to the detector and turns what the detector reports into banner messages
// or the end of the session with one call on the host's delegate.
//
// Threads. Everything runs on the main queue except:
//  - the frame handler, on the capture manager's frame queue, which hops
//    synchronously to the main queue for each frame (the back-pressure);
//  - bestShot(), whose first step runs on the detector's thread;
//  - delivery to the host, on whatever thread the capture manager's stop
//    completion runs (main, its session queue or the recorder's queue);
//  - the capture manager's save callbacks, on the recorder's threads.
//
// Lifetime. Held by std::shared_ptr from create(). Closures that end a
// session hold the screen weakly, closures that only update views hold it
// strongly. Whichever thread lets go last, the screen is destroyed on the
// main queue, because it owns widgets.
#include "base/ZavoExport.h"
#include "camera-screen/ZMCameraError.h"
#include "camera-screen/ZMCameraViewControllerProtocol.h"
#include "camera-screen/ZMUICustomizerProtocol.h"
#include "capture/ZMCameraCaptureManager.h"
#include "zavocore/ZCOnlineLivenessProtocol.h"
#include "zavoweb/Throttler_p.h"
#include "base/ThreadSafety.h"

#include <QPointer>
#include <QPushButton>
#include <QWidget>
#include <atomic>
#include <type_traits>

class QAbstractButton;
class QVariantAnimation;
namespace Ui {
class ZMCameraViewController;
}

namespace zavo {

namespace detail {

/// A view the screen owns as an object while Qt parents its widget. Deleting
/// the object takes the widget out of its parent; if Qt deleted the widget
/// first (the host destroyed the window the screen was embedded in) and the
/// widget is the object itself, there is nothing left to delete.
template <typename T>
class OwnedView {
public:
    OwnedView() = default;
    explicit OwnedView(std::unique_ptr<T> object) { reset(std::move(object)); }
    ~OwnedView() { reset(nullptr); }
    OwnedView(const OwnedView&) = delete;
    OwnedView& operator=(const OwnedView&) = delete;

    void reset(std::unique_ptr<T> object)
    {
        // A dangling object must not be touched, so whether it is its own
        // widget was settled when it came in.
        if (object_ && objectIsWidget_ && !widget_)
            (void)object_.release();
        object_ = std::move(object);
        widget_ = object_ ? widgetOf(*object_) : nullptr;
        objectIsWidget_ = object_ && dynamic_cast<QWidget*>(object_.get()) == widget_.data();
    }
    T* get() const { return object_.get(); }
    T* operator->() const { return object_.get(); }
    explicit operator bool() const { return bool(object_); }

private:
    static QWidget* widgetOf(T& object)
    {
        if constexpr (std::is_base_of_v<QWidget, T>)
            return &object;
        else
            return object.widget();
    }

    std::unique_ptr<T> object_;
    QPointer<QWidget> widget_;
    bool objectIsWidget_ = false;
};

}  // namespace detail

class ZAVO_EXPORT ZMCameraViewController final : public platform::ViewController,
                                     public ZMCameraViewControllerProtocol,
                                     public core::ZCBestShotDelegate,
                                     public ZMCameraCaptureManagerDelegate {
public:
    /// A screen with every field at its initial value; nothing is built or
    /// started. Main thread.
    static std::shared_ptr<ZMCameraViewController> create();
    ~ZMCameraViewController() override;

    /// Width and height of the close button.
    const double CloseButtonSize = 44.0;
    /// How long a short and a long banner message stays up (seconds).
    const double messageTime = 0.5;
    const double messageTimeLong = 2.0;

    // ------------------------------------------ ZMCameraViewControllerProtocol

    std::shared_ptr<ZMCameraDelegate> delegate() const override;
    void setDelegate(std::weak_ptr<ZMCameraDelegate> delegate) override;
    core::ZCZavoConfigurationPtr configuration() const override { return configuration_; }
    void setConfiguration(core::ZCZavoConfigurationPtr configuration) override;
    std::function<void()> dismissHandler() const override { return dismissHandler_; }
    void setDismissHandler(std::function<void()> handler) override { dismissHandler_ = std::move(handler); }
    void defineInteractionsStep(std::vector<core::ZCStepConfigPtr> steps) override;
    std::shared_ptr<platform::ViewController> viewController() override { return shared_from_this(); }

    // ------------------------------------------------------------ fields

    std::shared_ptr<core::ZCOnlineLivenessProtocol> onlineLiveness() const { return onlineLiveness_; }
    void setOnlineLiveness(std::shared_ptr<core::ZCOnlineLivenessProtocol> liveness);
    std::shared_ptr<ZMCustomization> zavoCustomization() const { return zavoCustomization_; }
    void setZavoCustomization(std::shared_ptr<ZMCustomization> customization);

    /// Built on first use.
    const std::shared_ptr<ZMCameraCaptureManager>& captureManager();
    /// Built on first use; the configuration must be set by then.
    const core::ZCBestShotDetectorPtr& bestShotDetector();
    /// Built on first use: the customizer's frame view, else the built-in one.
    ZMFaceDetectionViewProtocol& faceDetectionView();
    ZMVideoStreamNotificationViewProtocol& notificationView() const { return *notificationView_.get(); }
    QPushButton* closeButton() const { return closeButton_.get(); }

    /// The scene's outlets; null until the view is loaded.
    QWidget* controls() const { return controls_; }
    QWidget* livenessActivity() const { return livenessActivity_; }
    QAbstractButton* changeCameraButton() const { return changeCameraButton_; }

    /// True unless the session ended some other way than the close button.
    bool closedByUser() const { return closedByUser_.load(); }
    /// False for a while after a liveness quality message, to keep it up.
    bool canShow() const { return canShow_; }

    // ------------------------------------------------------------ actions

    /// The close button: cancels the session. Main thread.
    void close();
    /// Whether the session's ending has begun (an outcome is on its way).
    bool isEnding() const { return endingStarted_; }
    /// For a front end that draws the preview itself: the layer goes to sink
    /// instead of into a preview widget. Before the view loads.
    void setPreviewSink(std::function<void(const platform::CaptureVideoPreviewLayerPtr&)> sink)
    {
        previewSink_ = std::move(sink);
    }
    /// The switch button: front to back camera and back. Main thread.
    void changeCamera();

    // ------------------------------------------------ ZCBestShotDelegate

    void detectionRect(const QRectF& rect, const QSizeF& frameSize) override;
    bool bestShot(core::ZCBestShotPtr bestShot) override;
    void bestShotError(platform::ErrorPtr error) override;
    void livenessIsActive(bool active) override;

    // ---------------------------------------- ZMCameraCaptureManagerDelegate

    bool shouldDeleteResultingVideo() override;
    void videoSaveProcessBegan() override;
    void videoSavedWithError(platform::ErrorPtr error) override;
    void captureDidFailWithError(platform::ErrorPtr error) override;
    void recordingDidFinish(std::optional<QString> videoFile, platform::ErrorPtr error) override;

    // ------------------------------------------------ result flow (main)

    void showNotification(platform::ErrorPtr error, bool isLong);
    void hideNotification();
    void finishWithError(const ZMCameraError& error);
    void finishWithBestShot(core::ZCBestShotPtr bestShot);

    struct ConstructionKey {};
    explicit ZMCameraViewController(ConstructionKey);

protected:
    void loadView() override;
    void viewDidLoad() override;
    void viewDidLayoutSubviews() override;
    void viewDidChangeScreen(QScreen* screen) override;
    void viewWasDestroyed() override;

private:
    class EventFilter;

    std::shared_ptr<ZMCameraViewController> strongSelf();
    std::weak_ptr<ZMCameraViewController> weakSelf();
    const core::ZCZavoConfiguration& requiredConfiguration(const char* use) const;

    // View set-up and layout.
    void bindOutlets();
    void setupViews();
    void setupCloseButton();
    void labelOwnViews();
    void retranslate();
    void layoutOverlay();
    void setupPreview(const platform::CaptureVideoPreviewLayerPtr& layer);
    void pushFrame(const platform::SampleBuffer& frame);
    void setLivenessActivityVisible(bool visible);
    void moveFaceFrame(const QRectF& rect);
    void announce(const QString& message);

    // Result flow.
    void handleAccessResult(platform::AuthorizationStatus status);
    void handleDetectorError(const platform::ErrorPtr& error);
    void handleNetworkingError(const ZMCameraError& cameraError, const web::NetworkingError& networking);
    void handleDetectorCode(const ZMCameraError& cameraError, const platform::ErrorObjectPtr& detectorError);
    void stopAndDeliver(std::function<void(ZMCameraViewController&)> delivery);
    void deliverError(const ZMCameraError& error);
    void deliverBestShot(const core::ZCBestShotPtr& bestShot);
    void outcomeDelivered(bool namedVideo);
    std::optional<QString> deliveredVideoFile() const;
    static void warnDelegateGone(const char* outcome);

    // The compiled form, kept to translate its texts again on a language
    // change, and the root's texts as the form last set them: a host that
    // titled or named the root itself keeps its own.
    std::unique_ptr<::Ui::ZMCameraViewController> form_;
    QStringList formRootTexts_;

    // Outlets of the scene (weak: the root view owns them).
    QPointer<QWidget> controls_;
    QPointer<QWidget> livenessActivity_;
    QPointer<QAbstractButton> changeCameraButton_;
    QPointer<QWidget> previewArea_;

    // The host's side. The delegate is read on the thread that delivers.
    Guarded<std::weak_ptr<ZMCameraDelegate>> delegate_;
    core::ZCZavoConfigurationPtr configuration_;
    std::function<void()> dismissHandler_;
    std::shared_ptr<core::ZCOnlineLivenessProtocol> onlineLiveness_;
    std::shared_ptr<ZMCustomization> zavoCustomization_;

    // Lazy members.
    std::shared_ptr<ZMCameraCaptureManager> captureManager_;
    core::ZCBestShotDetectorPtr bestShotDetector_;
    detail::OwnedView<ZMFaceDetectionViewProtocol> faceDetectionView_;

    // The outcome and the final video arrive on different threads, in either
    // order; the host hears the outcome first.
    struct VideoFinal {
        std::optional<QString> file;
        platform::ErrorPtr error;
    };
    void deliverVideoFinal(const VideoFinal& final);
    Mutex finalMutex_;
    bool outcomeDelivered_ ZAVO_GUARDED_BY(finalMutex_) = false;
    bool outcomeNamedVideo_ ZAVO_GUARDED_BY(finalMutex_) = false;
    std::optional<VideoFinal> pendingFinal_ ZAVO_GUARDED_BY(finalMutex_);

    // What a recorder thread needs to decide whether the video is kept.
    mutable Mutex videoPolicyMutex_;
    bool saveOnlyFaceVideo_ ZAVO_GUARDED_BY(videoPolicyMutex_) = false;
    core::ZCBestShotDetectorPtr videoPolicyDetector_ ZAVO_GUARDED_BY(videoPolicyMutex_);

    // bestShot() writes it on the detector's thread, everything else on main.
    std::atomic<bool> closedByUser_{true};
    bool canShow_ = true;
    web::Throttler throttler_{0.0, nullptr};

    detail::OwnedView<ZMVideoStreamNotificationViewProtocol> notificationView_;
    detail::OwnedView<QPushButton> closeButton_;

    QPointer<QWidget> previewView_;
    QPointer<QObject> eventFilter_;  // a child of the root widget
    std::function<void(const platform::CaptureVideoPreviewLayerPtr&)> previewSink_;
    QPointer<QVariantAnimation> faceAnimation_;
    bool viewSetUp_ = false;
    bool endingStarted_ = false;  // main queue
};

}  // namespace zavo
