#include "zavoweb/NetworkingError.h"

#include "zavoweb/ZavoWeb_p.h"

namespace zavo::web {

NetworkingError NetworkingError::zavoError(int code, QString message)
{
    return NetworkingError(Server{code, std::move(message)});
}

NetworkingError NetworkingError::connectionError(platform::ErrorPtr underlying)
{
    return NetworkingError(Connection{std::move(underlying)});
}

NetworkingError NetworkingError::livenessConnectionError() { return NetworkingError(LivenessConnection{}); }

NetworkingError NetworkingError::livenessQualityError(std::optional<QString> message)
{
    return NetworkingError(Quality{std::move(message)});
}

int NetworkingError::serverCode() const
{
    const auto* server = std::get_if<Server>(&payload_);
    return server ? server->code : 0;
}

QString NetworkingError::serverMessage() const
{
    const auto* server = std::get_if<Server>(&payload_);
    return server ? server->message : QString();
}

platform::ErrorPtr NetworkingError::underlyingError() const
{
    const auto* connection = std::get_if<Connection>(&payload_);
    return connection ? connection->underlying : nullptr;
}

std::optional<QString> NetworkingError::qualityMessage() const
{
    const auto* quality = std::get_if<Quality>(&payload_);
    return quality ? quality->message : std::nullopt;
}

std::optional<QString> NetworkingError::errorDescription() const
{
    switch (kind()) {
    case Kind::ZavoError: {
        const QString message = serverMessage();
        return message.isEmpty() ? std::nullopt : std::optional<QString>(message);
    }
    case Kind::ConnectionError: {
        const auto underlying = underlyingError();
        return underlying ? underlying->localizedDescription() : zavoWebBundle().localizedString(QStringLiteral("errors.connection"));
    }
    case Kind::LivenessConnectionError:
        return zavoWebBundle().localizedString(QStringLiteral("errors.liveness_connection"));
    case Kind::LivenessQualityError: {
        auto message = qualityMessage();
        return (message && !message->isEmpty()) ? message : std::nullopt;
    }
    }
    return std::nullopt;
}

}  // namespace zavo::web
