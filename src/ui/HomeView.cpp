#include "ui/HomeView.h"

#include "controller/TessarelController.h"
#include "ui/Appearance.h"
#include "ui/Chrome.h"
#include "ui/ViewArithmetic.h"

#include <QApplication>
#include <QBoxLayout>
#include <QKeyEvent>
#include <QPainter>
#include <QPainterPath>
#include <QPushButton>

namespace {

// The keyboard hint of a home row: a label on a faint rounded plate.
class Badge : public TextLabel {
public:
    Badge(const QString& text, QWidget* parent)
        : TextLabel(text, 14, QFont::Medium, Appearance::Tone::secondary, parent) {
        setContentsMargins(10, 7, 10, 7);
    }

protected:
    void paintEvent(QPaintEvent* event) override {
        {
            QPainter painter(this);
            painter.setRenderHint(QPainter::Antialiasing);
            QPainterPath plate;
            plate.addRoundedRect(rect(), 9, 9);
            painter.fillPath(plate, Appearance::primary(0.035));
        }
        TextLabel::paintEvent(event);
    }
};

constexpr int rowHeight = 92;
// At the panel's smallest the rows give up a little height, so that the footer stays whole.
constexpr int rowMinimumHeight = 86;

QString shortcutHint(QChar key) {
    return QStringLiteral("Ctrl+%1").arg(key);
}

} // namespace

HomeRow::HomeRow(const QString& icon, const QColor& color, const QString& title,
                 const QString& subtitle, const QString& shortcut, std::function<void()> action,
                 QWidget* parent)
    : QAbstractButton(parent) {
    setText(title);
    setAccessibleName(title);
    setAccessibleDescription(subtitle);
    setMinimumHeight(rowMinimumHeight);
    setMaximumHeight(rowHeight);
    setFocusPolicy(Qt::TabFocus);
    setCursor(Qt::PointingHandCursor);
    auto* layout = new QHBoxLayout(this);
    layout->setContentsMargins(26, 0, 26, 0);
    layout->setSpacing(20);

    auto* iconView = new SymbolView(icon, color, 30, this);
    iconView->setFixedWidth(52);
    layout->addWidget(iconView);

    auto* lines = new QVBoxLayout;
    lines->setSpacing(5);
    lines->addStretch(1);
    auto* titleLabel = new TextLabel(title, 18, QFont::DemiBold, Appearance::Tone::primary, this);
    titleLabel->setObjectName(QStringLiteral("rowTitle"));
    lines->addWidget(titleLabel);
    auto* subtitleLabel =
        new TextLabel(subtitle, 15, QFont::Normal, Appearance::Tone::secondary, this);
    subtitleLabel->setObjectName(QStringLiteral("rowSubtitle"));
    lines->addWidget(subtitleLabel);
    lines->addStretch(1);
    layout->addLayout(lines);
    layout->addStretch(1);

    auto* badge = new Badge(shortcut, this);
    badge->setObjectName(QStringLiteral("shortcutBadge"));
    layout->addWidget(badge, 0, Qt::AlignVCenter);

    for (QWidget* child : findChildren<QWidget*>()) {
        child->setAttribute(Qt::WA_TransparentForMouseEvents);
    }
    connect(this, &QAbstractButton::clicked, this, [action = std::move(action)] { action(); });
}

QSize HomeRow::sizeHint() const {
    return {layout()->sizeHint().width(), rowHeight};
}

void HomeRow::paintEvent(QPaintEvent*) {
    if (showsFocusRing(*this)) {
        QPainter painter(this);
        Appearance::paintFocusRing(painter, QRectF(rect()).adjusted(4, 4, -4, -4), 10);
    }
}

void HomeRow::keyPressEvent(QKeyEvent* event) {
    if (!clickOnReturn(*this, *event)) {
        QAbstractButton::keyPressEvent(event);
    }
}

