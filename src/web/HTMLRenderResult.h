#pragma once

#include <QMap>
#include <QString>

namespace mossly {

// An HTML note made safe to show: what the web view loads, and the parts the
// HTML editor needs to put the note back together.
struct HTMLRenderResult {
    QString html;                           // the complete page
    QString headHTML;                       // the cleaned inner HTML of the head
    QString bodyHTML;                       // the cleaned inner HTML of the body
    QMap<QString, QString> bodyAttributes;  // the body element's attributes, cleaned
    QString styleSheet;                     // the base <style> element put before the note's head
    int blockedElements = 0;                // elements and attributes removed

    bool operator==(const HTMLRenderResult&) const = default;
};

}  // namespace mossly
