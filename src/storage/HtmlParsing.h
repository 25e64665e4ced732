#pragma once

#include <gumbo.h>

#include <QByteArray>
#include <QString>
#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <optional>
#include <string_view>
#include <utility>
#include <vector>

// Gumbo, hardened for any input a note or a web page may hold: no recursion
// over the tree, no aborts on foreign content, bounded error records.
namespace mossly::html {

// Memory for one parse, released all at once. Gumbo's own gumbo_destroy_output
// recurses once per nesting level and overflows the stack on deeply nested input.
// Blocks gumbo frees early stay until the end, which costs little: most of what
// a parse allocates is the tree it returns.
class ParseArena {
  public:
    ParseArena() = default;
    ParseArena(const ParseArena&) = delete;
    ParseArena& operator=(const ParseArena&) = delete;
    ~ParseArena() {
        for (void* chunk : chunks_) std::free(chunk);
    }

    static void* allocate(void* arena, size_t size) { return static_cast<ParseArena*>(arena)->take(size); }
    static void deallocate(void*, void*) {}

  private:
    static constexpr size_t chunkSize = 64 * 1024;
    static constexpr size_t alignment = alignof(std::max_align_t);

    void* take(size_t size) {
        size = std::max<size_t>(alignment, (size + alignment - 1) & ~(alignment - 1));
        if (size > left_) {
            const bool large = size > chunkSize / 4;
            void* chunk = std::malloc(large ? size : chunkSize);
            if (!chunk) return nullptr;
            chunks_.push_back(chunk);
            if (large) return chunk;
            next_ = static_cast<char*>(chunk);
            left_ = chunkSize;
        }
        void* block = next_;
        next_ += size;
        left_ -= size;
        return block;
    }

    std::vector<void*> chunks_;
    char* next_ = nullptr;
    size_t left_ = 0;
};

inline bool isTagNameEnd(const QByteArray& bytes, qsizetype at) {
    return at == bytes.size() || std::string_view(" \t\n\r\f/>").find(bytes.at(at)) != std::string_view::npos;
}

// Gumbo 0.10.1 aborts on some SVG and MathML content inside tables (a <select>
// in an integration point, CDATA in <annotation-xml>, …). The parser therefore
// sees <svg> and <math> renamed to unknown HTML elements of the same length, so
// every offset still matches the author's text, which is never changed.
inline QByteArray withoutForeignContent(const QByteArray& bytes) {
    QByteArray renamed = bytes;
    for (qsizetype at = bytes.indexOf('<'); at >= 0; at = bytes.indexOf('<', at + 1)) {
        qsizetype name = at + 1;
        if (name < bytes.size() && bytes.at(name) == '/') ++name;
        for (const std::string_view foreign : {std::string_view("svg"), std::string_view("math")}) {
            const auto length = static_cast<qsizetype>(foreign.size());
            if (bytes.size() - name < length || !isTagNameEnd(bytes, name + length)) continue;
            if (qstrnicmp(bytes.constData() + name, foreign.data(), static_cast<size_t>(length)) != 0)
                continue;
            renamed[name] = 'x';
        }
    }
    return renamed;
}

// One gumbo parse of a UTF-8 buffer.
class ParsedHtml {
  public:
    // `adjust` may change the parser's copy further, keeping its length.
    using InputAdjustment = QByteArray (*)(QByteArray parserInput);

    explicit ParsedHtml(QByteArray utf8, InputAdjustment adjust = nullptr)
        : utf8_(std::move(utf8)), parserInput_(parserInputFor(utf8_, adjust)) {
        GumboOptions options = kGumboDefaultOptions;
        // Unlimited error records copy the open-element stack each time: quadratic memory.
        options.max_errors = 0;
        options.allocator = &ParseArena::allocate;
        options.deallocator = &ParseArena::deallocate;
        options.userdata = &arena_;
        output_ = gumbo_parse_with_options(&options, parserInput_.constData(),
                                           static_cast<size_t>(parserInput_.size()));
    }
    ParsedHtml(const ParsedHtml&) = delete;
    ParsedHtml& operator=(const ParsedHtml&) = delete;

    const QByteArray& bytes() const { return utf8_; }
    const GumboNode* document() const { return output_ ? output_->document : nullptr; }
    const GumboNode* root() const { return output_ ? output_->root : nullptr; }

    // The byte range of a piece of source text, when it really lies in the buffer.
    std::optional<std::pair<qsizetype, qsizetype>> span(const GumboStringPiece& piece) const {
        if (!piece.data || piece.length == 0) return std::nullopt;
        const char* begin = parserInput_.constData();
        if (piece.data < begin || piece.data > begin + utf8_.size()) return std::nullopt;
        const qsizetype offset = piece.data - begin;
        const auto length = static_cast<qsizetype>(piece.length);
        if (length > utf8_.size() - offset) return std::nullopt;
        return std::pair{offset, offset + length};
    }

    // The first child element of the root with this tag.
    const GumboNode* rootChild(GumboTag tag) const {
        const GumboNode* html = root();
        if (!html || html->type != GUMBO_NODE_ELEMENT) return nullptr;
        const GumboVector& children = html->v.element.children;
        for (unsigned i = 0; i < children.length; ++i) {
            const auto* child = static_cast<const GumboNode*>(children.data[i]);
            if (child->type == GUMBO_NODE_ELEMENT && child->v.element.tag == tag) return child;
        }
        return nullptr;
    }

  private:
    static QByteArray parserInputFor(const QByteArray& utf8, InputAdjustment adjust) {
        QByteArray input = withoutForeignContent(utf8);
        if (!adjust) return input;
        QByteArray adjusted = adjust(input);
        return adjusted.size() == input.size() ? adjusted : input;
    }

    QByteArray utf8_;
    const QByteArray parserInput_;  // same length as utf8_; gumbo's pointers point into it
    ParseArena arena_;
    GumboOutput* output_ = nullptr;
};

inline bool isElement(const GumboNode* node) {
    return node->type == GUMBO_NODE_ELEMENT || node->type == GUMBO_NODE_TEMPLATE;
}

// Visits every element below `from` in document order, without recursion (inputs nest arbitrarily deep).
template <typename Visit>
void forEachElement(const GumboNode* from, Visit visit) {
    if (!from) return;
    std::vector<const GumboNode*> pending{from};
    while (!pending.empty()) {
        const GumboNode* node = pending.back();
        pending.pop_back();
        const GumboVector* children = nullptr;
        if (node->type == GUMBO_NODE_DOCUMENT) {
            children = &node->v.document.children;
        } else if (isElement(node)) {
            visit(node);
            children = &node->v.element.children;
        }
        if (!children) continue;
        for (unsigned i = children->length; i > 0; --i) {
            pending.push_back(static_cast<const GumboNode*>(children->data[i - 1]));
        }
    }
}

inline QString attribute(const GumboNode* element, const char* name) {
    const GumboAttribute* found = gumbo_get_attribute(&element->v.element.attributes, name);
    return found && found->value ? QString::fromUtf8(found->value) : QString();
}

}  // namespace mossly::html
