#include "ui/Views.h"

#include "controller/TessarelController.h"
#include "ui/Appearance.h"
#include "ui/Chrome.h"
#include "ui/ViewArithmetic.h"

#include <QApplication>
#include <QBoxLayout>
#include <QDir>
#include <QFileInfo>
#include <QLabel>
#include <QMenu>
#include <QMessageBox>
#include <QPainter>
#include <QPainterPath>
#include <QPushButton>

namespace {

// A hairline between sections.
class Divider : public QWidget {
public:
    explicit Divider(Qt::Orientation orientation, QWidget* parent = nullptr) : QWidget(parent) {
        if (orientation == Qt::Horizontal) {
            setFixedHeight(1);
        } else {
            setFixedWidth(1);
        }
    }

protected:
    void paintEvent(QPaintEvent*) override {
        QPainter(this).fillRect(rect(), Appearance::primary(0.1));
    }
};

// A rounded rectangle with a faint fill and a hairline drawn inside its border.
class RoundedBox : public QWidget {
public:
    RoundedBox(double radius, double strokeOpacity, QWidget* parent = nullptr)
        : QWidget(parent), radius_(radius), strokeOpacity_(strokeOpacity) {}

protected:
    void paintEvent(QPaintEvent*) override {
        QPainter painter(this);
        painter.setRenderHint(QPainter::Antialiasing);
        QPainterPath shape;
        shape.addRoundedRect(QRectF(rect()).adjusted(0.5, 0.5, -0.5, -0.5), radius_, radius_);
        painter.fillPath(shape, Appearance::primary(0.025));
        painter.strokePath(shape, QPen(Appearance::primary(strokeOpacity_), 1));
    }

private:
    double radius_;
    double strokeOpacity_;
};

class Dot : public QWidget {
public:
    Dot(const QColor& color, int diameter, QWidget* parent = nullptr)
        : QWidget(parent), color_(color) {
        setFixedSize(diameter, diameter);
    }

protected:
    void paintEvent(QPaintEvent*) override {
        QPainter painter(this);
        painter.setRenderHint(QPainter::Antialiasing);
        painter.setPen(Qt::NoPen);
        painter.setBrush(color_);
        painter.drawEllipse(rect());
    }

private:
    QColor color_;
};

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

// A filled, tinted push button with a symbol before its title.
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

// A row control: an optional leading symbol, a text, and a chevron at the far end. The whole
// row takes the click.
class ChevronRow : public QAbstractButton {
public:
    ChevronRow(const QString& leadingSymbol, const QColor& leadingTint, QLabel*& text,
               QWidget* parent)
        : QAbstractButton(parent) {
        auto* row = new QHBoxLayout(this);
        row->setContentsMargins(0, 0, 0, 0);
        if (!leadingSymbol.isEmpty()) {
            row->addWidget(symbolLabel(leadingSymbol, leadingTint, 20, this));
        }
        text = textLabel(QString(), 16, QFont::Normal, Appearance::primaryText(), this);
        row->addWidget(text);
        row->addStretch(1);
        row->addWidget(
            symbolLabel(QStringLiteral("chevron"), Appearance::secondaryText(), 14, this));
        for (QWidget* child : findChildren<QWidget*>()) {
            child->setAttribute(Qt::WA_TransparentForMouseEvents);
        }
        setFocusPolicy(Qt::NoFocus);
    }
    QSize sizeHint() const override { return layout()->sizeHint(); }

protected:
    void paintEvent(QPaintEvent*) override {}
};

// A titled setting: the title on the left, the control in a rounded box filling the rest.
QWidget* settingRow(const QString& title, QWidget* control, QWidget* parent) {
    auto* row = new QWidget(parent);
    auto* layout = new QHBoxLayout(row);
    layout->setContentsMargins(0, 0, 0, 0);
    auto* label = textLabel(title, 18, QFont::Normal, Appearance::primaryText(), row);
    label->setFixedWidth(120);
    layout->addWidget(label);
    auto* box = new RoundedBox(12, 0.14, row);
    box->setFixedHeight(58);
    auto* boxLayout = new QHBoxLayout(box);
    boxLayout->setContentsMargins(18, 0, 18, 0);
    control->setParent(box);
    boxLayout->addWidget(control);
    layout->addWidget(box, 1);
    return row;
}

QString folderName(const QUrl& folder) {
    const QString path = QDir::cleanPath(folder.toLocalFile());
    const QString name = QFileInfo(path).fileName();
    return name.isEmpty() ? path : name;
}

QString shortcutHint(QChar key) {
    return QStringLiteral("Ctrl+%1").arg(key);
}

} // namespace

