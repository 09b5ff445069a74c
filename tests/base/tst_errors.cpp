// Error bridging, the camera error's codes and messages, and networking
// errors' descriptions.
#include "resources/ZMBundleLink_p.h"
#include "camera-screen/ZMCameraError.h"
#include "camera-screen/ZMCameraError_p.h"
#include "camera/CaptureDevice_p.h"
#include "zavocore/ZavoCore_p.h"
#include "zavoweb/NetworkingError.h"

#include <QSet>
#include <QtTest>

using namespace zavo;
using namespace zavo::platform;
using web::NetworkingError;

namespace {
QString text(const char* key) { return ZMBundleLink::bundle().localizedString(QLatin1String(key)); }
}  // namespace

class TstErrors : public QObject {
    Q_OBJECT

private slots:
    void bridgingKeepsTheOriginalErrorReachable()
    {
        ErrorPtr networking = std::make_shared<NetworkingError>(NetworkingError::zavoError(11038, QStringLiteral("two")));
        auto bridged = ErrorObject::bridge(networking);
        QCOMPARE(bridged->domain(), QStringLiteral("ZavoWeb.NetworkingError"));
        QCOMPARE(bridged->code(), 0L);
        QCOMPARE(bridged->localizedDescription(), QStringLiteral("two"));
        const auto* back = errorCast<NetworkingError>(bridged.get());
        QVERIFY(back);
        QCOMPARE(back->serverCode(), 11038);
        // Bridging an error object again gives the same object.
        QCOMPARE(ErrorObject::bridge(bridged), bridged);
        QVERIFY(!errorCast<ZMCameraError>(bridged.get()));
    }

    void errorObjectsWithoutADescriptionUseTheGenericOne()
    {
        ErrorObject plain(QStringLiteral("com.example"), 7);
        QCOMPARE(plain.localizedDescription(), genericErrorDescription(QStringLiteral("com.example"), 7));
        QVERIFY(plain.localizedDescription().contains(QStringLiteral("com.example error 7")));
        ErrorObject described(QStringLiteral("com.example"), 7, {{kLocalizedDescriptionKey, QStringLiteral("Boom")}});
        QCOMPARE(described.localizedDescription(), QStringLiteral("Boom"));
    }

    void cameraErrorCasesHaveTheirCodesAndMessages()
    {
        QCOMPARE(ZMCameraError::accessStatus(AuthorizationStatus::Denied).code(), 0L);
        QCOMPARE(ZMCameraError::networkingError(NetworkingError::livenessConnectionError()).code(), 1L);
        QCOMPARE(ZMCameraError::canceled().code(), 4L);
        QCOMPARE(ZMCameraError::canceled().domain(), QStringLiteral("ZavoCamera.ZMCameraError"));
        QCOMPARE(ZMCameraError::canceled().localizedDescription(), text("errors.canceled"));
        QVERIFY(text("errors.canceled") != QStringLiteral("errors.canceled"));

        // Only "restricted" has its own text; every other status reads as denied.
        const QString restricted = text("errors.camera_acess_restricted");
        const QString denied = text("errors.camera_acess_denied");
        QVERIFY(restricted != denied);
        QCOMPARE(*ZMCameraError::accessStatus(AuthorizationStatus::Restricted).errorDescription(), restricted);
        for (auto status : {AuthorizationStatus::Denied, AuthorizationStatus::NotDetermined, AuthorizationStatus::Authorized})
            QCOMPARE(*ZMCameraError::accessStatus(status).errorDescription(), denied);

        // Bridged, the code is the case's whatever the payload.
        auto bridged = ErrorObject::bridge(std::make_shared<ZMCameraError>(ZMCameraError::accessStatus(AuthorizationStatus::Restricted)));
        QCOMPARE(bridged->code(), 0L);
        QCOMPARE(bridged->localizedDescription(), restricted);
    }

