// Build-time helper: writes Mossly's icon as a PNG for the desktop entry.
#include <QGuiApplication>
#include <cstdio>

#include "AppIcon.h"

int main(int argc, char** argv) {
    qputenv("QT_QPA_PLATFORM", "offscreen");
    QGuiApplication app(argc, argv);
    if (argc != 3) {
        std::fprintf(stderr, "usage: render_icon SIZE OUT.png\n");
        return 2;
    }
    return mossly::renderAppIcon(std::atoi(argv[1])).save(QString::fromLocal8Bit(argv[2])) ? 0 : 1;
}
