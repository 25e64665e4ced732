#pragma once

#include <QString>
#include <optional>

namespace mossly {

inline const QString welcomeIconAssetName = QStringLiteral("Mossly Icon.png");
// The online manual, which ends the welcome note.
inline constexpr char manualAddress[] = "https://mossly.app/manual";

// The welcome note's Markdown; `imageLine` is left out when there is no icon.
QString welcomeNoteText(const std::optional<QString>& imageLine);

}  // namespace mossly
