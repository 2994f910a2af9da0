#pragma once

// What the views' tests share: the fixture and helpers that read the widget tree.

#include "GuiFixture.h"

#include "ui/Appearance.h"
#include "ui/Chrome.h"
#include "ui/Views.h"

#include <QAbstractButton>
#include <QLabel>
#include <QLayout>
#include <QMenu>
#include <QMessageBox>
#include <QPushButton>
#include <QTest>

#include <algorithm>
#include <memory>
#include <optional>

inline QString labelText(const QWidget* root, const QString& name) {
    const auto* label = root->findChild<QLabel*>(name);
    return label != nullptr ? label->text() : QString();
}

inline QMenu* openMenu(const QString& name) {
    for (QWidget* widget : QApplication::topLevelWidgets()) {
        if (auto* menu = qobject_cast<QMenu*>(widget);
            menu && menu->objectName() == name && menu->isVisible()) {
            return menu;
        }
    }
    return nullptr;
}

inline QStringList buttonTexts(const QMessageBox& box) {
    QStringList texts;
    for (const QAbstractButton* button : box.buttons()) {
        texts << button->text();
    }
    return texts;
}

inline QAbstractButton* button(const QMessageBox& box, const QString& text) {
    for (QAbstractButton* candidate : box.buttons()) {
        if (candidate->text() == text) {
            return candidate;
        }
    }
    return nullptr;
}

// The colour in the middle of the lowest rows of bar `index`, where every bar is drawn.
inline QColor barColor(const QImage& image, int index) {
    const int x =
        static_cast<int>(index * (MeterBars::width + MeterBars::spacing) + MeterBars::width / 2);
    return image.pixelColor(x, image.height() - 5);
}

inline bool looksLit(const QColor& color, int index) {
    return color.alpha() == 255 && color.hsvSaturationF() > 0.8F &&
           std::abs(color.hsvHueF() - MeterBars::hue(index)) < 0.02;
}

inline bool looksGrey(const QColor& color) {
    return color.hsvSaturationF() < 0.2F;
}

class ViewsTest : public GuiTest {
protected:
    std::unique_ptr<TessarelRootView> root() {
        auto view = std::make_unique<TessarelRootView>(*controller);
        view->resize(Appearance::toQSize(PanelSize::home));
        view->show();
        settle();
        return view;
    }
};
