#include <QCoreApplication>
#include <QFile>
#include <QTextStream>
#include <cstdio>

#include "HtmlPageCommand.h"

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    QFile in;
    in.open(stdin, QIODevice::ReadOnly);  // on failure the command reports errorString()
    QTextStream out(stdout);
    QTextStream err(stderr);
    return mossly::runHtmlPage(QCoreApplication::arguments().mid(1), in, out, err);
}
