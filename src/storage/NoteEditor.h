#pragma once

#include <QString>

namespace mossly {

// Who created or last edited a note: the person using the app, or an agent
// with a name. Stored in files as "human" or "agent:<name>".
class NoteEditor {
public:
    static NoteEditor human() { return NoteEditor(false, {}); }
    static NoteEditor agent(QString name) { return NoteEditor(true, std::move(name)); }
    // "agent:" (case-sensitive) followed by anything is an agent; every other value is human.
    static NoteEditor fromStoredValue(const QString& stored);

    // Agent names are one line of visible text: no line breaks or other control characters.
    static bool isValidAgentName(const QString& name);

    bool isAgent() const { return isAgent_; }
    bool isHuman() const { return !isAgent_; }
    const QString& agentName() const { return name_; }
    QString storedValue() const;

    bool operator==(const NoteEditor&) const = default;

private:
    NoteEditor(bool isAgent, QString name) : isAgent_(isAgent), name_(std::move(name)) {}

    bool isAgent_;
    QString name_;
};

}  // namespace mossly
