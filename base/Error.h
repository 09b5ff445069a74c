#pragma once
// Errors as the component passes them around: a polymorphic Error base ("any
// error"), and ErrorObject, the domain/code/user-info record that every error
// can be bridged to. Errors are immutable once built and are shared as
// std::shared_ptr<const Error>.
#include "base/ZavoExport.h"
#include <QString>
#include <QVariantMap>
#include <memory>
#include <optional>

namespace zavo::platform {

/// User-info key of the localized description, as error objects carry it.
inline constexpr const char* kLocalizedDescriptionKey = "NSLocalizedDescription";

/// Base of every error type. Value types (such as ZMCameraError) derive from it
/// and stay copyable; box one with std::make_shared<T>(value) to share it.
class ZAVO_EXPORT Error {
public:
    virtual ~Error() = default;

    virtual QString domain() const = 0;
    virtual long code() const = 0;
    /// Localized-error conformance: a type that has a user-facing message
    /// returns it here. Absent means "use the generic description".
    virtual std::optional<QString> errorDescription() const { return std::nullopt; }
    virtual QVariantMap userInfo() const;
    /// errorDescription() when present, otherwise the generic text
    /// "The operation couldn’t be completed. (<domain> error <code>.)".
    virtual QString localizedDescription() const;

protected:
    Error() = default;
    Error(const Error&) = default;
    Error& operator=(const Error&) = default;
};

using ErrorPtr = std::shared_ptr<const Error>;

/// The generic description used for errors without a message of their own.
ZAVO_EXPORT QString genericErrorDescription(const QString& domain, long code);

/// A domain, an integer code and a user-info map. When an ErrorObject was
/// bridged from another error, underlying() is that error, so the original
/// type can be recovered with errorCast.
class ZAVO_EXPORT ErrorObject final : public Error {
public:
    ErrorObject(QString domain, long code, QVariantMap userInfo = {});

    /// Bridges any error: an ErrorObject is returned as it is; any other error
    /// becomes an ErrorObject with its domain, code and localized description
    /// that keeps the original as underlying().
    static std::shared_ptr<const ErrorObject> bridge(const ErrorPtr& error);

    QString domain() const override { return domain_; }
    long code() const override { return code_; }
    QVariantMap userInfo() const override { return userInfo_; }
    /// The user-info localized description when there is one.
    std::optional<QString> errorDescription() const override;
    ErrorPtr underlying() const { return underlying_; }

private:
    QString domain_;
    long code_;
    QVariantMap userInfo_;
    ErrorPtr underlying_;
};

using ErrorObjectPtr = std::shared_ptr<const ErrorObject>;

/// Reads an error as T, looking through a bridged ErrorObject to the error it
/// was made from. Returns null when the error is not a T.
template <typename T>
const T* errorCast(const Error* error)
{
    if (!error)
        return nullptr;
    if (auto* typed = dynamic_cast<const T*>(error))
        return typed;
    if (auto* object = dynamic_cast<const ErrorObject*>(error))
        return errorCast<T>(object->underlying().get());
    return nullptr;
}

}  // namespace zavo::platform
