#pragma once

#include "ui/Widgets.h"

class QAbstractButton;

enum class CaptureKind { audio, video, snapshot };

// Before each capture: where it is saved, in which format, and the start button.
class CaptureSetupView : public ControllerView {
    Q_OBJECT
public:
    CaptureSetupView(TessarelController& controller, CaptureKind kind, QWidget* parent = nullptr);
    CaptureKind kind() const { return kind_; }

protected:
    void render() override;

private:
    QString title() const;
    QString symbol() const;
    QColor color() const;
    void start();
    void popUpFormatMenu();

    CaptureKind kind_;
    TextLabel* folderName_ = nullptr;
    TextLabel* formatText_ = nullptr;
    QAbstractButton* saveToButton_ = nullptr;
    QAbstractButton* formatButton_ = nullptr;
};
