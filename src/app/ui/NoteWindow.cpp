#include "NoteWindow.h"

#include "AppIcon.h"
#include "EditorPane.h"
#include "NoteStore.h"

namespace mossly {

NoteWindow::NoteWindow(NoteStore& store, const QString& url, QWidget* parent)
    : QMainWindow(parent, Qt::Window), store_(store), url_(url) {
    setObjectName(QStringLiteral("noteWindow"));
    setAttribute(Qt::WA_DeleteOnClose);
    setWindowIcon(appIcon());
    pane_ = new EditorPane(store_, this, url_);
    setCentralWidget(pane_);
    resize(640, 720);
    connect(pane_, &EditorPane::noteClosed, this, &QWidget::close);
    connect(&store_, &NoteStore::noteRenamed, this, [this](const QString& oldUrl, const QString& newUrl) {
        if (url_ == oldUrl) url_ = newUrl;
    });
    connect(&store_, &NoteStore::notesChanged, this, &NoteWindow::updateTitle);
    updateTitle();
}

void NoteWindow::updateTitle() {
    const Note* note = store_.note(url_);
    setWindowTitle(note ? note->title : tr("Note"));
}

}  // namespace mossly
