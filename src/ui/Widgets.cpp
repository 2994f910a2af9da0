#include "ui/Widgets.h"

#include "controller/TessarelController.h"
#include "ui/Chrome.h"
#include "ui/ViewArithmetic.h"

#include <QApplication>
#include <QBoxLayout>
#include <QKeyEvent>
#include <QPainter>
#include <QPainterPath>

namespace {

// The symbol of a header: tinted, on a rounded tile of its own colour.
class SymbolTile : public QWidget {
public:
    SymbolTile(const QString& symbol, const QColor& color, QWidget* parent = nullptr)
        : QWidget(parent), symbol_(symbol), color_(color) {
        setFixedSize(54, 54);
    }

protected:
    void paintEvent(QPaintEvent*) override {
        QPainter painter(this);
        painter.setRenderHint(QPainter::Antialiasing);
        QPainterPath tile;
        tile.addRoundedRect(rect(), 12, 12);
        QColor background = color_;
        background.setAlphaF(0.1F);
        painter.fillPath(tile, background);
        constexpr int side = 29;
        painter.drawPixmap((width() - side) / 2, (height() - side) / 2,
                           Appearance::symbol(symbol_, color_, side, painter));
    }

private:
    QString symbol_;
    QColor color_;
};

constexpr int symbolSpacing = 8;

// Follows whether the keyboard or the pointer was used last, for the whole application.
class FocusVisibility : public QObject {
public:
    static bool keyboardInUse() {
        static FocusVisibility* instance = [] {
            auto* filter = new FocusVisibility(qApp);
            qApp->installEventFilter(filter);
            return filter;
        }();
        return instance->keyboardInUse_;
    }

protected:
    bool eventFilter(QObject* watched, QEvent* event) override {
        if (event->type() == QEvent::KeyPress) {
            const int key = static_cast<QKeyEvent*>(event)->key();
            if (key == Qt::Key_Tab || key == Qt::Key_Backtab) {
                keyboardInUse_ = true;
            }
        } else if (event->type() == QEvent::MouseButtonPress) {
            keyboardInUse_ = false;
        }
        return QObject::eventFilter(watched, event);
    }

private:
    using QObject::QObject;
    bool keyboardInUse_ = false;
};

} // namespace

ControllerView::ControllerView(TessarelController& controller_, QWidget* parent)
    : QWidget(parent), controller(controller_) {
    observation_ = controller.objectWillChange.subscribe([this] {
        if (renderQueued_) {
            return;
        }
        renderQueued_ = true;
        QMetaObject::invokeMethod(
            this,
            [this] {
                renderQueued_ = false;
                render();
            },
            Qt::QueuedConnection);
    });
}

bool showsFocusRing(const QWidget& widget) {
    return FocusVisibility::keyboardInUse() && widget.hasFocus();
}

bool clickOnReturn(QAbstractButton& button, const QKeyEvent& event) {
    if (event.key() != Qt::Key_Return && event.key() != Qt::Key_Enter) {
        return false;
    }
    if (event.modifiers() != Qt::NoModifier && event.modifiers() != Qt::KeypadModifier) {
        return false;
    }
    button.animateClick();
    return true;
}

TextLabel::TextLabel(const QString& text, int pixelSize, QFont::Weight weight, Appearance::Ink ink,
                     QWidget* parent)
    : QLabel(text, parent), ink_(ink) {
    setFont(Appearance::font(pixelSize, weight));
}

void TextLabel::setElidedInTheMiddle(bool elided) {
    elided_ = elided;
    setSizePolicy(elided ? QSizePolicy::Ignored : QSizePolicy::Preferred,
                  sizePolicy().verticalPolicy());
    updateGeometry();
}

QSize TextLabel::minimumSizeHint() const {
    if (!elided_) {
        return QLabel::minimumSizeHint();
    }
    return {fontMetrics().horizontalAdvance(QStringLiteral("W\u2026W")),
            QLabel::minimumSizeHint().height()};
}

QString TextLabel::shownText() const {
    return elided_ ? fontMetrics().elidedText(text(), Qt::ElideMiddle, contentsRect().width())
                   : text();
}

