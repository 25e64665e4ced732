#pragma once

#include <gtest/gtest.h>

#include <QApplication>
#include <QDir>
#include <QListView>
#include <QProcess>
#include <QTest>
#include <functional>
#include <memory>

#include "AppSession.h"
#include "AppTestSupport.h"
#include "MainWindow.h"
#include "NoteDocument.h"
#include "NoteStore.h"
#include "TestSupport.h"

namespace mossly::test {

// The real app (the same AppSession that main() runs) on a fresh notes
// folder, used as a person uses it: keys, typing, clicks, drags and drops,
// the clipboard. What it leaves on disk and on screen is what is checked;
// every journey ends with a screenshot in the build tree.
class Journey : public ::testing::Test {
protected:
    TemporaryNotesFolder folder;
    std::unique_ptr<AppSession> app;

    // Starts the app; waits until the list is loaded (and its newest note open).
    void launch();
    MainWindow& window() const { return app->window(); }
    NoteStore& store() const { return app->store(); }
    QListView& noteList() const;

    // Keys go where a person's would: to the focused widget of the active window.
    QWidget* focused() const;
    void type(const QString& text) const;
    void press(const QKeySequence& keys) const;
    void press(Qt::Key key, Qt::KeyboardModifiers modifiers = Qt::NoModifier) const;
    // A right click as the window system delivers it: the press, then the context menu request.
    static void rightClick(QWidget* widget, QPoint position);
    // `act` runs once the menu or dialog that the next step opens is showing (that step
    // waits in its own event loop); it is retried until it returns true, for 20 s at most.
    static void whenShown(std::function<bool()> act);
    // A drop of `data` at `position`, as the window system delivers one: enter, move, drop.
    static void dropOn(QWidget* target, QPoint position, const QMimeData& data);
    // Chooses the item of the open context menu with this text, with the keyboard.
    static bool chooseMenuItem(const QString& text);
    // Clicks the centre of the list row showing `title`; false when no row shows it.
    bool clickRow(const QString& title, Qt::KeyboardModifiers modifiers = Qt::NoModifier);
    QRect rowRect(const QString& title) const;

    // A Markdown note's body as it is on disk, by file name.
    QString bodyOnDisk(const QString& identifier) const;
    QStringList noteFiles() const;  // every note file of the folder, sorted
    // Another writer (an agent, say) holding the library lock until the returned process ends.
    std::unique_ptr<QProcess> holdLibraryLock() const;
    // Waits for the debounced save (and anything else) to settle.
    static void settle(int milliseconds = 600) { spin(milliseconds); }

    // Saves what the screen shows now as <build>/journey-screenshots/<name>.png.
    static void screenshot(const QString& name, QWidget* window = nullptr);
};

}  // namespace mossly::test
