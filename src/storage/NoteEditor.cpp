#include "NoteEditor.h"

#include <algorithm>

namespace mossly {

namespace {
const QString agentPrefix = QStringLiteral("agent:");
}

NoteEditor NoteEditor::fromStoredValue(const QString& stored) {
    if (stored.startsWith(agentPrefix)) return agent(stored.mid(agentPrefix.size()));
    return human();
}

bool NoteEditor::isValidAgentName(const QString& name) {
    if (name.trimmed().isEmpty()) return false;
    return std::none_of(name.begin(), name.end(), [](QChar c) {
        const auto category = c.category();
        return category == QChar::Other_Control || category == QChar::Other_Format ||
               category == QChar::Separator_Line || category == QChar::Separator_Paragraph;
    });
}

QString NoteEditor::storedValue() const { return isAgent_ ? agentPrefix + name_ : QStringLiteral("human"); }

}  // namespace mossly
