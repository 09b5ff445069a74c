#pragma once
// The liveness check the detector runs on its chosen frame before handing it
// over as the best shot.
#include "base/ZavoExport.h"
#include "base/Error.h"

#include <QImage>
#include <functional>

namespace zavo::core {

class ZAVO_EXPORT ZCOnlineLivenessProtocol {
public:
    /// error set: the check could not decide (a web::NetworkingError, or an
    /// error in kZCErrorDomain); otherwise live is the verdict.
    using Completion = std::function<void(bool live, platform::ErrorPtr error)>;

    virtual ~ZCOnlineLivenessProtocol() = default;
    /// Checks image (the whole frame, as captured); returns at once. The
    /// completion runs exactly once, on any thread, unless the checker is
    /// destroyed first. Callable from any thread.
    virtual void checkLiveness(const QImage& image, Completion completion) = 0;
};

}  // namespace zavo::core
