#include "HtmlEntities.h"

#include <QHash>
#include <QRegularExpression>

#include "MarkdownText.h"

namespace mossly::markdown {

namespace {

struct NamedEntity {
    const char* name;
    char32_t codePoint;
};

// The named entities people actually type in notes: markup characters, spaces and
// dashes, quotes, currency, arrows, maths, Greek and the common Latin letters.
constexpr NamedEntity kNamedEntities[] = {
    {"amp", 0x26},      {"lt", 0x3C},       {"gt", 0x3E},        {"quot", 0x22},     {"apos", 0x27},
    {"nbsp", 0xA0},     {"ensp", 0x2002},   {"emsp", 0x2003},    {"thinsp", 0x2009}, {"zwnj", 0x200C},
    {"zwj", 0x200D},    {"lrm", 0x200E},    {"rlm", 0x200F},     {"shy", 0xAD},      {"ndash", 0x2013},
    {"mdash", 0x2014},  {"hellip", 0x2026}, {"lsquo", 0x2018},   {"rsquo", 0x2019},  {"sbquo", 0x201A},
    {"ldquo", 0x201C},  {"rdquo", 0x201D},  {"bdquo", 0x201E},   {"laquo", 0xAB},    {"raquo", 0xBB},
    {"lsaquo", 0x2039}, {"rsaquo", 0x203A}, {"bull", 0x2022},    {"middot", 0xB7},   {"dagger", 0x2020},
    {"Dagger", 0x2021}, {"permil", 0x2030}, {"prime", 0x2032},   {"Prime", 0x2033},  {"oline", 0x203E},
    {"frasl", 0x2044},  {"copy", 0xA9},     {"reg", 0xAE},       {"trade", 0x2122},  {"sect", 0xA7},
    {"para", 0xB6},     {"deg", 0xB0},      {"micro", 0xB5},     {"iexcl", 0xA1},    {"iquest", 0xBF},
    {"cent", 0xA2},     {"pound", 0xA3},    {"curren", 0xA4},    {"yen", 0xA5},      {"euro", 0x20AC},
    {"brvbar", 0xA6},   {"uml", 0xA8},      {"ordf", 0xAA},      {"ordm", 0xBA},     {"not", 0xAC},
    {"macr", 0xAF},     {"acute", 0xB4},    {"cedil", 0xB8},     {"sup1", 0xB9},     {"sup2", 0xB2},
    {"sup3", 0xB3},     {"frac14", 0xBC},   {"frac12", 0xBD},    {"frac34", 0xBE},   {"plusmn", 0xB1},
    {"times", 0xD7},    {"divide", 0xF7},   {"minus", 0x2212},   {"lowast", 0x2217}, {"radic", 0x221A},
    {"prop", 0x221D},   {"infin", 0x221E},  {"ang", 0x2220},     {"and", 0x2227},    {"or", 0x2228},
    {"cap", 0x2229},    {"cup", 0x222A},    {"int", 0x222B},     {"there4", 0x2234}, {"sim", 0x223C},
    {"cong", 0x2245},   {"asymp", 0x2248},  {"ne", 0x2260},      {"equiv", 0x2261},  {"le", 0x2264},
    {"ge", 0x2265},     {"sub", 0x2282},    {"sup", 0x2283},     {"nsub", 0x2284},   {"sube", 0x2286},
    {"supe", 0x2287},   {"oplus", 0x2295},  {"otimes", 0x2297},  {"perp", 0x22A5},   {"sdot", 0x22C5},
    {"forall", 0x2200}, {"part", 0x2202},   {"exist", 0x2203},   {"empty", 0x2205},  {"nabla", 0x2207},
    {"isin", 0x2208},   {"notin", 0x2209},  {"ni", 0x220B},      {"prod", 0x220F},   {"sum", 0x2211},
    {"lceil", 0x2308},  {"rceil", 0x2309},  {"lfloor", 0x230A},  {"rfloor", 0x230B}, {"lang", 0x27E8},
    {"rang", 0x27E9},   {"larr", 0x2190},   {"uarr", 0x2191},    {"rarr", 0x2192},   {"darr", 0x2193},
    {"harr", 0x2194},   {"crarr", 0x21B5},  {"lArr", 0x21D0},    {"uArr", 0x21D1},   {"rArr", 0x21D2},
    {"dArr", 0x21D3},   {"hArr", 0x21D4},   {"loz", 0x25CA},     {"spades", 0x2660}, {"clubs", 0x2663},
    {"hearts", 0x2665}, {"diams", 0x2666},  {"check", 0x2713},   {"cross", 0x2717},  {"star", 0x2606},
    {"starf", 0x2605},  {"circ", 0x2C6},    {"tilde", 0x2DC},    {"fnof", 0x192},    {"weierp", 0x2118},
    {"image", 0x2111},  {"real", 0x211C},   {"alefsym", 0x2135}, {"Alpha", 0x391},   {"Beta", 0x392},
    {"Gamma", 0x393},   {"Delta", 0x394},   {"Epsilon", 0x395},  {"Zeta", 0x396},    {"Eta", 0x397},
    {"Theta", 0x398},   {"Iota", 0x399},    {"Kappa", 0x39A},    {"Lambda", 0x39B},  {"Mu", 0x39C},
    {"Nu", 0x39D},      {"Xi", 0x39E},      {"Omicron", 0x39F},  {"Pi", 0x3A0},      {"Rho", 0x3A1},
    {"Sigma", 0x3A3},   {"Tau", 0x3A4},     {"Upsilon", 0x3A5},  {"Phi", 0x3A6},     {"Chi", 0x3A7},
    {"Psi", 0x3A8},     {"Omega", 0x3A9},   {"alpha", 0x3B1},    {"beta", 0x3B2},    {"gamma", 0x3B3},
    {"delta", 0x3B4},   {"epsilon", 0x3B5}, {"zeta", 0x3B6},     {"eta", 0x3B7},     {"theta", 0x3B8},
    {"iota", 0x3B9},    {"kappa", 0x3BA},   {"lambda", 0x3BB},   {"mu", 0x3BC},      {"nu", 0x3BD},
    {"xi", 0x3BE},      {"omicron", 0x3BF}, {"pi", 0x3C0},       {"rho", 0x3C1},     {"sigmaf", 0x3C2},
    {"sigma", 0x3C3},   {"tau", 0x3C4},     {"upsilon", 0x3C5},  {"phi", 0x3C6},     {"chi", 0x3C7},
    {"psi", 0x3C8},     {"omega", 0x3C9},   {"thetasym", 0x3D1}, {"upsih", 0x3D2},   {"piv", 0x3D6},
    {"Agrave", 0xC0},   {"Aacute", 0xC1},   {"Acirc", 0xC2},     {"Atilde", 0xC3},   {"Auml", 0xC4},
    {"Aring", 0xC5},    {"AElig", 0xC6},    {"Ccedil", 0xC7},    {"Egrave", 0xC8},   {"Eacute", 0xC9},
    {"Ecirc", 0xCA},    {"Euml", 0xCB},     {"Igrave", 0xCC},    {"Iacute", 0xCD},   {"Icirc", 0xCE},
    {"Iuml", 0xCF},     {"ETH", 0xD0},      {"Ntilde", 0xD1},    {"Ograve", 0xD2},   {"Oacute", 0xD3},
    {"Ocirc", 0xD4},    {"Otilde", 0xD5},   {"Ouml", 0xD6},      {"Oslash", 0xD8},   {"Ugrave", 0xD9},
    {"Uacute", 0xDA},   {"Ucirc", 0xDB},    {"Uuml", 0xDC},      {"Yacute", 0xDD},   {"THORN", 0xDE},
    {"szlig", 0xDF},    {"agrave", 0xE0},   {"aacute", 0xE1},    {"acirc", 0xE2},    {"atilde", 0xE3},
    {"auml", 0xE4},     {"aring", 0xE5},    {"aelig", 0xE6},     {"ccedil", 0xE7},   {"egrave", 0xE8},
    {"eacute", 0xE9},   {"ecirc", 0xEA},    {"euml", 0xEB},      {"igrave", 0xEC},   {"iacute", 0xED},
    {"icirc", 0xEE},    {"iuml", 0xEF},     {"eth", 0xF0},       {"ntilde", 0xF1},   {"ograve", 0xF2},
    {"oacute", 0xF3},   {"ocirc", 0xF4},    {"otilde", 0xF5},    {"ouml", 0xF6},     {"oslash", 0xF8},
    {"ugrave", 0xF9},   {"uacute", 0xFA},   {"ucirc", 0xFB},     {"uuml", 0xFC},     {"yacute", 0xFD},
    {"thorn", 0xFE},    {"yuml", 0xFF},     {"Yuml", 0x178},     {"OElig", 0x152},   {"oelig", 0x153},
    {"Scaron", 0x160},  {"scaron", 0x161},
};

const QHash<QString, char32_t>& namedEntities() {
    static const QHash<QString, char32_t> table = [] {
        QHash<QString, char32_t> entries;
        for (const NamedEntity& entity : kNamedEntities)
            entries.insert(QString::fromLatin1(entity.name), entity.codePoint);
        return entries;
    }();
    return table;
}

QString fromCodePoint(char32_t codePoint) {
    if (codePoint == 0 || codePoint > 0x10FFFF || (codePoint >= 0xD800 && codePoint <= 0xDFFF)) {
        codePoint = 0xFFFD;
    }
    return QString::fromUcs4(&codePoint, 1);
}

}  // namespace

std::optional<QString> decodeHtmlEntity(QStringView entity) {
    if (entity.size() < 3 || entity.front() != u'&' || entity.back() != u';') return std::nullopt;
    const QStringView body = entity.sliced(1, entity.size() - 2);
    if (body.front() != u'#') {
        const auto& table = namedEntities();
        const auto it = table.constFind(body.toString());
        if (it == table.constEnd()) return std::nullopt;
        return fromCodePoint(*it);
    }
    QStringView digits = body.sliced(1);
    int base = 10;
    if (!digits.isEmpty() && (digits.front() == u'x' || digits.front() == u'X')) {
        digits = digits.sliced(1);
        base = 16;
    }
    if (digits.isEmpty()) return std::nullopt;
    // Overlong numbers are out of range rather than malformed.
    if (digits.size() > 8) return fromCodePoint(0x110000);
    bool ok = false;
    const uint value = digits.toUInt(&ok, base);
    if (!ok) return std::nullopt;
    return fromCodePoint(value);
}

const QRegularExpression& htmlEntityPattern() {
    static const QRegularExpression pattern =
        compilePattern(QStringLiteral(R"re(&(?:[A-Za-z][A-Za-z0-9]+|#[0-9]+|#[xX][0-9A-Fa-f]+);)re"));
    return pattern;
}

QString decodeHtmlEntities(const QString& text) {
    const QRegularExpression& entity = htmlEntityPattern();
    QString result;
    qsizetype copied = 0;
    auto it = entity.globalMatch(text);
    while (it.hasNext()) {
        const QRegularExpressionMatch match = it.next();
        const std::optional<QString> decoded = decodeHtmlEntity(match.capturedView());
        if (!decoded) continue;
        result += QStringView(text).sliced(copied, match.capturedStart() - copied);
        result += *decoded;
        copied = match.capturedEnd();
    }
    if (copied == 0) return text;
    result += QStringView(text).sliced(copied);
    return result;
}

}  // namespace mossly::markdown
