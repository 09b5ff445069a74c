#include "zavoweb/ZWLivenessClient.h"
#include "zavoweb/ZWLivenessClient_p.h"

#include "base/Log_p.h"
#include "zavoweb/NetworkingError.h"
#include "base/ThreadSafety.h"

#include <QBuffer>
#include <QJsonDocument>
#include <QJsonObject>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QThread>
#include <deque>
#include <mutex>

namespace zavo::web {

namespace {

using Result = ZWLivenessClient::Result;

Result failure(NetworkingError error)
{
    Result result;
    result.error = std::make_shared<NetworkingError>(std::move(error));
    return result;
}

Result transportFailure(long code, const QString& description)
{
    QVariantMap info;
    info.insert(platform::kLocalizedDescriptionKey, description);
    return failure(NetworkingError::connectionError(
        std::make_shared<platform::ErrorObject>(kZWTransportErrorDomain, code, info)));
}

// Reads the server's JSON object; null when the body is not one.
std::optional<QJsonObject> jsonObject(const QByteArray& body)
{
    QJsonParseError parseError;
    const QJsonDocument document = QJsonDocument::fromJson(body, &parseError);
    if (parseError.error != QJsonParseError::NoError || !document.isObject())
        return std::nullopt;
    return document.object();
}

std::optional<Result> serverError(const QJsonObject& object)
{
    if (object.contains(QLatin1String("quality_error"))) {
        const QString text = object.value(QLatin1String("quality_error")).toString();
        return failure(NetworkingError::livenessQualityError(text.isEmpty() ? std::nullopt : std::optional(text)));
    }
    if (object.value(QLatin1String("code")).isDouble()) {
        return failure(NetworkingError::zavoError(object.value(QLatin1String("code")).toInt(),
                                                  object.value(QLatin1String("message")).toString()));
    }
    return std::nullopt;
}

/// What the reply brought; the body is read only from an HTTP answer.
LivenessAnswer answerOf(QNetworkReply& reply)
{
    LivenessAnswer answer;
    answer.transportError = reply.error();
    answer.transportErrorString = reply.errorString();
    const QVariant status = reply.attribute(QNetworkRequest::HttpStatusCodeAttribute);
    if (status.isValid()) {
        answer.httpStatus = status.toInt();
        answer.reasonPhrase = reply.attribute(QNetworkRequest::HttpReasonPhraseAttribute).toString();
        answer.body = reply.readAll();
    }
    return answer;
}

}  // namespace

Result resultOfAnswer(const LivenessAnswer& answer)
{
    if (!answer.httpStatus) {
        // No HTTP answer at all: refused, unreachable, timed out, aborted.
        return transportFailure(answer.transportError, answer.transportErrorString);
    }
    const QByteArray& body = answer.body;
    const std::optional<QJsonObject> object = jsonObject(body);
    if (object) {
        if (auto error = serverError(*object))
            return *error;
    }
    const int httpStatus = *answer.httpStatus;
    if (httpStatus < 200 || httpStatus >= 300)
        return failure(NetworkingError::zavoError(httpStatus, answer.reasonPhrase));
    if (!object || !object->value(QLatin1String("live")).isBool()) {
        qCWarning(platform::lcWebLiveness) << "liveness server sent an answer without a verdict:" << body.left(200);
        return failure(NetworkingError::livenessConnectionError());
    }
    Result result;
    result.live = object->value(QLatin1String("live")).toBool();
    result.message = object->value(QLatin1String("message")).toString();
    return result;
}

// Lives on the client's network thread: the access manager and its replies
// belong to that thread's event loop.
class ZWLivenessClient::Session final : public QObject {
    Q_OBJECT
public:
    explicit Session(const Settings& settings) : settings_(settings) {}

    ~Session() override
    {
        // Checks still running are dropped: their requester is going away.
        for (QNetworkReply* reply : findChildren<QNetworkReply*>()) {
            reply->disconnect(this);
            reply->abort();
        }
        MutexLocker lock(inboxMutex_);
        inbox_.clear();
    }

    /// Any thread. The request crosses threads under our own mutex rather
    /// than inside a queued functor: Qt's event queue hands it over with
    /// locks a thread checker cannot see, ours it can.
    void enqueue(const QImage& image, Completion completion)
    {
        // Posting under the lock only queues an event, it never waits; it
        // orders this thread's last touch of the session before the session's
        // destructor, which takes the same lock on the network thread.
        MutexLocker lock(inboxMutex_);
        inbox_.push_back({image, std::move(completion)});
        QMetaObject::invokeMethod(this, "sendPending", Qt::QueuedConnection);
    }

    Q_INVOKABLE void sendPending()
    {
        std::deque<Request> requests;
        {
            MutexLocker lock(inboxMutex_);
            requests.swap(inbox_);
        }
        for (Request& request : requests)
            send(request.image, request.completion);
    }

    void send(const QImage& image, const Completion& completion)
    {
        QByteArray jpeg;
        QBuffer buffer(&jpeg);
        if (image.isNull() || !buffer.open(QIODevice::WriteOnly)
            || !image.save(&buffer, "JPEG", settings_.jpegQuality)) {
            completion(transportFailure(-1, QStringLiteral("The picture could not be encoded.")));
            return;
        }
        if (!network_)
            network_ = new QNetworkAccessManager(this);
        QNetworkRequest request(settings_.url);
        request.setHeader(QNetworkRequest::ContentTypeHeader, QStringLiteral("image/jpeg"));
        request.setRawHeader("Accept", "application/json");
        request.setTransferTimeout(static_cast<int>(settings_.timeout.count()));
        QNetworkReply* reply = network_->post(request, jpeg);
        connect(reply, &QNetworkReply::finished, this, [reply, completion] {
            const Result result = resultOfAnswer(answerOf(*reply));
            reply->deleteLater();
            if (result.error)
                qCInfo(platform::lcWebLiveness) << "liveness check failed:" << result.error->localizedDescription();
            completion(result);
        });
    }

private:
    struct Request {
        QImage image;
        Completion completion;
    };

    Settings settings_;
    QNetworkAccessManager* network_ = nullptr;  // child of this session
    Mutex inboxMutex_;
    std::deque<Request> inbox_ ZAVO_GUARDED_BY(inboxMutex_);
};

ZWLivenessClient::ZWLivenessClient(Settings settings) : settings_(std::move(settings)), thread_(std::make_unique<QThread>())
{
    thread_->setObjectName(QStringLiteral("ZWLivenessClient"));
    session_ = new Session(settings_);
    session_->moveToThread(thread_.get());
    thread_->start();
}

ZWLivenessClient::~ZWLivenessClient()
{
    if (QThread::currentThread() == thread_.get()) {
        // Released from its own completion: the thread cannot wait for
        // itself. It ends when this completion returns and is deleted by the
        // event loop of the thread that made it.
        delete session_;
        QThread* thread = thread_.release();
        QObject::connect(thread, &QThread::finished, thread, &QObject::deleteLater);
        thread->quit();
        return;
    }
    // A deferred delete is carried out when the thread finishes, on that
    // thread, as the access manager requires.
    session_->deleteLater();
    thread_->quit();
    thread_->wait();
}

void ZWLivenessClient::check(const QImage& image, Completion completion)
{
    session_->enqueue(image, std::move(completion));
}

}  // namespace zavo::web

#include "ZWLivenessClient.moc"
