#include "zavocore/ZCHttpLiveness.h"

namespace zavo::core {

ZCHttpLiveness::ZCHttpLiveness(web::ZWLivenessClient::Settings settings)
    : client_(std::make_unique<web::ZWLivenessClient>(std::move(settings)))
{
}

ZCHttpLiveness::~ZCHttpLiveness() = default;

void ZCHttpLiveness::checkLiveness(const QImage& image, Completion completion)
{
    client_->check(image, [completion = std::move(completion)](const web::ZWLivenessClient::Result& result) {
        completion(result.live, result.error);
    });
}

}  // namespace zavo::core
