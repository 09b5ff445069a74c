#pragma once
// The liveness check against an HTTP liveness server (the protocol is
// described in zavoweb/ZWLivenessClient.h).
#include "base/ZavoExport.h"
#include "zavocore/ZCOnlineLivenessProtocol.h"
#include "zavoweb/ZWLivenessClient.h"

#include <memory>

namespace zavo::core {

class ZAVO_EXPORT ZCHttpLiveness final : public ZCOnlineLivenessProtocol {
public:
    explicit ZCHttpLiveness(web::ZWLivenessClient::Settings settings);
    ~ZCHttpLiveness() override;

    /// The completion runs on the client's network thread; its error, when
    /// set, is a web::NetworkingError.
    void checkLiveness(const QImage& image, Completion completion) override;

private:
    std::unique_ptr<web::ZWLivenessClient> client_;
};

}  // namespace zavo::core
