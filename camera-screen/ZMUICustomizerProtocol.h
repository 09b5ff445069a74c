#pragma once
// Replacing the look of the face frame and the message banner.
#include "base/ZavoExport.h"
#include "ui/ZMFaceDetectionViewProtocol.h"
#include "ui/ZMVideoStreamNotificationViewProtocol.h"

#include <QtGlobal>
#include <memory>

namespace zavo {

/// Supplies the screen's face frame and banner. Each operation is asked at
/// most once per screen; returning null keeps the built-in view. The screen
/// puts a returned view's widget() into its overlay, whose Qt parent then
/// owns it; widget() must therefore be the view object itself or owned by it.
class ZAVO_EXPORT ZMUICustomizerProtocol {
public:
    virtual ~ZMUICustomizerProtocol() = default;
    /// The frame drawn around the face. It is placed by frame, never by
    /// layout, and gets no geometry before the first face rectangle.
    virtual std::unique_ptr<ZMFaceDetectionViewProtocol> faceDetectionFrameView() { return nullptr; }
    /// The banner under the close button; its height is its own size hint.
    virtual std::unique_ptr<ZMVideoStreamNotificationViewProtocol> videoStreamNotificationView() { return nullptr; }
};

/// Keeps both built-in views.
class ZAVO_EXPORT ZMDefaultUICustomizer final : public ZMUICustomizerProtocol {
public:
    ZMDefaultUICustomizer() = default;
};

/// What a host may change about the screen's look.
class ZAVO_EXPORT ZMCustomization final {
public:
    /// uiCustomizer must not be null: the builder refuses a customization
    /// without one (ZMDefaultUICustomizer keeps both built-in views).
    explicit ZMCustomization(std::shared_ptr<ZMUICustomizerProtocol> uiCustomizer)
        : uiCustomizer_(std::move(uiCustomizer))
    {
    }
    const std::shared_ptr<ZMUICustomizerProtocol>& uiCustomizer() const { return uiCustomizer_; }

private:
    std::shared_ptr<ZMUICustomizerProtocol> uiCustomizer_;
};

}  // namespace zavo
