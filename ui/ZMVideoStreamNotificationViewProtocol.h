#pragma once
// What the camera screen needs of the banner that tells the user what is wrong
// with the video stream, so that a host customization can supply its own.
#include "base/ZavoExport.h"
#include "base/Error.h"

class QWidget;

namespace zavo {

class ZAVO_EXPORT ZMVideoStreamNotificationViewProtocol {
public:
    virtual ~ZMVideoStreamNotificationViewProtocol() = default;

    /// Shows the error's localized description and keeps the error; null
    /// clears the text.
    virtual void showNotificationMessage(platform::ErrorPtr error) = 0;
    /// The error last shown (shared with the view), or null.
    virtual platform::ErrorPtr notificationMessage() const = 0;
    /// The widget the screen shows, hides and positions; usually the object
    /// itself.
    virtual QWidget* widget() = 0;
};

}  // namespace zavo
