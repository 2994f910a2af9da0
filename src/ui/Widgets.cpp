#include "ui/Widgets.h"

#include "controller/TessarelController.h"
#include "ui/Appearance.h"
#include "ui/Chrome.h"
#include "ui/ViewArithmetic.h"

#include <QBoxLayout>
#include <QLabel>
#include <QPainter>
#include <QPainterPath>
#include <QPushButton>

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
                           Appearance::symbol(symbol_, color_, side, this));
    }

private:
    QString symbol_;
    QColor color_;
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

void RoundedBox::paintEvent(QPaintEvent*) {
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    QPainterPath shape;
    shape.addRoundedRect(QRectF(rect()).adjusted(0.5, 0.5, -0.5, -0.5), radius_, radius_);
    painter.fillPath(shape, Appearance::primary(0.025));
    painter.strokePath(shape, QPen(Appearance::primary(strokeOpacity_), 1));
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

Meter::Meter(double level, QWidget* parent) : QWidget(parent), level_(level) {
    setObjectName(QStringLiteral("meter"));
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
    label_ = textLabel(text, 17, QFont::Normal, Appearance::secondaryText(), this);
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
    auto* titleLabel = textLabel(title, 25, QFont::DemiBold, Appearance::primaryText(), this);
    titleLabel->setObjectName(QStringLiteral("headerTitle"));
    layout->addWidget(titleLabel);
    layout->addStretch(1);
    layout->addWidget(new CloseButton(std::move(close), this));
}

QLabel* symbolLabel(const QString& symbol, const QColor& tint, int side, QWidget* parent) {
    auto* label = new QLabel(parent);
    label->setPixmap(Appearance::symbol(symbol, tint, side, parent));
    label->setFixedSize(side, side);
    return label;
}

QLabel* textLabel(const QString& text, int pixelSize, QFont::Weight weight, const QColor& color,
                  QWidget* parent) {
    auto* label = new QLabel(text, parent);
    Appearance::styleLabel(*label, pixelSize, weight, color);
    return label;
}

QPushButton* prominentButton(const QString& title, const QString& symbol, const QColor& tint,
                             int pixelSize, int horizontalPadding, int height, QWidget* parent) {
    auto* button = new QPushButton(title, parent);
    button->setIcon(Appearance::symbolIcon(symbol, Qt::white, pixelSize));
    button->setIconSize(QSize(pixelSize, pixelSize));
    button->setFont(Appearance::font(pixelSize, QFont::DemiBold));
    button->setFixedHeight(height);
    button->setCursor(Qt::PointingHandCursor);
    button->setStyleSheet(QStringLiteral("QPushButton { color: white; background: %1; border: none;"
                                         " border-radius: 10px; padding: 0 %2px; }"
                                         "QPushButton:hover { background: %3; }"
                                         "QPushButton:pressed { background: %4; }")
                              .arg(tint.name())
                              .arg(horizontalPadding)
                              .arg(tint.lighter(108).name(), tint.darker(115).name()));
    return button;
}
