#include "ui/RootView.h"

#include "alert/ReadableAlert.h"
#include "controller/TessarelController.h"
#include "ui/Appearance.h"
#include "ui/CaptureSetupView.h"
#include "ui/HomeView.h"
#include "ui/ProgressView.h"
#include "ui/ViewArithmetic.h"

#include <QMessageBox>
#include <QPainter>
#include <QPushButton>
#include <QScreen>

#include <algorithm>

TessarelRootView::TessarelRootView(TessarelController& controller_, QWidget* parent)
    : ControllerView(controller_, parent) {
    setObjectName(QStringLiteral("rootView"));
    render();
}

QSize TessarelRootView::minimumSizeFor(TessarelMode mode, const QSize& available) {
    return Appearance::toQSize(PanelSize::minimum(mode)).boundedTo(available);
}

QSize TessarelRootView::sizeHint() const {
    return Appearance::toQSize(PanelSize::home);
}

void TessarelRootView::setMaterial(Appearance::Material material) {
    material_ = material;
    update();
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
    const QScreen* screen = this->screen();
    setMinimumSize(minimumSizeFor(mode, screen != nullptr
                                            ? screen->availableSize()
                                            : QSize(QWIDGETSIZE_MAX, QWIDGETSIZE_MAX)));
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
    painter.fillRect(rect(), Appearance::panelBackground(material_));
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
    makeReadable(*errorAlert_);
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
    makeReadable(*permissionAlert_);
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
