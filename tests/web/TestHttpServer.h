#pragma once

#include <QByteArray>
#include <QHash>
#include <QMutex>
#include <QString>
#include <atomic>
#include <chrono>
#include <functional>
#include <thread>

namespace mossly::test {

// A tiny HTTP/1.1 server on 127.0.0.1 for the link tests: each request is
// answered by a handler with scripted status, headers, body and pacing. One
// connection at a time; it stops with the object.
class TestHttpServer {
public:
    struct Request {
        QString path;
        QByteArray headers;  // the raw header block
    };
    struct Response {
        int status = 200;
        QByteArray contentType = "text/html; charset=utf-8";
        QByteArray body;
        QByteArray extraHeaders;  // "Location: /x\r\n" …
        bool declareLength = true;  // else the body is sent chunked
        std::chrono::milliseconds chunkDelay{0};
        int chunkSize = 4096;
        qsizetype cutAfterBytes = -1;  // hang up after this much of the body (a dropped connection)
    };
    using Handler = std::function<Response(const Request&)>;

    explicit TestHttpServer(Handler handler);
    ~TestHttpServer();

    int port() const { return port_; }
    int requestCount(const QString& path) const;
    QByteArray lastHeaders(const QString& path) const;

private:
    void serve();
    void answer(int connection);

    Handler handler_;
    int listener_ = -1;
    int port_ = 0;
    std::atomic<bool> stopping_{false};
    mutable QMutex mutex_;
    QHash<QString, int> counts_;
    QHash<QString, QByteArray> headers_;
    std::thread thread_;
};

}  // namespace mossly::test
