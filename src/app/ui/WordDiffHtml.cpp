#include "WordDiffHtml.h"

namespace mossly {

QString wordDiffHtml(const std::vector<NoteTextChange>& changes) {
    QString html = QStringLiteral("<div style=\"white-space: pre-wrap; font-family: sans-serif;\">");
    for (const NoteTextChange& change : changes) {
        const QString text = change.text.toHtmlEscaped();
        switch (change.kind) {
            case NoteTextChange::Kind::same: html += text; break;
            case NoteTextChange::Kind::removed:
                html += QStringLiteral("<span style=\"background:#fbd7d7; color:#8a1111; text-decoration:line-through;\">") +
                        text + QStringLiteral("</span>");
                break;
            case NoteTextChange::Kind::inserted:
                html += QStringLiteral("<span style=\"background:#d3f2d3; color:#115511;\">") + text + QStringLiteral("</span>");
                break;
        }
    }
    return html + QStringLiteral("</div>");
}

}  // namespace mossly
