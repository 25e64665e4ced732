#pragma once

#include <QString>

namespace mossly::markdown {

// The text drawn for a TeX source: symbol commands become the characters they
// denote, "\sqrt{x}" becomes "√(x)", "\frac{a}{b}" becomes "(a)⁄(b)" and a caret
// exponent of digits and signs becomes superscript characters. Anything else is
// drawn as typed; an unbalanced group leaves its command as it stands.
QString texDisplayText(const QString& tex);

}  // namespace mossly::markdown
