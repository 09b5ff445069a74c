#pragma once
// A local HTTP server with one canned answer, for the liveness client: it
// reads each whole request, keeps it, and answers (or, if told, never does).
#include <QByteArray>
#include <QHash>
#include <QHostAddress>
#include <QList>
#include <QTcpServer>
#include <QTcpSocket>
#include <QUrl>

namespace zavo::testing {

class CannedHttpServer : public QObject {
public:
    struct Request {
        QByteArray head;
        QByteArray body;
    };

    CannedHttpServer()
    {
        server_.listen(QHostAddress::LocalHost);
        connect(&server_, &QTcpServer::newConnection, this, [this] {
            while (QTcpSocket* socket = server_.nextPendingConnection())
                connect(socket, &QTcpSocket::readyRead, this, [this, socket] { read(socket); });
        });
    }

    QUrl url() const { return QUrl(QStringLiteral("http://127.0.0.1:%1/liveness").arg(server_.serverPort())); }

    /// Answers every request with this status and body (JSON).
    void answer(int status, const QByteArray& body, const QByteArray& reason = "OK")
    {
        response_ = "HTTP/1.1 " + QByteArray::number(status) + ' ' + reason
            + "\r\nContent-Type: application/json\r\nConnection: close\r\nContent-Length: "
            + QByteArray::number(body.size()) + "\r\n\r\n" + body;
    }
    /// Reads requests but never answers.
    void stayMute() { response_.clear(); }

    QList<Request> requests() const { return requests_; }

private:
    void read(QTcpSocket* socket)
    {
        QByteArray& buffer = pending_[socket];
        buffer += socket->readAll();
        const qsizetype headEnd = buffer.indexOf("\r\n\r\n");
        if (headEnd < 0)
            return;
        const QByteArray head = buffer.left(headEnd);
        qsizetype length = 0;
        for (const QByteArray& line : head.split('\n')) {
            if (line.toLower().startsWith("content-length:"))
                length = line.mid(15).trimmed().toLongLong();
        }
        if (buffer.size() < headEnd + 4 + length)
            return;
        requests_.append({head, buffer.mid(headEnd + 4, length)});
        pending_.remove(socket);
        if (response_.isEmpty())
            return;
        socket->write(response_);
        socket->disconnectFromHost();
    }

    QTcpServer server_;
    QByteArray response_;
    QHash<QTcpSocket*, QByteArray> pending_;
    QList<Request> requests_;
};

}  // namespace zavo::testing
