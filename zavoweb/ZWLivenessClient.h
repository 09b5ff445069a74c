#pragma once
// HTTP client of a liveness server: sends one face picture, gets a verdict.
//
// Protocol. The picture goes as the body of a POST to the configured URL,
// "Content-Type: image/jpeg". The server answers with a JSON object:
//
//   {"live": true}                          the face is live
//   {"live": false, "message": "..."}       not live (message optional)
//   {"quality_error": "..."}                the picture was not good enough to
//                                           decide; the text is shown to the user
//   {"code": 11038, "message": "..."}       an error of the server's own
//
// An HTTP error status carries the same "code"/"message" object when the
// server has one. How answers become results:
//
//   transport failure, timeout, no answer   NetworkingError::connectionError
//                                           wrapping an error of domain
//                                           kZWTransportErrorDomain (code: the
//                                           QNetworkReply::NetworkError)
//   "quality_error"                         NetworkingError::livenessQualityError(text)
//   "code"                                  NetworkingError::zavoError(code, message)
//   HTTP error status without a "code"      NetworkingError::zavoError(status, reason phrase)
//   a body that is none of the above        NetworkingError::livenessConnectionError()
//   "live"                                  the verdict, no error
#include "base/ZavoExport.h"
#include "base/Error.h"

#include <QImage>
#include <QString>
#include <QUrl>
#include <chrono>
#include <functional>
#include <memory>

class QThread;

namespace zavo::web {

/// Domain of the transport errors a connectionError wraps.
inline const QString kZWTransportErrorDomain = QStringLiteral("ZavoWeb.Transport");

class ZAVO_EXPORT ZWLivenessClient {
public:
    struct Settings {
        QUrl url;
        /// Longest wait for the whole exchange; then the check fails with a
        /// connection error.
        std::chrono::milliseconds timeout{10000};
        int jpegQuality = 90;
    };
    /// error set: the check could not decide (a NetworkingError); otherwise
    /// live is the server's verdict and message its optional explanation.
    struct Result {
        bool live = false;
        QString message;
        platform::ErrorPtr error;
    };
    using Completion = std::function<void(const Result& result)>;

    /// Starts the client's own network thread; nothing is sent yet.
    explicit ZWLivenessClient(Settings settings);
    /// Aborts checks still running; their completions are not called. Must
    /// not run inside a completion of this client.
    ~ZWLivenessClient();
    ZWLivenessClient(const ZWLivenessClient&) = delete;
    ZWLivenessClient& operator=(const ZWLivenessClient&) = delete;

    const Settings& settings() const { return settings_; }

    /// Sends image; returns at once. Callable from any thread. The completion
    /// runs exactly once (unless the client is destroyed first), on the
    /// client's network thread.
    void check(const QImage& image, Completion completion);

private:
    class Session;
    Settings settings_;
    std::unique_ptr<QThread> thread_;
    Session* session_ = nullptr;  // lives on thread_, deleted there
};

}  // namespace zavo::web
