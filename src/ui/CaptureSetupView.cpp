#include "ui/CaptureSetupView.h"

#include "controller/TessarelController.h"
#include "ui/Appearance.h"
#include "ui/ViewArithmetic.h"

#include <QBoxLayout>
#include <QDir>
#include <QFileInfo>
#include <QLabel>
#include <QMenu>
#include <QPushButton>

namespace {

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

} // namespace

CaptureSetupView::CaptureSetupView(TessarelController& controller_, CaptureKind kind,
                                   QWidget* parent)
    : ControllerView(controller_, parent), kind_(kind) {
    setObjectName(QStringLiteral("captureSetupView"));
    setFixedSize(Appearance::toQSize(PanelSize::setup));
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
