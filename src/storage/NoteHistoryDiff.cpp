#include "NoteHistoryDiff.h"

#include <QHash>
#include <QStringView>
#include <algorithm>
#include <optional>

namespace mossly {

namespace {

// Beyond this many differing units the exact comparison costs too much memory and time.
constexpr int maximumEditDistance = 2000;

enum class CharClass { word, space, other };

CharClass classOf(QChar c) {
    if (c.isLetterOrNumber() || c.isMark() || c == u'_' || c.isSurrogate()) return CharClass::word;
    if (c.isSpace()) return CharClass::space;
    return CharClass::other;
}

std::vector<QStringView> tokens(const QString& text) {
    std::vector<QStringView> out;
    qsizetype start = 0;
    while (start < text.size()) {
        const CharClass kind = classOf(text[start]);
        qsizetype end = start + 1;
        if (kind != CharClass::other) {
            while (end < text.size() && classOf(text[end]) == kind) ++end;
        }
        out.emplace_back(QStringView(text).mid(start, end - start));
        start = end;
    }
    return out;
}

class Changes {
public:
    void add(NoteTextChange::Kind kind, QStringView text) {
        if (text.isEmpty()) return;
        if (!runs_.empty() && runs_.back().kind == kind) {
            runs_.back().text += text;
        } else {
            runs_.push_back({kind, text.toString()});
        }
    }
    std::vector<NoteTextChange> take() { return std::move(runs_); }

private:
    std::vector<NoteTextChange> runs_;
};

// Myers' O((N+M)D) comparison of two token id sequences; the edit script as
// (kind, index) steps, or nothing when the distance exceeds the limit.
using Step = std::pair<NoteTextChange::Kind, int>;
std::optional<std::vector<Step>> shortestEdit(const std::vector<int>& a, const std::vector<int>& b) {
    const int n = static_cast<int>(a.size());
    const int m = static_cast<int>(b.size());
    const int limit = std::min(n + m, maximumEditDistance);
    const int offset = limit + 1;
    std::vector<int> v(static_cast<size_t>(2 * limit + 3), 0);
    std::vector<std::vector<int>> trace;
    for (int d = 0; d <= limit; ++d) {
        trace.push_back(v);
        for (int k = -d; k <= d; k += 2) {
            int x = (k == -d || (k != d && v[k - 1 + offset] < v[k + 1 + offset])) ? v[k + 1 + offset]
                                                                                   : v[k - 1 + offset] + 1;
            int y = x - k;
            while (x < n && y < m && a[x] == b[y]) ++x, ++y;
            v[k + offset] = x;
            if (x >= n && y >= m) {
                std::vector<Step> steps;
                for (int back = d; back > 0; --back) {
                    const std::vector<int>& pv = trace[back];
                    const int kk = x - y;
                    const bool down = kk == -back || (kk != back && pv[kk - 1 + offset] < pv[kk + 1 + offset]);
                    const int prevK = down ? kk + 1 : kk - 1;
                    const int prevX = pv[prevK + offset];
                    const int prevY = prevX - prevK;
                    // Back along the diagonal to where the one step of this round ended.
                    const int stepEndX = down ? prevX : prevX + 1;
                    while (x > stepEndX) {
                        steps.push_back({NoteTextChange::Kind::same, --x});
                        --y;
                    }
                    steps.push_back(down ? Step{NoteTextChange::Kind::inserted, prevY}
                                         : Step{NoteTextChange::Kind::removed, prevX});
                    x = prevX;
                    y = prevY;
                }
                while (x > 0) steps.push_back({NoteTextChange::Kind::same, --x});
                std::reverse(steps.begin(), steps.end());
                return steps;
            }
        }
    }
    return std::nullopt;
}

}  // namespace

std::vector<NoteTextChange> wordDiff(const QString& before, const QString& after) {
    const std::vector<QStringView> a = tokens(before);
    const std::vector<QStringView> b = tokens(after);
    // The common start and end need no search.
    size_t prefix = 0;
    while (prefix < a.size() && prefix < b.size() && a[prefix] == b[prefix]) ++prefix;
    size_t suffix = 0;
    while (suffix < a.size() - prefix && suffix < b.size() - prefix &&
           a[a.size() - 1 - suffix] == b[b.size() - 1 - suffix]) {
        ++suffix;
    }
    QHash<QStringView, int> ids;
    const auto idsOf = [&](const std::vector<QStringView>& units) {
        std::vector<int> out;
        out.reserve(units.size() - prefix - suffix);
        for (size_t i = prefix; i < units.size() - suffix; ++i) {
            auto found = ids.constFind(units[i]);
            if (found == ids.cend()) found = ids.insert(units[i], static_cast<int>(ids.size()));
            out.push_back(*found);
        }
        return out;
    };
    const std::vector<int> aIds = idsOf(a);
    const std::vector<int> bIds = idsOf(b);

    Changes changes;
    for (size_t i = 0; i < prefix; ++i) changes.add(NoteTextChange::Kind::same, a[i]);
    if (auto steps = shortestEdit(aIds, bIds)) {
        for (const auto& [kind, index] : *steps) {
            const auto& units = kind == NoteTextChange::Kind::inserted ? b : a;
            changes.add(kind, units[prefix + static_cast<size_t>(index)]);
        }
    } else {
        for (size_t i = prefix; i < a.size() - suffix; ++i) changes.add(NoteTextChange::Kind::removed, a[i]);
        for (size_t i = prefix; i < b.size() - suffix; ++i) changes.add(NoteTextChange::Kind::inserted, b[i]);
    }
    for (size_t i = a.size() - suffix; i < a.size(); ++i) changes.add(NoteTextChange::Kind::same, a[i]);
    return changes.take();
}

}  // namespace mossly
