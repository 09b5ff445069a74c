#include "base/Error.h"

namespace zavo::platform {

QVariantMap Error::userInfo() const
{
    QVariantMap info;
    if (auto description = errorDescription())
        info.insert(kLocalizedDescriptionKey, *description);
    return info;
}

QString Error::localizedDescription() const
{
    return errorDescription().value_or(genericErrorDescription(domain(), code()));
}

QString genericErrorDescription(const QString& domain, long code)
{
    return QStringLiteral("The operation couldn’t be completed. (%1 error %2.)").arg(domain).arg(code);
}

ErrorObject::ErrorObject(QString domain, long code, QVariantMap userInfo)
    : domain_(std::move(domain)), code_(code), userInfo_(std::move(userInfo))
{
}

std::shared_ptr<const ErrorObject> ErrorObject::bridge(const ErrorPtr& error)
{
    if (!error)
        return nullptr;
    if (auto object = std::dynamic_pointer_cast<const ErrorObject>(error))
        return object;
    auto bridged = std::make_shared<ErrorObject>(error->domain(), error->code(), error->userInfo());
    bridged->userInfo_.insert(kLocalizedDescriptionKey, error->localizedDescription());
    bridged->underlying_ = error;
    return bridged;
}

std::optional<QString> ErrorObject::errorDescription() const
{
    const auto it = userInfo_.constFind(kLocalizedDescriptionKey);
    if (it == userInfo_.constEnd())
        return std::nullopt;
    return it->toString();
}

}  // namespace zavo::platform
