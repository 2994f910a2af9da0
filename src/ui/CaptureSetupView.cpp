#include "ui/CaptureSetupView.h"

#include "controller/TessarelController.h"
#include "ui/Appearance.h"
#include "ui/ViewArithmetic.h"

#include <QBoxLayout>
#include <QDir>
#include <QFileInfo>
#include <QKeyEvent>
#include <QMenu>

namespace {

// A row control: an optional leading symbol, a text, and a chevron at the far end. The whole
// row takes the click; a long text is shortened in the middle so that the chevron stays put.
class ChevronRow : public QAbstractButton {
public:
    ChevronRow(const QString& leadingSymbol, TextLabel*& text, QWidget* parent)
        : QAbstractButton(parent) {
        auto* row = new QHBoxLayout(this);
        row->setContentsMargins(0, 0, 0, 0);
        if (!leadingSymbol.isEmpty()) {
            row->addWidget(new SymbolView(leadingSymbol, Appearance::Tone::accent, 20, this));
        }
        text = new TextLabel(QString(), 16, QFont::Normal, Appearance::Tone::primary, this);
        text->setElidedInTheMiddle(true);
        row->addWidget(text, 1);
        auto* chevron =
            new SymbolView(QStringLiteral("chevron"), Appearance::Tone::secondary, 14, this);
        chevron->setObjectName(QStringLiteral("chevron"));
        row->addWidget(chevron);
        for (QWidget* child : findChildren<QWidget*>()) {
            child->setAttribute(Qt::WA_TransparentForMouseEvents);
        }
        setFocusPolicy(Qt::TabFocus);
    }
    QSize sizeHint() const override { return layout()->sizeHint(); }
    QSize minimumSizeHint() const override { return layout()->minimumSize(); }

protected:
    // The box around the row shows the focus.
    void paintEvent(QPaintEvent*) override {}
    void keyPressEvent(QKeyEvent* event) override {
        if (!clickOnReturn(*this, *event)) {
            QAbstractButton::keyPressEvent(event);
        }
    }
};

// A titled setting: the title on the left, the control in a rounded box filling the rest.
QWidget* settingRow(const QString& title, QWidget* control, QWidget* parent) {
    auto* row = new QWidget(parent);
    auto* layout = new QHBoxLayout(row);
    layout->setContentsMargins(0, 0, 0, 0);
    auto* label = new TextLabel(title, 18, QFont::Normal, Appearance::Tone::primary, row);
    label->setFixedWidth(120);
    layout->addWidget(label);
    auto* box = new RoundedBox(12, 0.14, row);
    box->setObjectName(control->objectName() + QStringLiteral("Box"));
    box->setFixedHeight(58);
    box->setRingsFocusWithin();
    auto* boxLayout = new QHBoxLayout(box);
    boxLayout->setContentsMargins(18, 0, 18, 0);
    control->setParent(box);
    control->setAccessibleName(title);
    boxLayout->addWidget(control);
    layout->addWidget(box, 1);
    return row;
}

QString folderName(const QUrl& folder) {
    const QString path = QDir::cleanPath(folder.toLocalFile());
    const QString name = QFileInfo(path).fileName();
    return name.isEmpty() ? path : name;
}

constexpr int menuGap = 4;

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
    auto* saveTo = new ChevronRow(QStringLiteral("folder"), folderName_, settings);
    saveTo->setObjectName(QStringLiteral("saveToButton"));
    saveToButton_ = saveTo;
    saveTo->setCursor(Qt::PointingHandCursor);
    folderName_->setObjectName(QStringLiteral("folderName"));
    connect(saveTo, &QAbstractButton::clicked, this, [this] { controller.chooseFolder(); });
    settingsLayout->addWidget(settingRow(QStringLiteral("Save To"), saveTo, settings));
    auto* format = new ChevronRow(QString(), formatText_, settings);
    format->setObjectName(QStringLiteral("formatButton"));
    formatText_->setObjectName(QStringLiteral("formatText"));
    if (kind_ == CaptureKind::video) {
        // One format only: nothing to choose, nothing to reach.
        format->setFocusPolicy(Qt::NoFocus);
    } else {
        format->setCursor(Qt::PointingHandCursor);
        connect(format, &QAbstractButton::clicked, this, &CaptureSetupView::popUpFormatMenu);
    }
    formatButton_ = format;
    settingsLayout->addWidget(settingRow(QStringLiteral("Format"), format, settings));
    settingsLayout->addStretch(1);
    layout->addWidget(settings, 1);
    layout->addWidget(new Divider(Qt::Horizontal, this));

    auto* bottomBar = new QWidget(this);
    bottomBar->setObjectName(QStringLiteral("bottomBar"));
    bottomBar->setFixedHeight(86);
    auto* barLayout = new QHBoxLayout(bottomBar);
    barLayout->setContentsMargins(34, 0, 34, 0);
    barLayout->addWidget(new ReadyLabel(QStringLiteral("Ready to capture"), bottomBar));
    barLayout->addStretch(1);
    const bool snapshot = kind_ == CaptureKind::snapshot;
    auto* startButton = new ProminentButton(
        snapshot ? QStringLiteral("Take Snapshot") : QStringLiteral("Start Recording"),
        kind_ == CaptureKind::video ? QStringLiteral("video") : symbol(), &Appearance::startFill,
        17, 22, 48, bottomBar);
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
    Appearance::styleMenu(*menu);
    const QIcon checkmark =
        Appearance::symbolIcon(QStringLiteral("checkmark"), Appearance::primaryText(), 16);
    QAction* currentItem = nullptr;
    const auto addItem = [&](const QString& title, bool current, std::function<void()> choose) {
        QAction* item = menu->addAction(title, this, std::move(choose));
        item->setObjectName(title);
        if (current) {
            item->setIcon(checkmark);
            currentItem = item;
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
    // As wide as the rounded box around the format, just below it.
    const QWidget* box = formatButton_->parentWidget();
    menu->setFixedWidth(box->width());
    menu->popup(box->mapToGlobal(QPoint(0, box->height() + menuGap)), currentItem);
    // From the keyboard the arrows start on the current format.
    menu->setActiveAction(currentItem);
}

void CaptureSetupView::render() {
    const QUrl& folder = controller.saveFolder();
    folderName_->setText(folderName(folder));
    saveToButton_->setToolTip(QDir::toNativeSeparators(folder.toLocalFile()));
    saveToButton_->setAccessibleDescription(folder.toLocalFile());
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
    formatButton_->setAccessibleDescription(formatText_->text());
}
