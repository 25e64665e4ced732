#pragma once

#include <QString>
#include <chrono>
#include <functional>

#include "NoteStore.h"

class QWidget;

namespace mossly {

enum class UnsavedQuitChoice { saveElsewhere, keepTrying, quitAndLose };

// The questions quitting may have to ask. Dialogs in the app; scripted in tests.
struct QuitPrompts {
    // Notes could not be saved: what now? `mayKeepTrying` is false when the
    // quit can no longer be cancelled.
    std::function<UnsavedQuitChoice(const QuitPreparation&, bool mayKeepTrying)> askAboutUnsaved;
    std::function<QString()> chooseFolder;  // empty: cancelled
    std::function<void(const QString&)> showError;
};

QuitPrompts dialogQuitPrompts(QWidget* parent);

// Everything that must happen before the app quits: pending edits written,
// unresolved conflicts kept as conflict copies (and remembered for the next
// launch), and, when notes still cannot be saved, the user asked. Never a
// silent loss. Returns whether the app may quit now.
bool finishWorkBeforeQuit(NoteStore& store, const QuitPrompts& prompts, bool mayCancel,
                          std::chrono::milliseconds busyPatience = NoteStore::defaultBusyPatience);

}  // namespace mossly
