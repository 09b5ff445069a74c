// Whatever a liveness server may send back, turned into a check result: an
// HTTP status (or none: no answer at all), a reason phrase and a body.
//
// Input layout, simple enough to write seeds by hand:
//   byte 0   bit 0: an HTTP answer came; bit 1: the status is the next four
//            bytes (little endian, any int) rather than kStatuses[byte 1];
//            bits 2-7: the transport error when no answer came
//   then     the status byte(s), the reason phrase up to the first '\n',
//            and the body: everything after that newline
#include "FuzzSupport_p.h"

#include "zavoweb/NetworkingError.h"
#include "zavoweb/ZWLivenessClient_p.h"

#include <array>

using namespace zavo;
using namespace zavo::web;

namespace {

constexpr std::array kStatuses{200, 201, 204, 299, 300, 304, 400, 401, 403, 404, 422, 429, 500, 503, 100, 199};

/// The answer the input describes.
LivenessAnswer answerOf(const uint8_t* data, size_t size)
{
    LivenessAnswer answer;
    if (size == 0)
        return answer;
    const uint8_t flags = data[0];
    size_t at = 1;
    answer.transportError = flags >> 2;
    answer.transportErrorString = QStringLiteral("transport error %1").arg(answer.transportError);
    if (flags & 1) {
        if ((flags & 2) && size >= at + 4) {
            uint32_t raw = 0;
            for (int i = 0; i < 4; ++i)
                raw |= uint32_t(data[at + i]) << (8 * i);
            answer.httpStatus = int(raw);
            at += 4;
        } else if (size > at) {
            answer.httpStatus = kStatuses[data[at] % kStatuses.size()];
            ++at;
        } else {
            answer.httpStatus = 200;
        }
    }
    const QByteArray rest(reinterpret_cast<const char*>(data + at), qsizetype(size - at));
    const qsizetype newline = rest.indexOf('\n');
    answer.reasonPhrase = QString::fromUtf8(rest.left(newline < 0 ? 0 : newline));
    answer.body = newline < 0 ? rest : rest.mid(newline + 1);
    return answer;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    fuzz::setUpOnce();
    const LivenessAnswer answer = answerOf(data, size);
    const ZWLivenessClient::Result result = resultOfAnswer(answer);
    if (!result.error) {
        // A verdict needs an HTTP success.
        if (!answer.httpStatus || *answer.httpStatus < 200 || *answer.httpStatus >= 300)
            fuzz::fail("a verdict without a successful HTTP answer");
        return 0;
    }
    if (result.live)
        fuzz::fail("live and an error at once");
    const auto* networkingError = dynamic_cast<const NetworkingError*>(result.error.get());
    if (!networkingError)
        fuzz::fail("an error that is not a NetworkingError");
    // The texts the camera screen shows or logs for it.
    (void)result.error->localizedDescription();
    (void)result.error->errorDescription();
    (void)result.error->domain();
    (void)result.error->code();
    return 0;
}
