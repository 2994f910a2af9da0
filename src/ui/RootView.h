#pragma once

#include "controller/TessarelMode.h"
#include "ui/Appearance.h"
#include "ui/Widgets.h"

#include <QMessageBox>
#include <QPointer>

#include <optional>

// Fills the panel: the screen for the current mode, the error alert and the permission alert.
class TessarelRootView : public ControllerView {
    Q_OBJECT
public:
    // How far the panel may shrink on a screen: the home screen to 650 × 410, the others not
    // at all, so that each stays whole; never more than the screen has room for.
    static QSize minimumSizeFor(TessarelMode mode, const QSize& available);

    explicit TessarelRootView(TessarelController& controller, QWidget* parent = nullptr);
    QWidget* content() const { return content_; }
    QMessageBox* errorAlert() const { return errorAlert_; }
    QMessageBox* permissionAlert() const { return permissionAlert_; }
    QSize sizeHint() const override;
    // Blurred where the desktop blurs what lies behind the panel window.
    void setMaterial(Appearance::Material material);

protected:
    void render() override;
    void paintEvent(QPaintEvent* event) override;
    void resizeEvent(QResizeEvent* event) override;

private:
    void showContent(TessarelMode mode);
    void placeContent();
    void renderErrorAlert();
    void renderPermissionAlert();

    Appearance::Material material_ = Appearance::Material::opaque;
    QWidget* content_ = nullptr;
    std::optional<TessarelMode> contentMode_;
    QPointer<QMessageBox> errorAlert_;
    QPointer<QMessageBox> permissionAlert_;
};
