#pragma once

#include <QByteArray>
#include <QIcon>
#include <QImage>

namespace mossly {

// Mossly's icon, drawn in code so the app, the welcome note and the desktop
// entry all use the same picture: a moss-green rounded square with a leaf.
QImage renderAppIcon(int size);
QIcon appIcon();
QByteArray appIconPng(int size = 256);

}  // namespace mossly
