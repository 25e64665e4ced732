#pragma once

#include <QString>
#include <QUrl>
#include <functional>

#include "NoteLinkPolicy.h"

namespace mossly {

// Carries out a link of a note as the policy decided: a note opens in Mossly,
// a web link and a folder go to the desktop, a refusal is told to the user.
inline void followNoteLink(const std::expected<NoteLinkAction, NoteLinkRefusal>& action,
                           const std::function<void(const QString&)>& openNote,
                           const std::function<bool(const QUrl&)>& openUrl,
                           const std::function<void(const QString&)>& refuse) {
    if (!action) {
        refuse(action.error().description());
    } else if (const auto* note = std::get_if<OpenNoteLink>(&*action)) {
        openNote(note->path);
    } else if (const auto* web = std::get_if<OpenWebLink>(&*action)) {
        openUrl(web->url);
    } else {
        openUrl(std::get<ShowFolderLink>(*action).folder);
    }
}

}  // namespace mossly
