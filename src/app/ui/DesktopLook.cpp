#include "DesktopLook.h"

#include <QApplication>
#include <QIcon>
#include <QProxyStyle>

namespace mossly {

namespace {

class DesktopButtonStyle : public QProxyStyle {
public:
    using QProxyStyle::QProxyStyle;

    int styleHint(StyleHint hint, const QStyleOption* option, const QWidget* widget,
                  QStyleHintReturn* returnData) const override {
        if (hint == SH_DialogButtonBox_ButtonsHaveIcons) {
            return QIcon::hasThemeIcon(QStringLiteral("dialog-ok")) &&
                   QProxyStyle::styleHint(hint, option, widget, returnData);
        }
        return QProxyStyle::styleHint(hint, option, widget, returnData);
    }
};

}  // namespace

void followDesktopLook() {
    if (dynamic_cast<DesktopButtonStyle*>(QApplication::style())) return;
    QApplication::setStyle(new DesktopButtonStyle(QApplication::style()->name()));
}

}  // namespace mossly
