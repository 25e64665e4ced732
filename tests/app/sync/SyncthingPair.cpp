#include "SyncthingPair.h"

#include <QDir>
#include <QEventLoop>
#include <QFile>
#include <QJsonObject>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QRegularExpression>
#include <QStandardPaths>
#include <QTcpServer>
#include <QThread>
#include <QTimer>
#include <QUrlQuery>

#include "AppTestSupport.h"

namespace mossly::test {

namespace {

int freePort() {
    QTcpServer server;
    if (!server.listen(QHostAddress::LocalHost, 0)) return 0;
    return server.serverPort();
}

}  // namespace

QString SyncthingPair::prepare(const QString& root) {
    const QString program = QStandardPaths::findExecutable(QStringLiteral("syncthing"));
    if (program.isEmpty()) return QStringLiteral("the syncthing program is not installed (Debian package syncthing)");
    for (SyncthingDevice* device : {&a, &b}) {
        device->name = device == &a ? QStringLiteral("A") : QStringLiteral("B");
        device->home = root + QStringLiteral("/home-") + device->name;
        device->notes = root + QStringLiteral("/notes-") + device->name;
        QDir().mkpath(device->notes);
        QFile marker(device->notes + QStringLiteral("/.stfolder"));
        if (!marker.open(QIODevice::WriteOnly)) return QStringLiteral("cannot write into ") + device->notes;
        QProcess generate;
        generate.start(program, {QStringLiteral("generate"), QStringLiteral("--home=") + device->home,
                                 QStringLiteral("--no-default-folder")});
        if (!generate.waitForFinished(30000) || generate.exitCode() != 0) {
            return QStringLiteral("syncthing generate failed: ") + QString::fromUtf8(generate.readAllStandardError());
        }
        QFile config(device->home + QStringLiteral("/config.xml"));
        if (!config.open(QIODevice::ReadOnly)) return QStringLiteral("syncthing generate wrote no config.xml");
        static const QRegularExpression deviceId(QStringLiteral(R"re(<device id="([A-Z0-9-]{63})")re"));
        const auto match = deviceId.match(QString::fromUtf8(config.readAll()));
        if (!match.hasMatch()) return QStringLiteral("no device ID in the generated config.xml");
        device->id = match.captured(1);
        device->listenPort = freePort();
        device->guiPort = freePort();
    }
    writeConfig(a, b, true);
    writeConfig(b, a, false);
    return {};
}

void SyncthingPair::writeConfig(const SyncthingDevice& self, const SyncthingDevice& peer, bool dialsPeer) const {
    // maxConflicts must be given: without it a hand-written folder means 0,
    // and Syncthing then drops the losing edit instead of keeping a copy.
    const QString xml = QStringLiteral(R"(<configuration version="36">
    <folder id="notes" label="notes" path="%1" type="sendreceive" rescanIntervalS="30" fsWatcherEnabled="true" fsWatcherDelayS="1" ignorePerms="false" autoNormalize="true">
        <filesystemType>basic</filesystemType>
        <device id="%2"></device>
        <device id="%3"></device>
        <minDiskFree unit="%">0</minDiskFree>
        <maxConflicts>-1</maxConflicts>
    </folder>
    <device id="%2" name="%4"><address>dynamic</address></device>
    <device id="%3" name="%5"><address>%6</address></device>
    <gui enabled="true" tls="false"><address>127.0.0.1:%7</address><apikey>%8</apikey></gui>
    <options>
        <listenAddress>tcp://127.0.0.1:%9</listenAddress>
        <globalAnnounceEnabled>false</globalAnnounceEnabled>
        <localAnnounceEnabled>false</localAnnounceEnabled>
        <relaysEnabled>false</relaysEnabled>
        <natEnabled>false</natEnabled>
        <urAccepted>-1</urAccepted>
        <startBrowser>false</startBrowser>
        <reconnectionIntervalS>5</reconnectionIntervalS>
        <crashReportingEnabled>false</crashReportingEnabled>
        <autoUpgradeIntervalH>0</autoUpgradeIntervalH>
        <minHomeDiskFree unit="%">0</minHomeDiskFree>
    </options>
</configuration>
)")
                            .arg(self.notes, self.id, peer.id, self.name, peer.name,
                                 dialsPeer ? QStringLiteral("tcp://127.0.0.1:%1").arg(peer.listenPort)
                                           : QStringLiteral("dynamic"))
                            .arg(self.guiPort)
                            .arg(apiKey)
                            .arg(self.listenPort);
    QFile file(self.home + QStringLiteral("/config.xml"));
    if (file.open(QIODevice::WriteOnly | QIODevice::Truncate)) file.write(xml.toUtf8());
}

QString SyncthingPair::start() {
    for (SyncthingDevice* device : {&b, &a}) {
        device->process = std::make_unique<QProcess>();
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(QStringLiteral("STNOUPGRADE"), QStringLiteral("1"));
        // No hashing benchmark at start: on a busy machine it delays the first connection by seconds.
        environment.insert(QStringLiteral("STHASHING"), QStringLiteral("standard"));
        device->process->setProcessEnvironment(environment);
        device->process->setProcessChannelMode(QProcess::MergedChannels);
        device->process->setStandardOutputFile(device->home + QStringLiteral("/syncthing.log"));
        device->process->start(QStandardPaths::findExecutable(QStringLiteral("syncthing")),
                               {QStringLiteral("serve"), QStringLiteral("--home=") + device->home,
                                QStringLiteral("--no-browser"), QStringLiteral("--no-restart")});
        if (!device->process->waitForStarted(10000)) return QStringLiteral("syncthing serve did not start");
    }
    return {};
}

QString SyncthingPair::connect() {
    // Generous: with every other test running beside it, a start can take a while.
    if (waitUntil([&] { return connected(); }, 90000)) return {};
    QString logs;
    for (const SyncthingDevice* device : {&a, &b}) {
        QFile log(device->home + QStringLiteral("/syncthing.log"));
        if (log.open(QIODevice::ReadOnly)) logs += u'\n' + device->name + QStringLiteral(":\n") + QString::fromUtf8(log.readAll().right(1500));
    }
    return QStringLiteral("the two Syncthing instances did not connect within 90 s:") + logs;
}

SyncthingPair::~SyncthingPair() {
    for (SyncthingDevice* device : {&a, &b}) {
        if (!device->process) continue;
        device->process->terminate();
        if (!device->process->waitForFinished(5000)) device->process->kill();
        device->process->waitForFinished(2000);
    }
}

QJsonDocument SyncthingPair::get(const SyncthingDevice& device, const QString& path, int* status) const {
    QNetworkAccessManager network;
    QNetworkRequest request(QUrl(QStringLiteral("http://127.0.0.1:%1%2").arg(device.guiPort).arg(path)));
    request.setRawHeader("X-API-Key", apiKey.toUtf8());
    request.setTransferTimeout(5000);
    QNetworkReply* reply = network.get(request);
    QEventLoop loop;
    QObject::connect(reply, &QNetworkReply::finished, &loop, &QEventLoop::quit);
    loop.exec();
    if (status) *status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
    const QJsonDocument document = QJsonDocument::fromJson(reply->readAll());
    reply->deleteLater();
    return document;
}

bool SyncthingPair::send(const SyncthingDevice& device, const QByteArray& verb, const QString& path,
                         const QByteArray& body) const {
    QNetworkAccessManager network;
    QNetworkRequest request(QUrl(QStringLiteral("http://127.0.0.1:%1%2").arg(device.guiPort).arg(path)));
    request.setRawHeader("X-API-Key", apiKey.toUtf8());
    request.setHeader(QNetworkRequest::ContentTypeHeader, QStringLiteral("application/json"));
    request.setTransferTimeout(10000);
    QNetworkReply* reply = network.sendCustomRequest(request, verb, body);
    QEventLoop loop;
    QObject::connect(reply, &QNetworkReply::finished, &loop, &QEventLoop::quit);
    loop.exec();
    const bool ok = reply->error() == QNetworkReply::NoError;
    reply->deleteLater();
    return ok;
}

bool SyncthingPair::connected() const {
    const QJsonDocument connections = get(a, QStringLiteral("/rest/system/connections"));
    return connections.object().value(u"connections").toObject().value(b.id).toObject().value(u"connected").toBool();
}

bool SyncthingPair::setApart(bool apart) const {
    const QByteArray body = apart ? QByteArray(R"({"paused":true})") : QByteArray(R"({"paused":false})");
    if (!send(a, "PATCH", QStringLiteral("/rest/config/devices/") + b.id, body)) return false;
    return waitUntil([&] { return connected() != apart; }, 30000);
}

bool SyncthingPair::scan(const SyncthingDevice& device) const {
    return send(device, "POST", QStringLiteral("/rest/db/scan?folder=notes"));
}

bool SyncthingPair::knowsFile(const SyncthingDevice& device, const QString& file) const {
    QUrlQuery query;
    query.addQueryItem(QStringLiteral("folder"), QStringLiteral("notes"));
    query.addQueryItem(QStringLiteral("file"), file);
    int status = 0;
    get(device, QStringLiteral("/rest/db/file?") + query.toString(QUrl::FullyEncoded), &status);
    return status != 404;
}

}  // namespace mossly::test
