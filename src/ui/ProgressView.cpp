#include "ui/ProgressView.h"

#include "controller/TessarelController.h"
#include "ui/Appearance.h"
#include "ui/ViewArithmetic.h"

#include <QBoxLayout>

ProgressView::ProgressView(TessarelController& controller_, bool audio, QWidget* parent)
    : ControllerView(controller_, parent), audio_(audio) {
    setObjectName(QStringLiteral("progressView"));
    setFixedSize(Appearance::toQSize(audio ? PanelSize::audioProgress : PanelSize::videoProgress));
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
        rowLayout->addWidget(new TextLabel(QStringLiteral("Audio Level"), 18, QFont::Normal,
                                           Appearance::Tone::primary, levelRow));
        meter_ = new Meter(controller.meterLevel(), levelRow);
        rowLayout->addWidget(meter_);
        rowLayout->addStretch(1);
        layout->addWidget(levelRow);
        layout->addWidget(new Divider(Qt::Horizontal, this));
    }

    layout->addStretch(1);
    auto* bottomBar = new QWidget(this);
    bottomBar->setObjectName(QStringLiteral("bottomBar"));
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
    durationLabel_ =
        new TextLabel(QString(), 21, QFont::Normal, Appearance::Tone::primary, bottomBar);
    durationLabel_->setObjectName(QStringLiteral("durationLabel"));
    durationLabel_->setFont(Appearance::monospacedFont(21));
    barLayout->addWidget(durationLabel_);
    barLayout->addStretch(1);
    auto* stopButton = new ProminentButton(QStringLiteral("Stop Capture"), QStringLiteral("stop"),
                                           &Appearance::stopFill, 18, 20, 52, bottomBar);
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