    void cameraFailuresSayWhatTheUserCanDo()
    {
        // A refusal with a known cause reads as that cause; its case, code
        // and status stay what they were.
        const auto portal = ZMCameraError::accessStatus(AuthorizationStatus::Denied, CameraFailureReason::PortalRefused);
        QCOMPARE(portal.code(), 0L);
        QCOMPARE(portal.authorizationStatus(), AuthorizationStatus::Denied);
        QCOMPARE(portal.cameraFailureReason(), CameraFailureReason::PortalRefused);
        QCOMPARE(*portal.errorDescription(), text("errors.camera_portal_refused"));
        QCOMPARE(*ZMCameraError::accessStatus(AuthorizationStatus::Denied, CameraFailureReason::NoPermission).errorDescription(),
                 text("errors.camera_no_permission"));

        // The camera's 1004: each reason in words of its own, readable by
        // code on the error the host gets.
        QSet<QString> texts;
        for (auto reason : {CameraFailureReason::Busy, CameraFailureReason::NoPermission, CameraFailureReason::PortalRefused,
                            CameraFailureReason::Unplugged, CameraFailureReason::NoBandwidth, CameraFailureReason::NoPictures}) {
            const ZMCameraError error = cameraErrorFromDetector(cameraFailureError(reason));
            QCOMPARE(error.kind(), ZMCameraError::Case::bestShotError);
            QCOMPARE(error.bestShotErrorValue()->code(), 1004L);
            QCOMPARE(error.cameraFailureReason(), reason);
            const QString message = *error.errorDescription();
            QVERIFY2(!message.startsWith(QLatin1String("errors.")), qPrintable(message));
            texts.insert(message);
        }
        QCOMPARE(texts.size(), 6);
        // Without a cause, today's "no frames".
        const ZMCameraError plain = cameraErrorFromDetector(cameraFailureError(CameraFailureReason::None));
        QCOMPARE(plain.cameraFailureReason(), CameraFailureReason::None);
        QCOMPARE(*plain.errorDescription(), core::zc_localized(QStringLiteral("errors.no_frames")));

        // A capture error handed on whole keeps its cause; other cases have none.
        QCOMPARE(ZMCameraError::error(makeCaptureError(CaptureErrorCode::DeviceBusy, QStringLiteral("busy"),
                                                       CameraFailureReason::Busy))
                     .cameraFailureReason(),
                 CameraFailureReason::Busy);
        QCOMPARE(ZMCameraError::canceled().cameraFailureReason(), CameraFailureReason::None);
        QCOMPARE(ZMCameraError::accessStatus(AuthorizationStatus::Restricted).cameraFailureReason(), CameraFailureReason::None);
    }

    void detectorErrorsNeedTheExactCoreDomain()
    {
        auto core = std::make_shared<ErrorObject>(core::kZCErrorDomain, 1022,
                                                  QVariantMap{{kLocalizedDescriptionKey, QStringLiteral("No face")}});
        const ZMCameraError fromCore = cameraErrorFromDetector(core);
        QCOMPARE(fromCore.kind(), ZMCameraError::Case::bestShotError);
        QCOMPARE(fromCore.bestShotErrorValue(), core);
        QCOMPARE(*fromCore.errorDescription(), QStringLiteral("No face"));

        for (const QString& domain : {core::kZCErrorDomain.toUpper(), core::kZCErrorDomain + QStringLiteral(".x"), QString()}) {
            const ZMCameraError other = cameraErrorFromDetector(std::make_shared<ErrorObject>(domain, 1022));
            QCOMPARE(other.kind(), ZMCameraError::Case::error);
            QCOMPARE(other.code(), 3L);
        }
    }

    void wrappedErrorsDescribeThemselves()
    {
        // A camera error inside a camera error speaks with its own message.
        auto inner = std::make_shared<ZMCameraError>(ZMCameraError::canceled());
        QCOMPARE(*ZMCameraError::error(inner).errorDescription(), text("errors.canceled"));
        // A plain error object without a text falls back to the generic one.
        auto plain = std::make_shared<ErrorObject>(QStringLiteral("com.example"), 3);
        QCOMPARE(*ZMCameraError::error(plain).errorDescription(), plain->localizedDescription());
    }

    void networkingDescriptionsFallBackToTheGenericText()
    {
        // A quality error without the server's message has no description of
        // its own: the camera error falls back to the generic one, never "".
        const auto quiet = NetworkingError::livenessQualityError();
        QVERIFY(!quiet.errorDescription());
        const QString message = *ZMCameraError::networkingError(quiet).errorDescription();
        QVERIFY(!message.isEmpty());
        QCOMPARE(message, genericErrorDescription(QStringLiteral("ZavoWeb.NetworkingError"), 3));

        QCOMPARE(*NetworkingError::livenessQualityError(QStringLiteral("Too dark")).errorDescription(), QStringLiteral("Too dark"));
        QVERIFY(!NetworkingError::zavoError(5, QString()).errorDescription());
        const auto liveness = NetworkingError::livenessConnectionError();
        QVERIFY(liveness.errorDescription());
        QVERIFY(!liveness.errorDescription()->startsWith(QStringLiteral("errors.")));
        auto wrapped = NetworkingError::connectionError(std::make_shared<ErrorObject>(
            QStringLiteral("QtNetwork"), 99, QVariantMap{{kLocalizedDescriptionKey, QStringLiteral("Host unreachable")}}));
        QCOMPARE(*wrapped.errorDescription(), QStringLiteral("Host unreachable"));
        QCOMPARE(wrapped.code(), 1L);
    }

    void coreLookupHasItsOwnTable()
    {
        const QString multiple = core::zc_localized(QStringLiteral("errors.multiple_faces_detected"));
        QVERIFY(multiple != QStringLiteral("errors.multiple_faces_detected"));
        QCOMPARE(core::zc_localized(QStringLiteral("errors.unknown")), QStringLiteral("errors.unknown"));
    }
};

QTEST_GUILESS_MAIN(TstErrors)
#include "tst_errors.moc"
