// Measures the Markdown editor: the styling pass alone, pass + apply, and
// keystroke-to-repaint while typing in the middle of 10 KB, 100 KB and 1 MB
// notes of mixed Markdown. Prints a Markdown table. Runs offscreen.
#include <QApplication>
#include <QFile>
#include <QTextBlock>
#include <QElapsedTimer>
#include <QTextCursor>
#include <QTextEdit>
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
        "See [the harbour report][harbour] and [tides].\n\n[harbour]: https://example.com/report\n[tides]: ./tides.md\n\n",
        "| Berth | Length | Depth | Notes |\n|:--|--:|:-:|---|\n| 1 | 120 m | 9 m | ferry |\n| 2 | 90 m | 7 m | fishing |\n"
        "| 3 | 60 m | 5 m | visitors |\n| 4 | 45 m | 4 m | dinghies |\n| 5 | 200 m | 12 m | cargo |\n| 6 | 30 m | 3 m | kayaks |\n"
        "| 7 | 75 m | 6 m | pilot |\n| 8 | 110 m | 8 m | spare |\n\n",
        "$$\n\\int_0^1 x^2 \\, dx = \\frac{1}{3}\n$$\n\n",
        "<details><summary>Older minutes</summary>\nKept for the record.\n</details>\n\n",
    };
    QString text = QStringLiteral("# Benchmark note\n\n");
    for (size_t i = 0; text.size() < targetBytes; ++i) text += QString::fromUtf8(sections[i % std::size(sections)]);
    return text;
}

double residentMiB() {
    QFile status(QStringLiteral("/proc/self/status"));
    if (!status.open(QIODevice::ReadOnly)) return 0;
    for (const QByteArray& line : status.readAll().split('\n')) {
        if (line.startsWith("VmRSS:")) return line.mid(6).trimmed().split(' ').front().toDouble() / 1024;
    }
    return 0;
}

// The end of the first plain paragraph line after the middle of the note.
int paragraphEndNearMiddle(const QTextDocument& document) {
    for (QTextBlock block = document.findBlock(document.characterCount() / 2); block.isValid(); block = block.next()) {
        if (block.text().startsWith(QStringLiteral("Some *emphasis*"))) return block.position() + block.length() - 1;
    }
    return document.characterCount() / 2;
}

double median(std::vector<double> samples) {
    std::sort(samples.begin(), samples.end());
    return samples[samples.size() / 2];
}

}  // namespace

int main(int argc, char** argv) {
    qputenv("QT_QPA_PLATFORM", "offscreen");
    QApplication app(argc, argv);
    std::printf("| note size | styling pass (full) | open: pass + apply | keystroke to repaint, typing in a paragraph mid-note "
                "| the same in a plain QTextEdit | typing a fence line / a $$ line mid-note | memory of the open note |\n");
    std::printf("|---|---|---|---|---|---|---|\n");
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

        std::vector<double> opens;
        double memory = 0;
        for (int round = 0; round < 3; ++round) {
            const double before = residentMiB();
            MarkdownTextView view;
            view.resize(900, 700);
            view.show();
            QElapsedTimer open;
            open.start();
            view.setMarkdown(text, {});
            view.viewport()->repaint();
            opens.push_back(static_cast<double>(open.nsecsElapsed()) / 1e6);
            memory = residentMiB() - before;
        }

        MarkdownTextView view;
        view.resize(900, 700);
        view.show();
        view.setMarkdown(text, {});
        QTextCursor cursor = view.textCursor();
        cursor.setPosition(paragraphEndNearMiddle(*view.document()));
        view.setTextCursor(cursor);
        view.ensureCursorVisible();
        std::vector<double> keystrokes, passParts, applyParts;
        // More keystrokes (MOSSLY_BENCH_KEYSTROKES) make a profile of typing alone.
        const int keys = qEnvironmentVariableIntValue("MOSSLY_BENCH_KEYSTROKES") > 0
                             ? qEnvironmentVariableIntValue("MOSSLY_BENCH_KEYSTROKES")
                             : 15;
        for (int i = 0; i < keys; ++i) {
            QElapsedTimer timer;
            timer.start();
            QTest::keyClick(view.viewport(), Qt::Key_A);
            view.viewport()->repaint();
            keystrokes.push_back(static_cast<double>(timer.nsecsElapsed()) / 1e6);
            passParts.push_back(view.lastStyleMs());
            applyParts.push_back(view.lastApplyMs());
        }
        // The same keystrokes in a plain QTextEdit with the same text: what Qt's own layout costs.
        QTextEdit plain;
        plain.resize(900, 700);
        plain.show();
        plain.setPlainText(text);
        QTextCursor plainCursor = plain.textCursor();
        plainCursor.setPosition(paragraphEndNearMiddle(*plain.document()));
        plain.setTextCursor(plainCursor);
        plain.ensureCursorVisible();
        std::vector<double> plainKeys;
        for (int i = 0; i < 15; ++i) {
            QElapsedTimer timer;
            timer.start();
            QTest::keyClick(plain.viewport(), Qt::Key_A);
            plain.viewport()->repaint();
            plainKeys.push_back(static_cast<double>(timer.nsecsElapsed()) / 1e6);
        }
        // A block construct typed on a line of its own opens everything below it: the worst case.
        const auto typeLine = [&](const QString& line) {
            QTextCursor at = view.textCursor();
            at.movePosition(QTextCursor::EndOfBlock);
            view.setTextCursor(at);
            QElapsedTimer timer;
            timer.start();
            at.insertText(QStringLiteral("\n") + line);
            view.viewport()->repaint();
            const double ms = static_cast<double>(timer.nsecsElapsed()) / 1e6;
            const int blocks = view.lastRestyledBlocks();
            view.document()->undo();
            return std::pair{ms, blocks};
        };
        const auto fence = typeLine(QStringLiteral("```"));
        const auto math = typeLine(QStringLiteral("$$"));
        std::printf("| %lld KB | %.1f ms | %.1f ms | %.2f ms (pass %.2f + apply %.2f) | %.2f ms | %.0f ms (%d blocks restyled) / %.0f ms "
                    "(%d blocks) | %.0f MiB |\n",
                    static_cast<long long>(size / 1024), median(passes), median(opens), median(keystrokes),
                    median(passParts), median(applyParts), median(plainKeys), fence.first, fence.second, math.first, math.second, memory);
    }
    return 0;
}
