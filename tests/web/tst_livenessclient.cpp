// The HTTP liveness client against a local server with canned answers.
#include "CannedHttpServer.h"
#include "zavoweb/NetworkingError.h"
#include "zavoweb/ZWLivenessClient.h"

#include <QBuffer>
#include <QImageReader>
#include <QMutex>
#include <QTest>
#include <QThread>

using namespace zavo;
using web::NetworkingError;
using web::ZWLivenessClient;

namespace {

// Runs one check and waits for its result.
struct Check {
    QMutex mutex;
    std::optional<ZWLivenessClient::Result> result;
    QThread* thread = nullptr;

    std::optional<ZWLivenessClient::Result> taken()
    {
        QMutexLocker lock(&mutex);
        return result;
    }
};

QImage face()
{
    QImage image(64, 48, QImage::Format_RGB32);
    image.fill(qRgb(180, 120, 90));
    return image;
}

std::shared_ptr<Check> start(ZWLivenessClient& client, const QImage& image = face())
{
    auto check = std::make_shared<Check>();
    client.check(image, [check](const ZWLivenessClient::Result& result) {
        QMutexLocker lock(&check->mutex);
        check->result = result;
        check->thread = QThread::currentThread();
    });
    return check;
}

const NetworkingError* networking(const ZWLivenessClient::Result& result)
{
    return dynamic_cast<const NetworkingError*>(result.error.get());
}

}  // namespace

class TestLivenessClient : public QObject {
    Q_OBJECT

private slots:
    void sendsTheFaceAsJpeg()
    {
        testing::CannedHttpServer server;
        server.answer(200, R"({"live": true})");
        ZWLivenessClient client({server.url(), std::chrono::seconds(5)});
        auto check = start(client);
        QTRY_VERIFY(check->taken());
        QCOMPARE(server.requests().size(), 1);
        const auto request = server.requests().front();
        QVERIFY(request.head.startsWith("POST /liveness HTTP/1.1"));
        QVERIFY(request.head.toLower().contains("content-type: image/jpeg"));
        QBuffer body(const_cast<QByteArray*>(&request.body));
        QImageReader reader(&body, "JPEG");
        QCOMPARE(reader.read().size(), QSize(64, 48));
        // Completions come on the client's own thread, not the caller's.
        QVERIFY(check->thread != QThread::currentThread());
    }

    void turnsAnswersIntoResults_data()
    {
        QTest::addColumn<int>("status");
        QTest::addColumn<QByteArray>("body");
        QTest::addColumn<int>("kind");  // -1: no error
        QTest::addColumn<bool>("live");
        QTest::addColumn<int>("serverCode");
        QTest::addColumn<QString>("text");
        QTest::newRow("live") << 200 << QByteArray(R"({"live": true})") << -1 << true << 0 << "";
        QTest::newRow("not live") << 200 << QByteArray(R"({"live": false, "message": "photo of a photo"})") << -1
                                  << false << 0 << "photo of a photo";
        QTest::newRow("quality") << 200 << QByteArray(R"({"quality_error": "Face too dark"})")
                                 << int(NetworkingError::Kind::LivenessQualityError) << false << 0 << "Face too dark";
        QTest::newRow("quality without text") << 200 << QByteArray(R"({"quality_error": ""})")
                                              << int(NetworkingError::Kind::LivenessQualityError) << false << 0 << "";
        QTest::newRow("server code") << 200 << QByteArray(R"({"code": 11038, "message": "Several faces"})")
                                     << int(NetworkingError::Kind::ZavoError) << false << 11038 << "Several faces";
        QTest::newRow("error status with code") << 422 << QByteArray(R"({"code": 11001, "message": "Bad picture"})")
                                                << int(NetworkingError::Kind::ZavoError) << false << 11001 << "Bad picture";
        QTest::newRow("error status without body") << 503 << QByteArray() << int(NetworkingError::Kind::ZavoError)
                                                   << false << 503 << "Service Unavailable";
        QTest::newRow("not our protocol") << 200 << QByteArray("<html>hello</html>")
                                          << int(NetworkingError::Kind::LivenessConnectionError) << false << 0 << "";
    }
    void turnsAnswersIntoResults()
    {
        QFETCH(int, status);
        QFETCH(QByteArray, body);
        QFETCH(int, kind);
        QFETCH(bool, live);
        QFETCH(int, serverCode);
        QFETCH(QString, text);
        testing::CannedHttpServer server;
        server.answer(status, body, status == 503 ? "Service Unavailable" : status == 422 ? "Unprocessable" : "OK");
        if (kind == int(NetworkingError::Kind::LivenessConnectionError))
            QTest::ignoreMessage(QtWarningMsg, QRegularExpression("liveness server sent an answer without a verdict"));
        ZWLivenessClient client({server.url(), std::chrono::seconds(5)});
        auto check = start(client);
        QTRY_VERIFY(check->taken());
        const auto result = *check->taken();
        if (kind < 0) {
            QVERIFY(!result.error);
            QCOMPARE(result.live, live);
            QCOMPARE(result.message, text);
            return;
        }
        const NetworkingError* error = networking(result);
        QVERIFY(error);
        QCOMPARE(int(error->kind()), kind);
        QCOMPARE(error->serverCode(), serverCode);
        if (error->kind() == NetworkingError::Kind::LivenessQualityError)
            QCOMPARE(error->errorDescription().value_or(QString()), text);
        if (error->kind() == NetworkingError::Kind::ZavoError)
            QCOMPARE(error->serverMessage(), text);
    }

    void aSilentServerTimesOut()
    {
        testing::CannedHttpServer server;
        server.stayMute();
        ZWLivenessClient client({server.url(), std::chrono::milliseconds(300)});
        auto check = start(client);
        QTRY_VERIFY(check->taken());
        const NetworkingError* error = networking(*check->taken());
        QVERIFY(error);
        QCOMPARE(error->kind(), NetworkingError::Kind::ConnectionError);
        QCOMPARE(error->underlyingError()->domain(), web::kZWTransportErrorDomain);
    }

    void anUnreachableServerIsAConnectionError()
    {
        QUrl url;
        {
            testing::CannedHttpServer closed;
            url = closed.url();
        }
        ZWLivenessClient client({url, std::chrono::seconds(5)});
        auto check = start(client);
        QTRY_VERIFY(check->taken());
        const NetworkingError* error = networking(*check->taken());
        QVERIFY(error);
        QCOMPARE(error->kind(), NetworkingError::Kind::ConnectionError);
        QVERIFY(error->errorDescription().has_value());
    }

    void destroyingAbortsQuietly()
    {
        testing::CannedHttpServer server;
        server.stayMute();
        std::shared_ptr<Check> check;
        {
            ZWLivenessClient client({server.url(), std::chrono::seconds(30)});
            check = start(client);
            QTRY_COMPARE(server.requests().size(), 1);
        }
        QVERIFY(!check->taken());
    }
};

QTEST_GUILESS_MAIN(TestLivenessClient)
#include "tst_livenessclient.moc"