void TextLabel::paintEvent(QPaintEvent*) {
    QPainter painter(this);
    painter.setFont(font());
    painter.setPen(ink_.resolve());
    painter.drawText(contentsRect(), static_cast<int>(alignment()), shownText());
}

SymbolView::SymbolView(const QString& symbol, Appearance::Ink ink, int side, QWidget* parent)
    : QWidget(parent), symbol_(symbol), ink_(ink), side_(side) {
    setFixedSize(side, side);
}

void SymbolView::paintEvent(QPaintEvent*) {
    QPainter painter(this);
    painter.drawPixmap((width() - side_) / 2, (height() - side_) / 2,
                       Appearance::symbol(symbol_, ink_.resolve(), side_, painter));
}

Divider::Divider(Qt::Orientation orientation, QWidget* parent) : QWidget(parent) {
    if (orientation == Qt::Horizontal) {
        setFixedHeight(1);
    } else {
        setFixedWidth(1);
    }
}

void Divider::paintEvent(QPaintEvent*) {
    QPainter(this).fillRect(rect(), Appearance::primary(0.1));
}

RoundedBox::RoundedBox(double radius, double strokeOpacity, QWidget* parent)
    : QWidget(parent), radius_(radius), strokeOpacity_(strokeOpacity) {}

void RoundedBox::setRingsFocusWithin() {
    ringsFocusWithin_ = true;
    connect(qApp, &QApplication::focusChanged, this, [this](QWidget* old, QWidget* now) {
        if ((old != nullptr && isAncestorOf(old)) || (now != nullptr && isAncestorOf(now))) {
            update();
        }
    });
}

void RoundedBox::paintEvent(QPaintEvent*) {
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    QPainterPath shape;
    shape.addRoundedRect(QRectF(rect()).adjusted(0.5, 0.5, -0.5, -0.5), radius_, radius_);
    painter.fillPath(shape, Appearance::primary(0.025));
    painter.strokePath(shape, QPen(Appearance::primary(strokeOpacity_), 1));
    const QWidget* focused = QApplication::focusWidget();
    if (ringsFocusWithin_ && focused != nullptr && isAncestorOf(focused) &&
        showsFocusRing(*focused)) {
        Appearance::paintFocusRing(painter, rect(), radius_);
    }
}

Dot::Dot(const QColor& color, int diameter, QWidget* parent) : QWidget(parent), color_(color) {
    setFixedSize(diameter, diameter);
}

void Dot::paintEvent(QPaintEvent*) {
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    painter.setPen(Qt::NoPen);
    painter.setBrush(color_);
    painter.drawEllipse(rect());
}

ProminentButton::ProminentButton(const QString& title, const QString& symbol, QColor (*fill)(),
                                 int pixelSize, int horizontalPadding, int height, QWidget* parent)
    : QPushButton(title, parent), symbol_(symbol), fill_(fill), pixelSize_(pixelSize),
      horizontalPadding_(horizontalPadding) {
    setFont(Appearance::font(pixelSize, QFont::DemiBold));
    setFixedHeight(height);
    setCursor(Qt::PointingHandCursor);
    setFocusPolicy(Qt::TabFocus);
}

QSize ProminentButton::sizeHint() const {
    const int textWidth = fontMetrics().horizontalAdvance(text());
    return {2 * horizontalPadding_ + pixelSize_ + symbolSpacing + textWidth, height()};
}

void ProminentButton::paintEvent(QPaintEvent*) {
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    QColor fill = fill_();
    if (isDown()) {
        fill = fill.darker(115);
    } else if (underMouse()) {
        fill = fill.lighter(108);
    }
    const QRectF shape = QRectF(rect()).adjusted(0.5, 0.5, -0.5, -0.5);
    QPainterPath path;
    path.addRoundedRect(shape, 10, 10);
    painter.fillPath(path, fill);
    if (showsFocusRing(*this)) {
        // Inside the fill, in white, so that it shows on the accent-coloured button too.
        painter.setPen(QPen(Qt::white, 2));
        painter.drawRoundedRect(shape.adjusted(3, 3, -3, -3), 7, 7);
    }
    const int contentWidth = sizeHint().width() - 2 * horizontalPadding_;
    const int left = (width() - contentWidth) / 2;
    painter.drawPixmap(left, (height() - pixelSize_) / 2,
                       Appearance::symbol(symbol_, Qt::white, pixelSize_, painter));
    painter.setFont(font());
    painter.setPen(Qt::white);
    painter.drawText(QRect(left + pixelSize_ + symbolSpacing, 0, width(), height()),
                     Qt::AlignLeft | Qt::AlignVCenter, text());
}