// ---- ControllerView -----------------------------------------------------------------------

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

// ---- Meter ----------------------------------------------------------------------------------

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

// ---- ReadyLabel and Header ----------------------------------------------------------------

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

// ---- Home -----------------------------------------------------------------------------------

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
    titleLayout->addWidget(
        symbolLabel(QStringLiteral("sparkles"), QColor(255, 184, 0), 25, titleBar));
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

// ---- Capture setup --------------------------------------------------------------------------

CaptureSetupView::CaptureSetupView(TessarelController& controller_, CaptureKind kind,
                                   QWidget* parent)
    : ControllerView(controller_, parent), kind_(kind) {
    setObjectName(QStringLiteral("captureSetupView"));
    setFixedSize(700, 460);
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(0);
    layout->addWidget(new Header(
        symbol(), color(), title(), [this] { controller.show(TessarelMode::home); }, this));
    layout->addWidget(new Divider(Qt::Horizontal, this));

    auto* settings = new QWidget(this);
    auto* settingsLayout = new QVBoxLayout(settings);
    settingsLayout->setContentsMargins(34, 32, 34, 32);
    settingsLayout->setSpacing(24);
    settingsLayout->addStretch(1);
    auto* saveTo =
        new ChevronRow(QStringLiteral("folder"), Appearance::blue(), folderName_, settings);
    saveTo->setObjectName(QStringLiteral("saveToButton"));
    saveTo->setCursor(Qt::PointingHandCursor);
    folderName_->setObjectName(QStringLiteral("folderName"));
    connect(saveTo, &QAbstractButton::clicked, this, [this] { controller.chooseFolder(); });
    settingsLayout->addWidget(settingRow(QStringLiteral("Save To"), saveTo, settings));
    auto* format = new ChevronRow(QString(), QColor(), formatText_, settings);
    format->setObjectName(QStringLiteral("formatButton"));
    formatText_->setObjectName(QStringLiteral("formatText"));
    if (kind_ != CaptureKind::video) {
        format->setCursor(Qt::PointingHandCursor);
        connect(format, &QAbstractButton::clicked, this, &CaptureSetupView::popUpFormatMenu);
    }
    formatButton_ = format;
    settingsLayout->addWidget(settingRow(QStringLiteral("Format"), format, settings));
    settingsLayout->addStretch(1);
    layout->addWidget(settings, 1);
    layout->addWidget(new Divider(Qt::Horizontal, this));

    auto* bottomBar = new QWidget(this);
    bottomBar->setFixedHeight(86);
    auto* barLayout = new QHBoxLayout(bottomBar);
    barLayout->setContentsMargins(34, 0, 34, 0);
    barLayout->addWidget(new ReadyLabel(QStringLiteral("Ready to capture"), bottomBar));
    barLayout->addStretch(1);
    const bool snapshot = kind_ == CaptureKind::snapshot;
    auto* startButton = prominentButton(
        snapshot ? QStringLiteral("Take Snapshot") : QStringLiteral("Start Recording"),
        kind_ == CaptureKind::video ? QStringLiteral("video") : symbol(), Appearance::blue(), 17,
        22, 48, bottomBar);
    startButton->setObjectName(QStringLiteral("startButton"));
    connect(startButton, &QPushButton::clicked, this, &CaptureSetupView::start);
    barLayout->addWidget(startButton);
    layout->addWidget(bottomBar);
    render();
}

QString CaptureSetupView::title() const {
    switch (kind_) {
    case CaptureKind::audio:
        return QStringLiteral("Record Audio");
    case CaptureKind::video:
        return QStringLiteral("Record Video");
    case CaptureKind::snapshot:
        return QStringLiteral("Take Screen Snapshot");
    }
    return {};
}

