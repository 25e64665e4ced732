#pragma once

namespace mossly {

// Dialog buttons carry icons only where the desktop's icon theme has them (as
// on KDE); elsewhere (GNOME, or no theme at all) they are plain, as the
// desktop's own applications are, never Qt's built-in tick and cross.
void followDesktopLook();

}  // namespace mossly
