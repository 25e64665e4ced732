#include "TestHttpServer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace mossly::test {

TestHttpServer::TestHttpServer(Handler handler) : handler_(std::move(handler)) {
    listener_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int yes = 1;
    ::setsockopt(listener_, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);  // loopback only
    ::bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof address);
    ::listen(listener_, 16);
    socklen_t length = sizeof address;
    ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length);
    port_ = ntohs(address.sin_port);
    thread_ = std::thread([this] { serve(); });
}

TestHttpServer::~TestHttpServer() {
    stopping_ = true;
    ::shutdown(listener_, SHUT_RDWR);
    thread_.join();
    ::close(listener_);
}

int TestHttpServer::requestCount(const QString& path) const {
    QMutexLocker lock(&mutex_);
    return counts_.value(path);
}

QByteArray TestHttpServer::lastHeaders(const QString& path) const {
    QMutexLocker lock(&mutex_);
    return headers_.value(path);
}

void TestHttpServer::serve() {
    while (!stopping_) {
        pollfd waiting{listener_, POLLIN, 0};
        if (::poll(&waiting, 1, 50) <= 0) continue;
        const int connection = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
        if (connection < 0) continue;
        answer(connection);
        ::close(connection);
    }
}

void TestHttpServer::answer(int connection) {
    QByteArray request;
    char buffer[4096];
    while (!request.contains("\r\n\r\n")) {
        pollfd readable{connection, POLLIN, 0};
        if (::poll(&readable, 1, 2000) <= 0) return;
        const ssize_t got = ::recv(connection, buffer, sizeof buffer, 0);
        if (got <= 0) return;
        request.append(buffer, got);
    }
    const QByteArray line = request.left(request.indexOf("\r\n"));
    const QString path = QString::fromLatin1(line.split(' ').value(1));
    {
        QMutexLocker lock(&mutex_);
        ++counts_[path];
        headers_.insert(path, request.left(request.indexOf("\r\n\r\n")));
    }
    const Response response = handler_({path, request});
    QByteArray head = "HTTP/1.1 " + QByteArray::number(response.status) + " Test\r\n";
    if (!response.contentType.isEmpty()) head += "Content-Type: " + response.contentType + "\r\n";
    head += response.extraHeaders;
    head += response.declareLength ? "Content-Length: " + QByteArray::number(response.body.size()) + "\r\n"
                                   : QByteArray("Transfer-Encoding: chunked\r\n");
    head += "Connection: close\r\n\r\n";
    const auto send = [&](const QByteArray& bytes) {
        return ::send(connection, bytes.constData(), bytes.size(), MSG_NOSIGNAL) == bytes.size();
    };
    if (!send(head)) return;
    if (response.cutAfterBytes >= 0) {
        send(response.body.left(response.cutAfterBytes));
        return;
    }
    for (qsizetype at = 0; at < response.body.size() && !stopping_; at += response.chunkSize) {
        if (response.chunkDelay.count() > 0) std::this_thread::sleep_for(response.chunkDelay);
        const QByteArray chunk = response.body.mid(at, response.chunkSize);
        const QByteArray framed = response.declareLength
                                      ? chunk
                                      : QByteArray::number(chunk.size(), 16) + "\r\n" + chunk + "\r\n";
        if (!send(framed)) return;  // the client hung up (a limit was crossed)
    }
    if (!response.declareLength) send("0\r\n\r\n");
}

}  // namespace mossly::test
