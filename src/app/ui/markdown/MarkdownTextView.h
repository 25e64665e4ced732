#pragma once

#include <QHash>
#include <QTextBlock>
#include <QTextCharFormat>
#include <QTextEdit>
#include <functional>
#include <memory>

#include "MarkdownEditing.h"
#include "EditorTextSync.h"
#include "MarkdownStyle.h"

namespace mossly::markdown {
class IncrementalStyler;
}

namespace mossly {

class LinkPreviews;
class MarkdownFormats;
class MarkdownHighlighter;

// The Markdown editor: plain Markdown text, presented with its syntax styled
// as the user types. Every change restyles the whole text (a pure pass), and
// only what differs is re-laid out. Drawn objects (checkboxes, numbers, code
// panels, rules, quote bars, key caps, math, footnote labels, disclosures,
// tables, images) are painted over the characters they stand for, which keep
// their place in the text. Structural keys and formatting commands are text
// edits, each one undo step.
class MarkdownTextView : public QTextEdit {
    Q_OBJECT
public:
    explicit MarkdownTextView(QWidget* parent = nullptr);
    ~MarkdownTextView() override;

    // Replaces the whole text (a note was opened or reloaded); not undoable.
    void setMarkdown(const QString& text, const QString& noteFile);
    // The note's file was renamed: text, caret and undo stay; links resolve from the new name.
    void followRenamedNote(const QString& noteFile);
    // The text exactly as typed: non-breaking spaces stay what they are.
    QString markdown() const { return documentText(*document()); }

    void setPresentation(markdown::Presentation presentation);
    markdown::Presentation presentation() const { return presentation_; }
    void setBaseSize(double points);

    void applyFormatting(markdown::FormattingAction action);
    // Where lone web links get their cards from; none draws them as plain links.
    void setLinkPreviews(LinkPreviews* previews);

    // The library's folder: links to files outside it are not followed. Unset, the note's own folder.
    void setNotesFolder(const QString& folder) { notesFolder_ = folder; }
    // Hands web links and folders to the desktop; tests put a recorder in its place.
    void setUrlOpener(std::function<bool(const QUrl&)> open) { openUrl_ = std::move(open); }

    // Titles of notes dragged in as references (from the note list); the file name without one.
    void setNoteTitles(std::function<QString(const QString& noteFile)> titleOf) { noteTitle_ = std::move(titleOf); }

    // The pass on screen, kept by the styler (never copied: a long note's pass is large).
    const markdown::StylePass& stylePass() const;
    // Milliseconds the last pass took to compute and to apply.
    double lastStyleMs() const { return lastStyleMs_; }
    double lastApplyMs() const { return lastApplyMs_; }
    // Blocks whose character formats the last pass changed.
    int lastRestyledBlocks() const { return lastRestyledBlocks_; }

signals:
    void markdownEdited(const QString& text);
    void openNoteRequested(const QString& path);
    void refusedLink(const QString& message);
    // Something pasted or dropped could not be added; the text says why.
    void insertRefused(const QString& message);
    // Note files dropped onto the text: imported, as when dropped onto the list.
    void noteFilesDropped(const QStringList& paths);

protected:
    bool canInsertFromMimeData(const QMimeData* source) const override;
    void insertFromMimeData(const QMimeData* source) override;
    void keyPressEvent(QKeyEvent* event) override;
    void paintEvent(QPaintEvent* event) override;
    void mousePressEvent(QMouseEvent* event) override;
    void mouseReleaseEvent(QMouseEvent* event) override;
    void mouseMoveEvent(QMouseEvent* event) override;

private:
    void restyle();
    QString stylingSettingsKey() const;
    markdown::TextRange wholeObjectsAround(markdown::TextRange scope) const;
    void applyParagraphFormats(markdown::TextRange scope);
    std::vector<std::pair<markdown::TextRange, QTextCharFormat>> reservedSpace(markdown::TextRange scope);
    double visibleWidth(markdown::TextRange range) const;
    double tableCellPadding() const;
    bool isMissingNote(const markdown::DrawnObject& object) const;
    double prefixWidth(int start, int length) const;
    enum class BlockConstruct { none, blank, plain, list, quote, table, code };
    BlockConstruct blockConstruct(const QTextBlock& block) const;
    void hideCollapsedBlocks(markdown::TextRange scope);
    void applyEdit(const markdown::TextEdit& edit);
    void insertOwnLines(const QStringList& lines);
    std::optional<QString> imageLine(const QString& fileName, const QByteArray& bytes);
    markdown::TextSelection selection() const;
    void keepCaretOutOfHiddenMarkers();
    bool isHidden(int position) const;
    QRectF characterRect(int position) const;
    QRectF rangeRect(int start, int end) const;
    void paintObjects(QPainter& painter, bool behindText);
    std::pair<QTextBlock, QTextBlock> visibleBlocks() const;
    const markdown::DrawnObject* objectAt(const QPoint& point, markdown::DrawnKind kind) const;
    void openLink(const QString& href);
    QString linkAt(const QPoint& point) const;
    bool showsLinkCards() const;
    std::optional<QRectF> linkCardRect(const markdown::DrawnObject& object) const;

    std::unique_ptr<MarkdownFormats> formats_;
    // Reserved-room formats by kind and width, reused across passes (see MarkdownHighlighter).
    mutable QHash<QString, QTextCharFormat> formatPool_;
    std::unique_ptr<MarkdownHighlighter> highlighter_;
    // Restyles only what an edit can change; rebuilt when the note or a setting changes.
    std::unique_ptr<markdown::IncrementalStyler> styler_;
    QString stylerSettingsKey_;
    std::vector<std::vector<double>> tableColumns_;  // per table of the pass: column widths as drawn
    markdown::Presentation presentation_ = markdown::Presentation::styled;
    double baseSize_ = 13;
    QString noteFile_;
    QString notesFolder_;
    std::function<bool(const QUrl&)> openUrl_;
    QString styledText_;
    bool styling_ = false;
    int previousCaret_ = 0;
    LinkPreviews* linkPreviews_ = nullptr;
    std::function<QString(const QString&)> noteTitle_;
    double lastStyleMs_ = 0;
    double lastApplyMs_ = 0;
    int lastRestyledBlocks_ = 0;
};

}  // namespace mossly
