#include "alert/ReadableAlert.h"

#include <QLabel>
#include <QMessageBox>

#include <algorithm>

namespace {

// Room for the whole title in the window manager's title bar beside its buttons, and for the
// message in lines of a readable length.
constexpr int alertTextWidth = 440;

} // namespace

void makeReadable(QMessageBox& alert) {
    const int titleWidth = alert.fontMetrics().horizontalAdvance(alert.windowTitle());
    alert.setStyleSheet(QStringLiteral("QLabel#qt_msgbox_informativelabel { min-width: %1px; }")
                            .arg(std::max(alertTextWidth, 2 * titleWidth)));
    for (QLabel* text : alert.findChildren<QLabel*>()) {
        if (!text->text().isEmpty()) {
            text->setTextInteractionFlags(Qt::TextSelectableByMouse | Qt::TextSelectableByKeyboard);
        }
    }
}
