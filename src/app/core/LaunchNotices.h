#pragma once

#include <QStringList>

namespace mossly {

// Messages the app must show the user the next time it starts, such as the
// conflict copies written while it quit. Kept in the user settings.
namespace LaunchNotices {
void add(const QString& message);
// The waiting messages, which are then forgotten.
QStringList take();
}  // namespace LaunchNotices

}  // namespace mossly
