#pragma once

#include "controller/TessarelMode.h"
#include "ui/Widgets.h"

#include <QMessageBox>
#include <QPointer>

#include <optional>

// Fills the panel: the screen for the current mode, the error alert and the permission alert.
class TessarelRootView : public ControllerView {
    Q_OBJECT
public:
    // The panel shrinks no further than its minimum, nor than a smaller screen needs.
    static QSize minimumSizeFor(const QSize& screenSize);

    explicit TessarelRootView(TessarelController& controller, QWidget* parent = nullptr);
    QWidget* content() const { return content_; }
    QMessageBox* errorAlert() const { return errorAlert_; }
    QMessageBox* permissionAlert() const { return permissionAlert_; }
    QSize sizeHint() const override;

protected:
    void render() override;
    void paintEvent(QPaintEvent* event) override;
    void resizeEvent(QResizeEvent* event) override;

private:
    void showContent(TessarelMode mode);
    void placeContent();
    void renderErrorAlert();
    void renderPermissionAlert();

    QWidget* content_ = nullptr;
    std::optional<TessarelMode> contentMode_;
    QPointer<QMessageBox> errorAlert_;
    QPointer<QMessageBox> permissionAlert_;
};
