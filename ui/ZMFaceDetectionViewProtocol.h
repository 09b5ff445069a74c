#pragma once
#include "base/ZavoExport.h"
// What the camera screen needs of the frame it draws around the face, so that
// a host customization can supply a view of its own.
class QWidget;

namespace zavo {

class ZAVO_EXPORT ZMFaceDetectionViewProtocol {
public:
    virtual ~ZMFaceDetectionViewProtocol() = default;

    /// The current detection is good.
    virtual void switchToPositiveState() = 0;
    /// The current detection is not good.
    virtual void switchToNegativeState() = 0;
    /// The widget the screen positions and sizes over the preview; usually the
    /// object itself.
    virtual QWidget* widget() = 0;
};

}  // namespace zavo