QString CaptureSetupView::symbol() const {
    switch (kind_) {
    case CaptureKind::audio:
        return QStringLiteral("mic");
    case CaptureKind::video:
        return QStringLiteral("viewfinder");
    case CaptureKind::snapshot:
        return QStringLiteral("camera");
    }
    return {};
}

QColor CaptureSetupView::color() const {
    switch (kind_) {
    case CaptureKind::audio:
        return Appearance::color(TessarelColor::audio);
    case CaptureKind::video:
        return Appearance::color(TessarelColor::video);
    case CaptureKind::snapshot:
        return Appearance::color(TessarelColor::snapshot);
    }
    return {};
}

void CaptureSetupView::start() {
    switch (kind_) {
    case CaptureKind::audio:
        controller.startAudio();
        break;
    case CaptureKind::video:
        controller.beginVideoSelection();
        break;
    case CaptureKind::snapshot:
        controller.takeSnapshot();
        break;
    }
}

void CaptureSetupView::popUpFormatMenu() {
    auto* menu = new QMenu(this);
    menu->setObjectName(QStringLiteral("formatMenu"));
    menu->setAttribute(Qt::WA_DeleteOnClose);
    menu->setFont(Appearance::font(15));
    const QIcon checkmark =
        Appearance::symbolIcon(QStringLiteral("checkmark"), Appearance::primaryText(), 16);
    const auto addItem = [&](const QString& title, bool current, std::function<void()> choose) {
        QAction* item = menu->addAction(title, this, std::move(choose));
        item->setObjectName(title);
        if (current) {
            item->setIcon(checkmark);
        }
    };
    if (kind_ == CaptureKind::audio) {
        for (AudioExportFormat format : AudioExportFormat::allCases()) {
            addItem(format.rawValue(), format == controller.audioFormat(),
                    [this, format] { controller.audioFormat.set(format); });
        }
    } else {
        for (SnapshotExportFormat format : SnapshotExportFormat::allCases()) {
            addItem(format.rawValue(), format == controller.snapshotFormat(),
                    [this, format] { controller.snapshotFormat.set(format); });
        }
    }
    menu->setMinimumWidth(formatButton_->width());
    menu->popup(formatButton_->mapToGlobal(QPoint(0, formatButton_->height() + 18)));
}

void CaptureSetupView::render() {
    folderName_->setText(folderName(controller.saveFolder()));
    switch (kind_) {
    case CaptureKind::audio:
        formatText_->setText(controller.audioFormat().rawValue());
        break;
    case CaptureKind::video:
        formatText_->setText(QStringLiteral("MP4"));
        break;
    case CaptureKind::snapshot:
        formatText_->setText(controller.snapshotFormat().rawValue());
        break;
    }
}

// ---- Progress -------------------------------------------------------------------------------

