#pragma once

#include <QJsonDocument>
#include <QProcess>
#include <QString>
#include <memory>

namespace mossly::test {

// One Syncthing instance of the pair: its own home, notes folder and ports,
// all on 127.0.0.1.
struct SyncthingDevice {
    QString name;
    QString home;
    QString notes;
    QString id;
    int listenPort = 0;
    int guiPort = 0;
    std::unique_ptr<QProcess> process;
};

// Two real Syncthing instances on this machine sharing one folder, "notes":
// private homes, no discovery, relays, NAT traversal or usage reporting, A
// dialling B (two sides dialling each other at once can stall). Driven through
// Syncthing's REST API.
class SyncthingPair {
public:
    static inline const QString apiKey = QStringLiteral("mossly-sync-test");

    // Makes both homes and notes folders under `root` (each notes folder
    // already marked with ".stfolder"). Empty on success, else why not.
    QString prepare(const QString& root);
    // Starts both. Empty on success, else why not.
    QString start();
    // Waits until the two are connected; what went wrong if they are not.
    QString connect();
    ~SyncthingPair();

    SyncthingDevice a;
    SyncthingDevice b;

    QJsonDocument get(const SyncthingDevice& device, const QString& path, int* status = nullptr) const;
    bool send(const SyncthingDevice& device, const QByteArray& verb, const QString& path,
              const QByteArray& body = {}) const;
    bool connected() const;
    // Pauses or resumes A's connection to B: the two machines are apart, then together again.
    bool setApart(bool apart) const;
    bool scan(const SyncthingDevice& device) const;
    // Whether Syncthing knows `file` in the folder at all: a file that never travelled is unknown (404).
    bool knowsFile(const SyncthingDevice& device, const QString& file) const;

private:
    void writeConfig(const SyncthingDevice& self, const SyncthingDevice& peer, bool dialsPeer) const;
};

}  // namespace mossly::test