void ProminentButton::keyPressEvent(QKeyEvent* event) {
    if (!clickOnReturn(*this, *event)) {
        QPushButton::keyPressEvent(event);
    }
}

LinkButton::LinkButton(int pixelSize, QWidget* parent) : QPushButton(parent) {
    setFont(Appearance::font(pixelSize));
    setCursor(Qt::PointingHandCursor);
    setFocusPolicy(Qt::TabFocus);
}

QSize LinkButton::sizeHint() const {
    return {fontMetrics().horizontalAdvance(text()) + 12, fontMetrics().height() + 10};
}

void LinkButton::paintEvent(QPaintEvent*) {
    QPainter painter(this);
    painter.setFont(font());
    painter.setPen(Appearance::accent());
    painter.drawText(rect(), Qt::AlignCenter, text());
    if (showsFocusRing(*this)) {
        Appearance::paintFocusRing(painter, rect(), 6);
    }
}

void LinkButton::keyPressEvent(QKeyEvent* event) {
    if (!clickOnReturn(*this, *event)) {
        QPushButton::keyPressEvent(event);
    }
}

Meter::Meter(double level, QWidget* parent) : QWidget(parent), level_(level) {
    setObjectName(QStringLiteral("meter"));
    setAccessibleName(QStringLiteral("Audio Level"));
    setFixedSize(sizeHint());
}

void Meter::setLevel(double level) {
    if (level != level_) {
        level_ = level;
        update();
    }
}

QSize Meter::sizeHint() const {
    const double width =
        MeterBars::count * MeterBars::width + (MeterBars::count - 1) * MeterBars::spacing;
    return {static_cast<int>(width), static_cast<int>(MeterBars::height(8))};
}

void Meter::paintEvent(QPaintEvent*) {
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    painter.setPen(Qt::NoPen);
    QColor unlit = Appearance::secondaryText();
    unlit.setAlphaF(static_cast<float>(MeterBars::unlitOpacity));
    for (int i = 0; i < MeterBars::count; ++i) {
        const double barHeight = MeterBars::height(i);
        const QRectF bar(i * (MeterBars::width + MeterBars::spacing), height() - barHeight,
                         MeterBars::width, barHeight);
        painter.setBrush(MeterBars::isLit(i, level_)
                             ? QColor::fromHsvF(static_cast<float>(MeterBars::hue(i)),
                                                static_cast<float>(MeterBars::saturation),
                                                static_cast<float>(MeterBars::brightness))
                             : unlit);
        painter.drawRoundedRect(bar, MeterBars::cornerRadius, MeterBars::cornerRadius);
    }
}

ReadyLabel::ReadyLabel(const QString& text, QWidget* parent) : QWidget(parent) {
    auto* layout = new QHBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(12);
    layout->addWidget(new Dot(Appearance::color(TessarelColor::green), 16, this));
    label_ = new TextLabel(text, 17, QFont::Normal, Appearance::Tone::secondary, this);
    label_->setObjectName(QStringLiteral("readyText"));
    layout->addWidget(label_);
}

QString ReadyLabel::text() const {
    return label_->text();
}

Header::Header(const QString& symbol, const QColor& color, const QString& title,
               std::function<void()> close, QWidget* parent)
    : QWidget(parent) {
    setObjectName(QStringLiteral("header"));
    setFixedHeight(92);
    auto* layout = new QHBoxLayout(this);
    layout->setContentsMargins(28, 19, 28, 19);
    layout->setSpacing(18);
    layout->addWidget(new SymbolTile(symbol, color, this));
    auto* titleLabel = new TextLabel(title, 25, QFont::DemiBold, Appearance::Tone::primary, this);
    titleLabel->setObjectName(QStringLiteral("headerTitle"));
    layout->addWidget(titleLabel);
    layout->addStretch(1);
    layout->addWidget(new CloseButton(std::move(close), this));
}