ProgressView::ProgressView(TessarelController& controller_, bool audio, QWidget* parent)
    : ControllerView(controller_, parent), audio_(audio) {
    setObjectName(QStringLiteral("progressView"));
    setFixedSize(720, audio ? 318 : 220);
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(0);
    layout->addWidget(new Header(
        audio ? QStringLiteral("mic") : QStringLiteral("video"),
        audio ? Appearance::color(TessarelColor::audio) : Appearance::indigo(),
        audio ? QStringLiteral("Audio Capture in Progress")
              : QStringLiteral("Video Capture in Progress"),
        [this] { controller.stopCapture(); }, this));
    layout->addWidget(new Divider(Qt::Horizontal, this));

    if (audio) {
        auto* levelRow = new QWidget(this);
        levelRow->setObjectName(QStringLiteral("audioLevelRow"));
        levelRow->setFixedHeight(120);
        auto* rowLayout = new QHBoxLayout(levelRow);
        rowLayout->setContentsMargins(34, 0, 34, 0);
        rowLayout->setSpacing(30);
        rowLayout->addStretch(1);
        rowLayout->addWidget(textLabel(QStringLiteral("Audio Level"), 18, QFont::Normal,
                                       Appearance::primaryText(), levelRow));
        meter_ = new Meter(controller.meterLevel(), levelRow);
        rowLayout->addWidget(meter_);
        rowLayout->addStretch(1);
        layout->addWidget(levelRow);
        layout->addWidget(new Divider(Qt::Horizontal, this));
    }

    layout->addStretch(1);
    auto* bottomBar = new QWidget(this);
    bottomBar->setFixedHeight(104);
    auto* barLayout = new QHBoxLayout(bottomBar);
    barLayout->setContentsMargins(34, 0, 34, 0);
    barLayout->setSpacing(26);
    barLayout->addWidget(new ReadyLabel(audio ? QStringLiteral("Capturing audio…")
                                              : QStringLiteral("Capturing video…"),
                                        bottomBar));
    auto* rule = new Divider(Qt::Vertical, bottomBar);
    rule->setFixedHeight(32);
    barLayout->addWidget(rule);
    durationLabel_ = new QLabel(bottomBar);
    durationLabel_->setObjectName(QStringLiteral("durationLabel"));
    durationLabel_->setFont(Appearance::monospacedFont(21));
    Appearance::styleLabel(*durationLabel_, 21, QFont::Normal, Appearance::primaryText());
    durationLabel_->setFont(Appearance::monospacedFont(21));
    barLayout->addWidget(durationLabel_);
    barLayout->addStretch(1);
    auto* stopButton = prominentButton(QStringLiteral("Stop Capture"), QStringLiteral("stop"),
                                       Appearance::red(), 18, 20, 52, bottomBar);
    stopButton->setObjectName(QStringLiteral("stopButton"));
    connect(stopButton, &QPushButton::clicked, this, [this] { controller.stopCapture(); });
    barLayout->addWidget(stopButton);
    layout->addWidget(bottomBar);
    layout->addStretch(1);
    render();
}

void ProgressView::render() {
    durationLabel_->setText(duration(controller.elapsed()));
    if (meter_ != nullptr) {
        meter_->setLevel(controller.meterLevel());
    }
}

// ---- Root -----------------------------------------------------------------------------------

TessarelRootView::TessarelRootView(TessarelController& controller_, QWidget* parent)
    : ControllerView(controller_, parent) {
    setObjectName(QStringLiteral("rootView"));
    render();
}

QSize TessarelRootView::minimumSizeFor(const QSize& screenSize) {
    return minimumPanelSize.boundedTo(screenSize);
}

QSize TessarelRootView::sizeHint() const {
    return {650, 430};
}

void TessarelRootView::render() {
    if (contentMode_ != controller.mode()) {
        showContent(controller.mode());
    }
    renderErrorAlert();
    renderPermissionAlert();
}

void TessarelRootView::showContent(TessarelMode mode) {
    if (content_ != nullptr) {
        content_->hide();
        content_->deleteLater();
    }
    switch (mode) {
    case TessarelMode::home:
        content_ = new HomeView(controller, false, {}, this);
        break;
    case TessarelMode::audioSetup:
        content_ = new CaptureSetupView(controller, CaptureKind::audio, this);
        break;
    case TessarelMode::videoSetup:
        content_ = new CaptureSetupView(controller, CaptureKind::video, this);
        break;
    case TessarelMode::snapshotSetup:
        content_ = new CaptureSetupView(controller, CaptureKind::snapshot, this);
        break;
    case TessarelMode::recordingAudio:
        content_ = new ProgressView(controller, true, this);
        break;
    case TessarelMode::recordingVideo:
        content_ = new ProgressView(controller, false, this);
        break;
    }
    contentMode_ = mode;
    const bool fixedSize = content_->minimumSize() == content_->maximumSize();
    setMinimumSize(fixedSize ? minimumSizeFor(content_->size()) : minimumPanelSize);
    placeContent();
    content_->show();
}

