#include "ui/HomeView.h"

#include "controller/TessarelController.h"
#include "ui/Appearance.h"
#include "ui/Chrome.h"
#include "ui/ViewArithmetic.h"

#include <QApplication>
#include <QBoxLayout>
#include <QLabel>
#include <QPainter>
#include <QPainterPath>
#include <QPushButton>

namespace {

// The keyboard hint of a home row: a label on a faint rounded plate.
class Badge : public QLabel {
public:
    Badge(const QString& text, QWidget* parent) : QLabel(text, parent) {
        Appearance::styleLabel(*this, 14, QFont::Medium, Appearance::secondaryText());
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
        QLabel::paintEvent(event);
    }
};

QString shortcutHint(QChar key) {
    return QStringLiteral("Ctrl+%1").arg(key);
}

} // namespace

HomeRow::HomeRow(const QString& icon, const QColor& color, const QString& title,
                 const QString& subtitle, const QString& shortcut, std::function<void()> action,
                 QWidget* parent)
    : QAbstractButton(parent) {
    setText(title);
    setFixedHeight(92);
    setCursor(Qt::PointingHandCursor);
    auto* layout = new QHBoxLayout(this);
    layout->setContentsMargins(26, 0, 26, 0);
    layout->setSpacing(20);

    auto* iconLabel = symbolLabel(icon, color, 30, this);
    iconLabel->setFixedWidth(52);
    iconLabel->setAlignment(Qt::AlignCenter);
    layout->addWidget(iconLabel);

    auto* lines = new QVBoxLayout;
    lines->setSpacing(5);
    lines->addStretch(1);
    auto* titleLabel = textLabel(title, 18, QFont::DemiBold, Appearance::primaryText(), this);
    titleLabel->setObjectName(QStringLiteral("rowTitle"));
    lines->addWidget(titleLabel);
    auto* subtitleLabel = textLabel(subtitle, 15, QFont::Normal, Appearance::secondaryText(), this);
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
    return {layout()->sizeHint().width(), 92};
}

void HomeRow::paintEvent(QPaintEvent*) {}

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
    titleLayout->addWidget(symbolLabel(QStringLiteral("sparkles"),
                                       Appearance::color(TessarelColor::amber), 25, titleBar));
    titleLayout->addWidget(textLabel(QStringLiteral("Tessarel"), 22, QFont::Bold,
                                     Appearance::primaryText(), titleBar));
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
        auto* ready = textLabel(QStringLiteral("Ready to capture"), 15, QFont::Normal,
                                Appearance::secondaryText(), footer);
        ready->setObjectName(QStringLiteral("readyText"));
        footerLayout->addWidget(ready);
        footerLayout->addStretch(1);
        showButton_ = new QPushButton(footer);
        showButton_->setObjectName(QStringLiteral("showLastCaptureButton"));
        showButton_->setFlat(true);
        showButton_->setCursor(Qt::PointingHandCursor);
        showButton_->setFont(Appearance::font(15));
        showButton_->setStyleSheet(
            QStringLiteral("QPushButton { color: %1; border: none; background: transparent; }")
                .arg(Appearance::blue().name()));
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
