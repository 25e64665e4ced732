#pragma once

#include <QBuffer>
#include <QJsonDocument>
#include <QJsonObject>
#include <QStringList>
#include <QTextStream>

#include "AgentCommand.h"

namespace mossly::test {

// What one mossly-agent command printed and returned.
struct AgentOutcome {
    int exitCode;
    QString out;
    QString err;
    QJsonObject json() const { return QJsonDocument::fromJson(out.toUtf8()).object(); }
};

// Runs one mossly-agent command in this process, with `stdinBytes` as its input.
inline AgentOutcome runAgentCommand(const QStringList& arguments, const QByteArray& stdinBytes = {}) {
    QString out;
    QString err;
    QTextStream outStream(&out);
    QTextStream errStream(&err);
    QByteArray input = stdinBytes;
    QBuffer in(&input);
    in.open(QIODevice::ReadOnly);
    agent::AgentIo io{outStream, errStream, in};
    const int code = agent::runAgent(arguments, io);
    outStream.flush();
    errStream.flush();
    return {code, out, err};
}

}  // namespace mossly::test
