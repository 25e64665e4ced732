#include "Journey.h"

#include <QContextMenuEvent>
#include <QDragEnterEvent>
#include <QMimeData>
#include <QElapsedTimer>
#include <QMenu>
#include <QTimer>

#include "LibrarySidebar.h"
#include "NoteFileLock.h"
#include "NoteListModel.h"

namespace mossly::test {

void Journey::launch() {
    app = std::make_unique<AppSession>(folder.path());
    window().show();
    ASSERT_TRUE(QTest::qWaitForWindowExposed(&window()));
    window().activateWindow();
    ASSERT_TRUE(waitUntil([&] { return !store().isLoadingInitialNotes() && !store().isReadingNoteDetails(); }, 10000));
    spin(100);
}

QListView& Journey::noteList() const { return *window().sidebar()->noteList(); }

std::unique_ptr<QProcess> Journey::holdLibraryLock() const {
    auto holder = std::make_unique<QProcess>();
    // -o: the lock is flock's own, so ending flock frees it (its child keeps no copy).
    holder->start(QStringLiteral("flock"), {QStringLiteral("-o"), folder.filePath(NoteFileLock::fileName),
                                            QStringLiteral("sleep"), QStringLiteral("30")});
    holder->waitForStarted();
    spin(300);  // flock has the lock before anyone types
    return holder;
}

QWidget* Journey::focused() const {
    // A window manager gives the activation back when a dialog closes; offscreen, nobody does.
    if (!QApplication::activeWindow()) QApplication::setActiveWindow(&window());
    if (QWidget* widget = QApplication::focusWidget()) return widget;
    return QApplication::activeWindow();
}

void Journey::type(const QString& text) const { QTest::keyClicks(focused(), text); }

void Journey::press(const QKeySequence& keys) const {
    for (int i = 0; i < keys.count(); ++i) {
        QTest::keyClick(focused(), keys[i].key(), keys[i].keyboardModifiers());
    }
}

void Journey::press(Qt::Key key, Qt::KeyboardModifiers modifiers) const {
    QTest::keyClick(focused(), key, modifiers);
}

void Journey::rightClick(QWidget* widget, QPoint position) {
    QTest::mousePress(widget, Qt::RightButton, {}, position);
    QContextMenuEvent request(QContextMenuEvent::Mouse, position, widget->mapToGlobal(position));
    QApplication::sendEvent(widget, &request);
    QTest::mouseRelease(widget, Qt::RightButton, {}, position);
}

void Journey::whenShown(std::function<bool()> act) {
    auto* timer = new QTimer(qApp);
    auto started = std::make_shared<QElapsedTimer>();
    started->start();
    QObject::connect(timer, &QTimer::timeout, timer, [timer, act = std::move(act), started] {
        if (act() || started->elapsed() > 20000) timer->deleteLater();
    });
    timer->start(50);
}

void Journey::dropOn(QWidget* target, QPoint position, const QMimeData& data) {
    const Qt::DropActions actions = Qt::CopyAction | Qt::MoveAction;
    QDragEnterEvent enter(position, actions, &data, Qt::LeftButton, {});
    QApplication::sendEvent(target, &enter);
    QDragMoveEvent move(position, actions, &data, Qt::LeftButton, {});
    QApplication::sendEvent(target, &move);
    QDropEvent drop(QPointF(position), actions, &data, Qt::LeftButton, {});
    QApplication::sendEvent(target, &drop);
}

bool Journey::chooseMenuItem(const QString& text) {
    auto* menu = qobject_cast<QMenu*>(QApplication::activePopupWidget());
    if (!menu) return false;
    for (QAction* action : menu->actions()) {
        if (action->text() != text) continue;
        menu->setActiveAction(action);
        QTest::keyClick(menu, Qt::Key_Return);
        return true;
    }
    return false;
}

QRect Journey::rowRect(const QString& title) const {
    QAbstractItemModel* model = noteList().model();
    for (int row = 0; row < model->rowCount(); ++row) {
        const QModelIndex index = model->index(row, 0);
        if (index.data(NoteListModel::TitleRole).toString() == title) return noteList().visualRect(index);
    }
    return {};
}

bool Journey::clickRow(const QString& title, Qt::KeyboardModifiers modifiers) {
    const QRect rect = rowRect(title);
    if (!rect.isValid()) return false;
    QTest::mouseClick(noteList().viewport(), Qt::LeftButton, modifiers, rect.center());
    return true;
}

QString Journey::bodyOnDisk(const QString& identifier) const {
    return NoteDocument(QString::fromUtf8(folder.read(identifier)), NoteContentType::markdown).body;
}

QStringList Journey::noteFiles() const {
    QStringList files;
    for (const QString& entry : folder.allEntries()) {
        if (entry.endsWith(u".md") || entry.endsWith(u".html") || entry.endsWith(u".tldr")) files.append(entry);
    }
    files.sort();
    return files;
}

void Journey::screenshot(const QString& name, QWidget* window) {
    QWidget* shown = window ? window : QApplication::activeWindow();
    if (!shown) return;
    const QString dir = QStringLiteral(MOSSLY_JOURNEY_SCREENSHOTS);
    QDir().mkpath(dir);
    spin(150);  // let the last paint land
    shown->grab().save(dir + u'/' + name + QStringLiteral(".png"));
}

}  // namespace mossly::test
