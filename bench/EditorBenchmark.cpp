// Measures the Markdown editor: the styling pass alone, pass + apply, and
// keystroke-to-repaint while typing in the middle of 10 KB, 100 KB and 1 MB
// notes of mixed Markdown. Prints a Markdown table. Runs offscreen.
#include <QApplication>
#include <QElapsedTimer>
#include <QTextCursor>
#include <QTest>
#include <algorithm>
#include <cstdio>
#include <vector>

#include "MarkdownStyler.h"
#include "MarkdownTextView.h"

using namespace mossly;

namespace {

QString mixedMarkdown(qsizetype targetBytes) {
    static const char* const sections[] = {
        "## Section heading\n\nSome *emphasis*, **strong words**, `inline code` and a [link](https://example.com).\n\n",
        "- a bullet item\n- another with ~~struck~~ text\n  - nested item\n\n",
        "1. first\n2. second\n3. third\n\n",
        "- [ ] open task\n- [x] done task\n\n",
        "```cpp\nint main() { return 0; }\n// * not emphasis *\n```\n\n",
        "| Name | Value |\n|---|---:|\n| alpha | 1 |\n| beta | 2 |\n\n",
        "> A quoted line with _emphasis_\n> and a second line\n\n",
        "Math $x^2 + y^2$ and H~2~O, a footnote[^1] and &amp; entity.\n\n[^1]: The note.\n\n",
    };
    QString text = QStringLiteral("# Benchmark note\n\n");
    for (size_t i = 0; text.size() < targetBytes; ++i) text += QString::fromUtf8(sections[i % std::size(sections)]);
    return text;
}

double median(std::vector<double> samples) {
    std::sort(samples.begin(), samples.end());
    return samples[samples.size() / 2];
}

}  // namespace

int main(int argc, char** argv) {
    qputenv("QT_QPA_PLATFORM", "offscreen");
    QApplication app(argc, argv);
    std::printf("| note size | styling pass | pass + apply (open) | keystroke to repaint, typing mid-note |\n");
    std::printf("|---|---|---|---|\n");
    std::setvbuf(stdout, nullptr, _IONBF, 0);
    const qsizetype largest = argc > 1 ? QByteArray(argv[1]).toLongLong() * 1024 : 1024 * 1024;
    for (const qsizetype size : {qsizetype{10 * 1024}, qsizetype{100 * 1024}, qsizetype{1024 * 1024}}) {
        if (size > largest) break;
        const QString text = mixedMarkdown(size);
        std::vector<double> passes;
        for (int i = 0; i < 5; ++i) {
            QElapsedTimer timer;
            timer.start();
            const markdown::StylePass pass = markdown::styleMarkdown(text, markdown::Presentation::styled, 13, {});
            passes.push_back(static_cast<double>(timer.nsecsElapsed()) / 1e6);
        }

        MarkdownTextView view;
        view.resize(900, 700);
        view.show();
        QElapsedTimer open;
        open.start();
        view.setMarkdown(text, {});
        view.viewport()->repaint();
        const double openMs = static_cast<double>(open.nsecsElapsed()) / 1e6;

        QTextCursor cursor = view.textCursor();
        cursor.setPosition(static_cast<int>(text.size() / 2));
        cursor.movePosition(QTextCursor::EndOfBlock);
        view.setTextCursor(cursor);
        std::vector<double> keystrokes;
        for (int i = 0; i < 15; ++i) {
            QElapsedTimer timer;
            timer.start();
            QTest::keyClick(view.viewport(), Qt::Key_A);
            view.viewport()->repaint();
            keystrokes.push_back(static_cast<double>(timer.nsecsElapsed()) / 1e6);
        }
        std::printf("| %lld KB | %.1f ms | %.1f ms | %.1f ms (pass %.1f + apply %.1f) |\n",
                    static_cast<long long>(size / 1024), median(passes), openMs, median(keystrokes),
                    view.lastStyleMs(), view.lastApplyMs());
    }
    return 0;
}
