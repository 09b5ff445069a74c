#include "zavocore/ZCErrorCodes.h"

#include "zavocore/ZavoCore_p.h"

namespace zavo::core {

platform::ErrorObjectPtr makeZCError(ZCErrorCode code, const QString& messageKey)
{
    QVariantMap info;
    info.insert(QString::fromLatin1(platform::kLocalizedDescriptionKey), zc_localized(messageKey));
    info.insert(QString::fromLatin1(kZCMessageKeyInfoKey), messageKey);
    return std::make_shared<platform::ErrorObject>(kZCErrorDomain, static_cast<long>(code), std::move(info));
}

platform::ErrorObjectPtr makeZCError(ZCErrorCode code, const QString& messageKey, const QString& reasonKey)
{
    if (reasonKey.isEmpty())
        return makeZCError(code, messageKey);
    QVariantMap info;
    info.insert(QString::fromLatin1(platform::kLocalizedDescriptionKey),
                zc_localized(messageKey) + QLatin1Char(' ') + zc_localized(reasonKey));
    info.insert(QString::fromLatin1(kZCMessageKeyInfoKey), messageKey);
    info.insert(QString::fromLatin1(kZCLastGuidanceInfoKey), reasonKey);
    return std::make_shared<platform::ErrorObject>(kZCErrorDomain, static_cast<long>(code), std::move(info));
}

}  // namespace zavo::core
