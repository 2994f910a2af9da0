#pragma once

#include "ui/Widgets.h"

// While a recording runs: its level (audio only), the running time and the stop button.
class ProgressView : public ControllerView {
    Q_OBJECT
public:
    ProgressView(TessarelController& controller, bool audio, QWidget* parent = nullptr);

protected:
    void render() override;

private:
    bool audio_;
    TextLabel* durationLabel_ = nullptr;
    Meter* meter_ = nullptr;
};
