#include "TexReplacements.h"

#include <QHash>
#include <QRegularExpression>
#include <QStringView>
#include <optional>

#include "MarkdownText.h"

namespace mossly::markdown {

using namespace Qt::StringLiterals;

namespace {

const QHash<QString, QString>& symbolCommands() {
    static const QHash<QString, QString> table = {
        {u"pm"_s, u"±"_s},        {u"mp"_s, u"∓"_s},         {u"times"_s, u"×"_s},
        {u"cdot"_s, u"⋅"_s},      {u"div"_s, u"÷"_s},        {u"le"_s, u"≤"_s},
        {u"leq"_s, u"≤"_s},       {u"ge"_s, u"≥"_s},         {u"geq"_s, u"≥"_s},
        {u"neq"_s, u"≠"_s},       {u"ne"_s, u"≠"_s},         {u"infty"_s, u"∞"_s},
        {u"approx"_s, u"≈"_s},    {u"equiv"_s, u"≡"_s},      {u"sim"_s, u"∼"_s},
        {u"propto"_s, u"∝"_s},    {u"to"_s, u"→"_s},         {u"rightarrow"_s, u"→"_s},
        {u"leftarrow"_s, u"←"_s}, {u"Rightarrow"_s, u"⇒"_s}, {u"Leftarrow"_s, u"⇐"_s},
        {u"iff"_s, u"⇔"_s},       {u"sum"_s, u"∑"_s},        {u"prod"_s, u"∏"_s},
        {u"int"_s, u"∫"_s},       {u"partial"_s, u"∂"_s},    {u"nabla"_s, u"∇"_s},
        {u"in"_s, u"∈"_s},        {u"notin"_s, u"∉"_s},      {u"subset"_s, u"⊂"_s},
        {u"subseteq"_s, u"⊆"_s},  {u"cup"_s, u"∪"_s},        {u"cap"_s, u"∩"_s},
        {u"forall"_s, u"∀"_s},    {u"exists"_s, u"∃"_s},     {u"emptyset"_s, u"∅"_s},
        {u"ldots"_s, u"…"_s},     {u"cdots"_s, u"⋯"_s},      {u"circ"_s, u"∘"_s},
        {u"degree"_s, u"°"_s},    {u"alpha"_s, u"α"_s},      {u"beta"_s, u"β"_s},
        {u"gamma"_s, u"γ"_s},     {u"delta"_s, u"δ"_s},      {u"epsilon"_s, u"ε"_s},
        {u"zeta"_s, u"ζ"_s},      {u"eta"_s, u"η"_s},        {u"theta"_s, u"θ"_s},
        {u"iota"_s, u"ι"_s},      {u"kappa"_s, u"κ"_s},      {u"lambda"_s, u"λ"_s},
        {u"mu"_s, u"μ"_s},        {u"nu"_s, u"ν"_s},         {u"xi"_s, u"ξ"_s},
        {u"pi"_s, u"π"_s},        {u"rho"_s, u"ρ"_s},        {u"sigma"_s, u"σ"_s},
        {u"tau"_s, u"τ"_s},       {u"upsilon"_s, u"υ"_s},    {u"phi"_s, u"φ"_s},
        {u"chi"_s, u"χ"_s},       {u"psi"_s, u"ψ"_s},        {u"omega"_s, u"ω"_s},
        {u"Gamma"_s, u"Γ"_s},     {u"Delta"_s, u"Δ"_s},      {u"Theta"_s, u"Θ"_s},
        {u"Lambda"_s, u"Λ"_s},    {u"Xi"_s, u"Ξ"_s},         {u"Pi"_s, u"Π"_s},
        {u"Sigma"_s, u"Σ"_s},     {u"Phi"_s, u"Φ"_s},        {u"Psi"_s, u"Ψ"_s},
        {u"Omega"_s, u"Ω"_s},
    };
    return table;
}

QChar superscriptOf(QChar c) {
    switch (c.unicode()) {
        case u'0':
            return QChar(0x2070);
        case u'1':
            return QChar(0x00B9);
        case u'2':
            return QChar(0x00B2);
        case u'3':
            return QChar(0x00B3);
        case u'+':
            return QChar(0x207A);
        case u'-':
            return QChar(0x207B);
        default:
            return QChar(0x2074 + (c.unicode() - u'4'));  // ⁴ to ⁹ are consecutive
    }
}

// The length of a braced group starting at `at` (its opening brace), braces included.
std::optional<qsizetype> bracedGroupLength(QStringView tex, qsizetype at) {
    if (at >= tex.size() || tex[at] != u'{') return std::nullopt;
    int depth = 0;
    for (qsizetype i = at; i < tex.size(); ++i) {
        if (tex[i] == u'\\') {
            ++i;  // an escaped brace does not count
        } else if (tex[i] == u'{') {
            ++depth;
        } else if (tex[i] == u'}' && --depth == 0) {
            return i - at + 1;
        }
    }
    return std::nullopt;
}

qsizetype skipBlanks(QStringView tex, qsizetype at) {
    while (at < tex.size() && (tex[at] == u' ' || tex[at] == u'\t')) ++at;
    return at;
}

// Rewrites \frac and \sqrt, innermost arguments included.
QString rewriteStructures(QStringView tex) {
    static const QString frac = u"\\frac"_s;
    static const QString sqrt = u"\\sqrt"_s;
    QString out;
    out.reserve(tex.size());
    qsizetype i = 0;
    while (i < tex.size()) {
        const bool isFrac = tex.sliced(i).startsWith(frac);
        const bool isSqrt = !isFrac && tex.sliced(i).startsWith(sqrt);
        if (isFrac || isSqrt) {
            const qsizetype first = i + 5;
            const auto firstLength = bracedGroupLength(tex, first);
            if (firstLength && isSqrt) {
                out += u"√("_s + rewriteStructures(tex.sliced(first + 1, *firstLength - 2)) + u')';
                i = first + *firstLength;
                continue;
            }
            if (firstLength) {
                const qsizetype second = skipBlanks(tex, first + *firstLength);
                if (const auto secondLength = bracedGroupLength(tex, second)) {
                    out += u'(' + rewriteStructures(tex.sliced(first + 1, *firstLength - 2)) + u")⁄("_s +
                           rewriteStructures(tex.sliced(second + 1, *secondLength - 2)) + u')';
                    i = second + *secondLength;
                    continue;
                }
            }
        }
        out += tex[i];
        ++i;
    }
    return out;
}

}  // namespace

QString texDisplayText(const QString& tex) {
    static const QRegularExpression command =
        compilePattern(QStringLiteral(R"re(\\([A-Za-z]+)(?![A-Za-z]))re"));
    static const QRegularExpression exponent = compilePattern(QStringLiteral(R"re(\^\{?([0-9+\-]+)\}?)re"));

    QString text = rewriteStructures(tex);

    QString withSymbols;
    qsizetype copied = 0;
    for (auto it = command.globalMatch(text); it.hasNext();) {
        const QRegularExpressionMatch match = it.next();
        const auto symbol = symbolCommands().constFind(match.captured(1));
        if (symbol == symbolCommands().constEnd()) continue;
        withSymbols += QStringView(text).sliced(copied, match.capturedStart() - copied);
        withSymbols += *symbol;
        copied = match.capturedEnd();
    }
    withSymbols += QStringView(text).sliced(copied);

    QString result;
    copied = 0;
    for (auto it = exponent.globalMatch(withSymbols); it.hasNext();) {
        const QRegularExpressionMatch match = it.next();
        result += QStringView(withSymbols).sliced(copied, match.capturedStart() - copied);
        for (const QChar c : match.capturedView(1)) result += superscriptOf(c);
        copied = match.capturedEnd();
    }
    result += QStringView(withSymbols).sliced(copied);
    return result;
}

}  // namespace mossly::markdown
