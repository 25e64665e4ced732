#pragma once

#include <QObject>
#include <QString>
#include <QStringList>
#include <memory>

class QLocalServer;

namespace mossly {

// One Mossly per user. The first one listens on a socket in the user's runtime
// folder; a second launch hands it the files it was asked to open and ends.
class SingleInstance : public QObject {
    Q_OBJECT
public:
    // The socket every Mossly of this user meets at.
    static QString socketPath();
    // Gives `files` to the Mossly already running; false when none is listening.
    static bool handOver(const QStringList& files, int timeoutMs = 2000);

    explicit SingleInstance(QObject* parent = nullptr);
    ~SingleInstance() override;
    bool isListening() const;

signals:
    void filesReceived(const QStringList& files);

private:
    void accept();
    std::unique_ptr<QLocalServer> server_;
};

}  // namespace mossly
