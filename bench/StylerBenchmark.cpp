// Measures the Markdown styling pass against incremental restyling while typing in
// the middle of 10 KB, 100 KB and 1 MB notes of mixed Markdown: the full pass, one
// keystroke typed into a paragraph, and typing then deleting a fence line and a "$$"
// line. Prints a Markdown table of medians in milliseconds.
#include <QElapsedTimer>
#include <QString>
#include <algorithm>
#include <cstdio>
#include <vector>

#include "IncrementalStyler.h"
#include "MarkdownStyler.h"

using namespace mossly::markdown;

namespace {

QString mixedNote(qsizetype targetSize) {
    static const char* const sections[] = {
        "## Section %1\n\n",
        "Paragraph %1 with *emphasis*, **strong words**, `inline code`, $x^2 + y^2$ math,\n"
        "a footnote[^n%1] and a [reference link][ref%1] that wraps onto a second line.\n\n",
        "- a bullet item\n- another with ~~struck~~ text\n  - nested item\n\n",
        "1. first\n2. second\n3. third\n\n",
        "- [ ] open task\n- [x] done task\n\n",
        "```cpp\nint main() { return 0; }\n// * not emphasis *\n```\n\n",
        "| Name | Value |\n|---|---:|\n| alpha | 1 |\n| beta | 2 |\n\n",
        "> A quoted line with _emphasis_\n> and a second line\n\n",
        "$$\n\\frac{a}{b} = c^2\n$$\n\n",
        "H~2~O and &amp; entity, ==marked== text.\n\n",
    };
    QString body = QStringLiteral("# Benchmark note\n\n");
    QString definitions;
    for (int i = 0; body.size() + definitions.size() < targetSize; ++i) {
        for (const char* section : sections) {
            const QString text = QString::fromUtf8(section);
            body += text.contains(u"%1") ? text.arg(i) : text;
        }
        definitions += QStringLiteral("[^n%1]: Footnote %1.\n[ref%1]: https://example.com/%1\n").arg(i);
    }
    return body + u'\n' + definitions;
}

double median(std::vector<double> samples) {
    std::sort(samples.begin(), samples.end());
    return samples[samples.size() / 2];
}

double milliseconds(const QElapsedTimer& timer) {
    return static_cast<double>(timer.nsecsElapsed()) / 1e6;
}

const QString kDirectory = QStringLiteral("/tmp/notes");

// Times each of the edits as one update; every edit is (position, removed, inserted).
struct Edit {
    int position;
    int removed;
    QString inserted;
};

std::vector<double> timeEdits(const QString& note, const std::vector<Edit>& edits, int repeats) {
    std::vector<double> samples;
    for (int repeat = 0; repeat < repeats; ++repeat) {
        IncrementalStyler styler(Presentation::styled, 17, kDirectory);
        QString text = note;
        styler.restyle(text);
        for (const Edit& edit : edits) {
            text.replace(edit.position, edit.removed, edit.inserted);
            QElapsedTimer timer;
            timer.start();
            styler.update(text, edit.position, edit.removed, static_cast<int>(edit.inserted.size()));
            samples.push_back(milliseconds(timer));
        }
    }
    return samples;
}

// A line start in the middle of the note where `prefix` begins a line.
int middleLine(const QString& note, const QString& prefix) {
    return static_cast<int>(note.indexOf(u'\n' + prefix, note.size() / 2)) + 1;
}

}  // namespace

int main() {
    std::printf(
        "| Note | Full pass | Keystroke in a paragraph | in code | in a table cell | in display math "
        "| Fence line typed/deleted | $$ line typed/deleted |\n");
    std::printf("|---|---:|---:|---:|---:|---:|---:|---:|\n");
    for (const auto& [label, size] : {std::pair{"10 KB", 10'000}, {"100 KB", 100'000}, {"1 MB", 1'000'000}}) {
        const QString note = mixedNote(size);
        const int repeats = size >= 1'000'000 ? 3 : 10;

        std::vector<double> full;
        for (int i = 0; i < repeats; ++i) {
            QElapsedTimer timer;
            timer.start();
            const StylePass pass = styleMarkdown(note, Presentation::styled, 17, kDirectory);
            full.push_back(milliseconds(timer));
        }

        // 15 keystrokes at the end of a paragraph's first line, as someone types a phrase.
        const int paragraph = middleLine(note, QStringLiteral("Paragraph"));
        const int typingAt = static_cast<int>(note.indexOf(u'\n', paragraph));
        std::vector<Edit> keystrokes;
        const QString phrase = QStringLiteral(" and some more.");
        for (int i = 0; i < phrase.size(); ++i) keystrokes.push_back({typingAt + i, 0, phrase.mid(i, 1)});
        const std::vector<double> typing = timeEdits(note, keystrokes, repeats);

        // The same phrase typed into a code block's line, a table cell and display math.
        auto typedAt = [&](int at) {
            std::vector<Edit> edits;
            for (int i = 0; i < phrase.size(); ++i) edits.push_back({at + i, 0, phrase.mid(i, 1)});
            return median(timeEdits(note, edits, repeats));
        };
        const double inCode = typedAt(middleLine(note, QStringLiteral("int main()")) + 3);
        const double inTable = typedAt(middleLine(note, QStringLiteral("| alpha")) + 7);
        const double inMath = typedAt(middleLine(note, QStringLiteral("\\frac")) + 5);

        const int blockAt = middleLine(note, QStringLiteral("- a bullet item"));
        const QString fence = QStringLiteral("```\n");
        const std::vector<double> fences =
            timeEdits(note, {{blockAt, 0, fence}, {blockAt, static_cast<int>(fence.size()), {}}}, repeats);
        const QString math = QStringLiteral("$$\n");
        const std::vector<double> maths =
            timeEdits(note, {{blockAt, 0, math}, {blockAt, static_cast<int>(math.size()), {}}}, repeats);

        std::printf("| %s | %.2f ms | %.3f ms | %.3f ms | %.3f ms | %.3f ms | %.2f ms | %.2f ms |\n", label,
                    median(full), median(typing), inCode, inTable, inMath, median(fences), median(maths));
        std::fflush(stdout);
    }
    return 0;
}