void TessarelRootView::placeContent() {
    if (content_ == nullptr) {
        return;
    }
    if (content_->minimumSize() == content_->maximumSize()) {
        // Fixed-size screens sit in the middle of a larger panel.
        QRect frame(QPoint(0, 0), content_->size());
        frame.moveCenter(rect().center());
        content_->setGeometry(frame);
    } else {
        content_->setGeometry(rect());
    }
}

void TessarelRootView::resizeEvent(QResizeEvent* event) {
    QWidget::resizeEvent(event);
    placeContent();
}

void TessarelRootView::paintEvent(QPaintEvent*) {
    QPainter painter(this);
    painter.setCompositionMode(QPainter::CompositionMode_Source);
    painter.fillRect(rect(), Appearance::panelBackground());
}

void TessarelRootView::renderErrorAlert() {
    const std::optional<QString>& message = controller.errorMessage();
    if (!message) {
        if (errorAlert_) {
            errorAlert_->done(0);
        }
        return;
    }
    if (!errorAlert_) {
        errorAlert_ = new QMessageBox(this);
        errorAlert_->setObjectName(QStringLiteral("errorAlert"));
        errorAlert_->setAttribute(Qt::WA_DeleteOnClose);
        errorAlert_->setIcon(QMessageBox::Warning);
        errorAlert_->setWindowTitle(QStringLiteral("Tessarel couldn’t capture"));
        errorAlert_->setText(QStringLiteral("Tessarel couldn’t capture"));
        errorAlert_->addButton(QStringLiteral("OK"), QMessageBox::AcceptRole);
        errorAlert_->setWindowModality(Qt::WindowModal);
        connect(errorAlert_, &QMessageBox::finished, this, [this] {
            if (controller.errorMessage()) {
                controller.errorMessage.set(std::nullopt);
            }
        });
        errorAlert_->show();
    }
    errorAlert_->setInformativeText(message.value_or(QStringLiteral("Unknown error")));
}

void TessarelRootView::renderPermissionAlert() {
    if (!controller.screenCapturePermissionRequired()) {
        if (permissionAlert_) {
            permissionAlert_->done(0);
        }
        return;
    }
    if (permissionAlert_) {
        return;
    }
    permissionAlert_ = new QMessageBox(this);
    permissionAlert_->setObjectName(QStringLiteral("permissionAlert"));
    permissionAlert_->setAttribute(Qt::WA_DeleteOnClose);
    permissionAlert_->setIcon(QMessageBox::Information);
    permissionAlert_->setWindowTitle(QStringLiteral("Screen Recording Permission Required"));
    permissionAlert_->setText(QStringLiteral("Screen Recording Permission Required"));
    permissionAlert_->setInformativeText(
        QStringLiteral("Allow Tessarel in the desktop's screen sharing dialog, which asks again "
                       "at the next capture, or in your desktop's privacy settings. Use Show "
                       "Tessarel in File Manager if you need to locate it."));
    // One role for all three keeps them in this order on every desktop's button layout. The
    // settings are offered only where the system has a page for them.
    QPushButton* settings =
        controller.offersScreenRecordingSettings()
            ? permissionAlert_->addButton(QStringLiteral("Open System Settings"),
                                          QMessageBox::ActionRole)
            : nullptr;
    QPushButton* reveal = permissionAlert_->addButton(
        QStringLiteral("Show Tessarel in File Manager"), QMessageBox::ActionRole);
    QPushButton* cancel =
        permissionAlert_->addButton(QStringLiteral("Cancel"), QMessageBox::ActionRole);
    permissionAlert_->setEscapeButton(cancel);
    permissionAlert_->setDefaultButton(settings ? settings : reveal);
    permissionAlert_->setWindowModality(Qt::WindowModal);
    connect(permissionAlert_, &QMessageBox::buttonClicked, this,
            [this, settings, reveal](QAbstractButton* clicked) {
                if (settings && clicked == settings) {
                    controller.openScreenRecordingSettings();
                } else if (clicked == reveal) {
                    controller.revealRunningApplication();
                }
            });
    connect(permissionAlert_, &QMessageBox::finished, this, [this] {
        if (controller.screenCapturePermissionRequired()) {
            controller.screenCapturePermissionRequired.set(false);
        }
    });
    permissionAlert_->show();
}
