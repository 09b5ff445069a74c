#pragma once
// Errors of the networking framework, as the camera screen receives them from
// the liveness check.
#include "base/ZavoExport.h"
#include "base/Error.h"

#include <optional>
#include <variant>

namespace zavo::web {

/// Error domain of NetworkingError when bridged to an error object.
inline const QString kNetworkingErrorDomain = QStringLiteral("ZavoWeb.NetworkingError");

/// Well-known server code: the liveness server saw more than one face.
inline constexpr int kMultipleFacesServerCode = 11038;

class ZAVO_EXPORT NetworkingError final : public platform::Error {
public:
    /// The cases, in declaration order (their codes when bridged).
    enum class Kind { ZavoError = 0, ConnectionError = 1, LivenessConnectionError = 2, LivenessQualityError = 3 };

    /// The server answered with an error of its own.
    static NetworkingError zavoError(int code, QString message);
    /// The request did not get an answer (unreachable server, timeout, ...).
    static NetworkingError connectionError(platform::ErrorPtr underlying);
    static NetworkingError livenessConnectionError();
    /// The liveness check refused the picture's quality; the server's message
    /// when it gave one.
    static NetworkingError livenessQualityError(std::optional<QString> message = std::nullopt);

    Kind kind() const { return static_cast<Kind>(payload_.index()); }
    /// ZavoError: the server's code and message (0 and empty otherwise).
    int serverCode() const;
    QString serverMessage() const;
    /// ConnectionError: the error it wraps.
    platform::ErrorPtr underlyingError() const;
    /// LivenessQualityError: the server's message.
    std::optional<QString> qualityMessage() const;

    QString domain() const override { return kNetworkingErrorDomain; }
    long code() const override { return static_cast<long>(kind()); }
    /// The user-facing text: the server's message for server and quality
    /// errors (absent when it gave none), the wrapped error's text for a
    /// connection error, the framework's text for a liveness connection error.
    std::optional<QString> errorDescription() const override;

private:
    struct Server { int code; QString message; };
    struct Connection { platform::ErrorPtr underlying; };
    struct LivenessConnection {};
    struct Quality { std::optional<QString> message; };
    using Payload = std::variant<Server, Connection, LivenessConnection, Quality>;

    explicit NetworkingError(Payload payload) : payload_(std::move(payload)) {}
    Payload payload_;
};

}  // namespace zavo::web
