#include "SingleInstance.h"

#include <QDir>
#include <QJsonArray>
#include <QJsonDocument>
#include <QLocalServer>
#include <QLocalSocket>
#include <QStandardPaths>

#include "Diagnostics.h"

namespace mossly {

QString SingleInstance::socketPath() {
    QString folder = QStandardPaths::writableLocation(QStandardPaths::RuntimeLocation);
    if (folder.isEmpty()) folder = QDir::tempPath();
    return folder + QStringLiteral("/com.bellam.notes.instance");
}

bool SingleInstance::handOver(const QStringList& files, int timeoutMs) {
    QLocalSocket socket;
    socket.connectToServer(socketPath());
    if (!socket.waitForConnected(timeoutMs)) return false;
    socket.write(QJsonDocument(QJsonArray::fromStringList(files)).toJson(QJsonDocument::Compact) + '\n');
    if (!socket.waitForBytesWritten(timeoutMs)) return false;
    // The list is in the running Mossly's socket: it reads it as soon as it is free (it may be busy
    // saving), so a slow answer is no reason to start a second Mossly on the same notes.
    (void)socket.waitForReadyRead(timeoutMs);
    return true;
}

SingleInstance::SingleInstance(QObject* parent) : QObject(parent), server_(std::make_unique<QLocalServer>()) {
    server_->setSocketOptions(QLocalServer::UserAccessOption);
    const QString path = socketPath();
    if (!server_->listen(path)) {
        // A socket left by a Mossly that crashed answers nobody: take its place.
        QLocalSocket probe;
        probe.connectToServer(path);
        if (!probe.waitForConnected(500)) {
            QLocalServer::removeServer(path);
            server_->listen(path);
        }
    }
    if (!server_->isListening()) {
        DiagnosticsCenter::shared().event(QStringLiteral("Instance socket not opened"),
                                          {{"reason", server_->errorString()}});
    }
    connect(server_.get(), &QLocalServer::newConnection, this, &SingleInstance::accept);
}

SingleInstance::~SingleInstance() = default;

bool SingleInstance::isListening() const { return server_->isListening(); }

void SingleInstance::accept() {
    while (QLocalSocket* socket = server_->nextPendingConnection()) {
        connect(socket, &QLocalSocket::disconnected, socket, &QObject::deleteLater);
        connect(socket, &QLocalSocket::readyRead, this, [this, socket] {
            if (!socket->canReadLine()) return;
            const QJsonDocument request = QJsonDocument::fromJson(socket->readLine());
            socket->write("ok\n");
            socket->flush();
            QStringList files;
            for (const QJsonValue& file : request.array()) {
                if (file.isString()) files.append(file.toString());
            }
            emit filesReceived(files);
        });
    }
}

}  // namespace mossly
