#include "QuitFlow.h"

#include <QFileDialog>
#include <QMessageBox>
#include <QPushButton>

#include "Diagnostics.h"
#include "LaunchNotices.h"

namespace mossly {

namespace {

QString unsavedSummary(const QuitPreparation& preparation) {
    QStringList lines;
    for (const auto& unsaved : preparation.unsaved) {
        lines.append(QStringLiteral("\u2022 %1: %2").arg(unsaved.title, unsaved.reason));
    }
    return lines.join(u'\n');
}

}  // namespace

QuitPrompts dialogQuitPrompts(QWidget* parent) {
    QuitPrompts prompts;
    prompts.askAboutUnsaved = [parent](const QuitPreparation& preparation, bool mayKeepTrying) {
        QMessageBox box(QMessageBox::Warning, QObject::tr("Some notes could not be saved"),
                        QObject::tr("Mossly could not save %n note(s). If you quit now, the unsaved text is lost.",
                                    nullptr, static_cast<int>(preparation.unsaved.size())),
                        QMessageBox::NoButton, parent);
        box.setInformativeText(unsavedSummary(preparation));
        QPushButton* elsewhere = box.addButton(QObject::tr("Save Elsewhere…"), QMessageBox::AcceptRole);
        QPushButton* keepTrying =
            mayKeepTrying ? box.addButton(QObject::tr("Keep Trying"), QMessageBox::RejectRole) : nullptr;
        QPushButton* lose = box.addButton(QObject::tr("Quit and Lose"), QMessageBox::DestructiveRole);
        box.setDefaultButton(elsewhere);
        box.exec();
        if (box.clickedButton() == lose) return UnsavedQuitChoice::quitAndLose;
        if (keepTrying && box.clickedButton() != elsewhere) return UnsavedQuitChoice::keepTrying;
        return UnsavedQuitChoice::saveElsewhere;
    };
    prompts.chooseFolder = [parent] {
        return QFileDialog::getExistingDirectory(parent, QObject::tr("Choose a folder for the unsaved notes"));
    };
    prompts.showError = [parent](const QString& message) {
        QMessageBox::warning(parent, QObject::tr("The notes could not be saved there"), message);
    };
    return prompts;
}

bool finishWorkBeforeQuit(NoteStore& store, const QuitPrompts& prompts, bool mayCancel,
                          std::chrono::milliseconds busyPatience) {
    DiagnosticsCenter& diagnostics = DiagnosticsCenter::shared();
    const QuitPreparation preparation = store.prepareForQuit(busyPatience);
    for (const QString& copy : preparation.conflictCopies) {
        LaunchNotices::add(QObject::tr("When Mossly last quit, a note had changed elsewhere while you were editing "
                                       "it. Both texts are kept: %1")
                               .arg(copy));
    }
    if (preparation.unsaved.empty()) return true;

    while (true) {
        switch (prompts.askAboutUnsaved(preparation, mayCancel)) {
        case UnsavedQuitChoice::keepTrying:
            if (mayCancel) {
                diagnostics.event(QStringLiteral("Quit postponed for unsaved notes"));
                return false;
            }
            break;
        case UnsavedQuitChoice::quitAndLose:
            diagnostics.event(QStringLiteral("Quit with unsaved notes"),
                              {{"noteCount", static_cast<qint64>(preparation.unsaved.size())}});
            return true;
        case UnsavedQuitChoice::saveElsewhere: {
            const QString folder = prompts.chooseFolder();
            if (folder.isEmpty()) break;  // asked again
            auto written = store.saveUnsavedNotesTo(folder);
            if (written) return true;
            prompts.showError(written.error().description());
            break;
        }
        }
    }
}

}  // namespace mossly
