#include <QCoreApplication>
#include <QTextStream>
#include <cstdio>

#include "LinkPreviewCommand.h"

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    QCoreApplication::setOrganizationDomain(QStringLiteral("com.bellam.notes"));
    QTextStream out(stdout);
    QTextStream err(stderr);
    return mossly::runLinkPreview(QCoreApplication::arguments().mid(1), out, err, mossly::LinkPreviewTools::system());
}
