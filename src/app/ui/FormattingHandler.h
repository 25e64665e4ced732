#pragma once

namespace mossly {

// Implemented by an editor that can format its selection; the Bold and Italic
// commands act on the focused widget that offers it, and are disabled otherwise.
class FormattingHandler {
public:
    virtual ~FormattingHandler() = default;
    virtual void applyBold() = 0;
    virtual void applyItalic() = 0;
};

}  // namespace mossly
