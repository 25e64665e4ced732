#pragma once

#include <QString>
#include <optional>

namespace mossly {

inline const QString welcomeIconAssetName = QStringLiteral("Mossly Icon.png");
// The user manual is the project README: the installed copy when there is one, else the source tree's.
QString manualAddress();

// The welcome note's Markdown; `imageLine` is left out when there is no icon.
QString welcomeNoteText(const std::optional<QString>& imageLine);

}  // namespace mossly
