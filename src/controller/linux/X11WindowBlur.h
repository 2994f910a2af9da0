#pragma once

#include "controller/linux/WindowBlur.h"

// KWin's blur on X11: a property on the window asks for it.
class X11WindowBlur final : public WindowBlur {
public:
    bool available() const override;
    void blurBehind(QWindow& window) override;
};