HomeView::HomeView(TessarelController& controller_, bool compact,
                   std::function<void(TessarelMode)> onSelect, QWidget* parent)
    : ControllerView(controller_, parent), onSelect_(std::move(onSelect)) {
    setObjectName(compact ? QStringLiteral("compactHomeView") : QStringLiteral("homeView"));
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(0);

    auto* titleBar = new QWidget(this);
    titleBar->setObjectName(QStringLiteral("titleBar"));
    titleBar->setFixedHeight(compact ? 88 : 82);
    auto* titleLayout = new QHBoxLayout(titleBar);
    titleLayout->setContentsMargins(28, 0, 28, 0);
    if (compact) {
        // In the panel the window manager's title bar names Tessarel; only the frameless popup
        // names it itself.
        titleLayout->addWidget(new SymbolView(
            QStringLiteral("sparkles"), Appearance::color(TessarelColor::amber), 25, titleBar));
        titleLayout->addWidget(new TextLabel(QStringLiteral("Tessarel"), 22, QFont::Bold,
                                             Appearance::Tone::primary, titleBar));
    }
    titleLayout->addStretch(1);
    auto* gear = new GearMenuButton([this] { controller.showAbout(); },
                                    [] { QApplication::quit(); }, titleBar);
    titleLayout->addWidget(gear);
    layout->addWidget(titleBar);

    auto* cardHolder = new QWidget(this);
    auto* cardHolderLayout = new QVBoxLayout(cardHolder);
    cardHolderLayout->setContentsMargins(24, 0, 24, compact ? 20 : 0);
    auto* card = new RoundedBox(14, 0.11, cardHolder);
    card->setObjectName(QStringLiteral("homeCard"));
    auto* cardLayout = new QVBoxLayout(card);
    cardLayout->setContentsMargins(0, 0, 0, 0);
    cardLayout->setSpacing(0);
    const auto addDivider = [card, cardLayout] {
        auto* inset = new QHBoxLayout;
        inset->setContentsMargins(92, 0, 0, 0);
        inset->addWidget(new Divider(Qt::Horizontal, card));
        cardLayout->addLayout(inset);
    };
    const auto addRow = [this, card, cardLayout](const QString& objectName, const QString& icon,
                                                 const RGBColor& color, const QString& title,
                                                 const QString& subtitle, QChar key,
                                                 TessarelMode mode) {
        auto* row = new HomeRow(
            icon, Appearance::color(color), title, subtitle, shortcutHint(key),
            [this, mode] { select(mode); }, card);
        row->setObjectName(objectName);
        cardLayout->addWidget(row);
    };
    addRow(QStringLiteral("recordAudioRow"), QStringLiteral("mic"), TessarelColor::audio,
           QStringLiteral("Record Audio"), QStringLiteral("Record system audio"), QLatin1Char('R'),
           TessarelMode::audioSetup);
    addDivider();
    addRow(QStringLiteral("recordVideoRow"), QStringLiteral("viewfinder"), TessarelColor::video,
           QStringLiteral("Record Video"), QStringLiteral("Record screen area"), QLatin1Char('V'),
           TessarelMode::videoSetup);
    addDivider();
    addRow(QStringLiteral("takeSnapshotRow"), QStringLiteral("camera"), TessarelColor::snapshot,
           QStringLiteral("Take Snapshot"), QStringLiteral("Capture entire screen"),
           QLatin1Char('S'), TessarelMode::snapshotSetup);
    cardHolderLayout->addWidget(card);
    layout->addWidget(cardHolder);

    if (!compact) {
        // Gives way first when the panel is at its smallest.
        layout->addSpacing(0);
        layout->addStretch(18);
        auto* divider = new Divider(Qt::Horizontal, this);
        divider->setObjectName(QStringLiteral("footerDivider"));
        layout->addWidget(divider);
        auto* footer = new QWidget(this);
        footer->setObjectName(QStringLiteral("footer"));
        footer->setFixedHeight(64);
        auto* footerLayout = new QHBoxLayout(footer);
        footerLayout->setContentsMargins(28, 0, 28, 0);
        footerLayout->setSpacing(10);
        footerLayout->addWidget(new Dot(Appearance::color(TessarelColor::green), 12, footer));
        auto* ready = new TextLabel(QStringLiteral("Ready to capture"), 15, QFont::Normal,
                                    Appearance::Tone::secondary, footer);
        ready->setObjectName(QStringLiteral("readyText"));
        footerLayout->addWidget(ready);
        footerLayout->addStretch(1);
        showButton_ = new LinkButton(15, footer);
        showButton_->setObjectName(QStringLiteral("showLastCaptureButton"));
        connect(showButton_, &QPushButton::clicked, this,
                [this] { controller.revealLastCapture(); });
        footerLayout->addWidget(showButton_);
        layout->addWidget(footer);
    } else {
        layout->addStretch(1);
    }
    render();
}

void HomeView::render() {
    if (showButton_ == nullptr) {
        return;
    }
    const std::optional<QUrl>& saved = controller.lastSavedURL();
    showButton_->setVisible(saved.has_value());
    if (saved) {
        showButton_->setText(QStringLiteral("Show ") + saved->fileName());
    }
}

void HomeView::select(TessarelMode mode) {
    if (onSelect_) {
        onSelect_(mode);
    } else {
        controller.show(mode);
    }
}
