#include <QCoreApplication>
#include <QFile>
#include <QTextStream>
#include <cstdio>

#include "AgentCommand.h"

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("mossly-agent"));
    QTextStream out(stdout);
    QTextStream err(stderr);
    QFile in;
    if (!in.open(stdin, QIODevice::ReadOnly)) return mossly::agent::failure;
    mossly::agent::AgentIo io{out, err, in};
    return mossly::agent::runAgent(QCoreApplication::arguments().mid(1), io);
}
