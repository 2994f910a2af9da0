#include "ui/Chrome.h"

#include "ui/Appearance.h"
#include "ui/Widgets.h"

#include <QKeyEvent>
#include <QMenu>
#include <QPainter>
#include <QPainterPath>

ChromeButton::ChromeButton(const QString& symbol, int symbolSize, const QString& description,
                           QWidget* parent)
    : QAbstractButton(parent), symbol_(symbol), symbolSize_(symbolSize) {
    setFixedSize(44, 44);
    setAccessibleName(description);
    setToolTip(description);
    setFocusPolicy(Qt::TabFocus);
    setCursor(Qt::ArrowCursor);
}

void ChromeButton::paintEvent(QPaintEvent*) {
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    if (hovered_) {
        QPainterPath square;
        square.addRoundedRect(rect(), 10, 10);
        painter.fillPath(square, Appearance::primary(0.12));
    }
    const QColor tint = hovered_ ? Appearance::primaryText() : Appearance::secondaryText();
    const QPixmap pixmap = Appearance::symbol(symbol_, tint, symbolSize_, painter);
    const QPoint origin((width() - symbolSize_) / 2, (height() - symbolSize_) / 2);
    painter.drawPixmap(origin, pixmap);
    if (showsFocusRing(*this)) {
        Appearance::paintFocusRing(painter, rect(), 10);
    }
}

void ChromeButton::keyPressEvent(QKeyEvent* event) {
    if (!clickOnReturn(*this, *event)) {
        QAbstractButton::keyPressEvent(event);
    }
}

void ChromeButton::enterEvent(QEnterEvent* event) {
    hovered_ = true;
    update();
    QAbstractButton::enterEvent(event);
}

void ChromeButton::leaveEvent(QEvent* event) {
    hovered_ = false;
    update();
    QAbstractButton::leaveEvent(event);
}

GearMenuButton::GearMenuButton(std::function<void()> showAbout, std::function<void()> quit,
                               QWidget* parent)
    : ChromeButton(QStringLiteral("gear"), 22, QStringLiteral("Tessarel options"), parent),
      showAbout_(std::move(showAbout)), quit_(std::move(quit)) {
    setObjectName(QStringLiteral("gearButton"));
    connect(this, &QAbstractButton::clicked, this, &GearMenuButton::popUpMenu);
}

void GearMenuButton::setActions(std::function<void()> showAbout, std::function<void()> quit) {
    showAbout_ = std::move(showAbout);
    quit_ = std::move(quit);
}

void GearMenuButton::popUpMenu() {
    // A new menu on every click.
    auto* menu = new QMenu(this);
    menu->setObjectName(QStringLiteral("optionsMenu"));
    menu->setAttribute(Qt::WA_DeleteOnClose);
    Appearance::styleMenu(*menu);
    menu->addAction(QStringLiteral("About..."), this, [this] {
        if (showAbout_) {
            showAbout_();
        }
    });
    menu->addSeparator();
    // "q" picks Quit while the menu is open.
    menu->addAction(QStringLiteral("&Quit"), this, [this] {
        if (quit_) {
            quit_();
        }
    });
    menu_ = menu;
    // Right-aligned under the button, so that it stays over the panel.
    const QPoint anchor = mapToGlobal(QPoint(width(), height()));
    menu->popup(anchor - QPoint(menu->sizeHint().width(), 0));
    if (hasFocus()) {
        // Opened from the keyboard: the arrows start on the first item.
        menu->setActiveAction(menu->actions().constFirst());
    }
}

CloseButton::CloseButton(std::function<void()> action, QWidget* parent)
    : ChromeButton(QStringLiteral("xmark"), 20, QStringLiteral("Close"), parent),
      closeAction_(std::move(action)) {
    setObjectName(QStringLiteral("closeButton"));
    connect(this, &QAbstractButton::clicked, this, [this] {
        if (closeAction_) {
            closeAction_();
        }
    });
}

void CloseButton::setAction(std::function<void()> action) {
    closeAction_ = std::move(action);
}
