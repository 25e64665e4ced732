#include "NoteEditor.h"

namespace mossly {

namespace {
const QString agentPrefix = QStringLiteral("agent:");
}

NoteEditor NoteEditor::fromStoredValue(const QString& stored) {
    if (stored.startsWith(agentPrefix)) return agent(stored.mid(agentPrefix.size()));
    return human();
}

QString NoteEditor::storedValue() const { return isAgent_ ? agentPrefix + name_ : QStringLiteral("human"); }

}  // namespace mossly
