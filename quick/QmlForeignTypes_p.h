#pragma once
// Types of the component that QML sees without their headers knowing QML.
#include "camera-screen/ZMCameraSession.h"

#include <QtQml/qqmlregistration.h>

namespace zavo::quick {

/// How a session ended, as `failed` hands it to QML: error.canceled,
/// error.text, error.code, error.domain, error.cameraFailureReason.
struct SessionErrorForeign {
    Q_GADGET
    QML_FOREIGN(zavo::ZMSessionError)
    QML_VALUE_TYPE(sessionError)
};

}  // namespace zavo::quick
