#pragma once

#include "controller/TessarelMode.h"
#include "ui/Widgets.h"

#include <QAbstractButton>

#include <functional>

class QPushButton;

// One capture kind on the home card; the whole row takes the click.
class HomeRow : public QAbstractButton {
    Q_OBJECT
public:
    HomeRow(const QString& icon, const QColor& color, const QString& title, const QString& subtitle,
            const QString& shortcut, std::function<void()> action, QWidget* parent = nullptr);
    QSize sizeHint() const override;

protected:
    void paintEvent(QPaintEvent* event) override;
    void keyPressEvent(QKeyEvent* event) override;
};

// The start screen: title bar with the options button, the card of capture kinds and, unless
// compact, a footer with the last saved file. The compact home is the tray's frameless popup,
// the only place where the title bar names Tessarel: the panel is a window whose title bar, the
// window manager's, does that already.
class HomeView : public ControllerView {
    Q_OBJECT
public:
    // With `onSelect` set, rows report their screen to it instead of opening it.
    HomeView(TessarelController& controller, bool compact = false,
             std::function<void(TessarelMode)> onSelect = {}, QWidget* parent = nullptr);

protected:
    void render() override;

private:
    void select(TessarelMode mode);

    std::function<void(TessarelMode)> onSelect_;
    QPushButton* showButton_ = nullptr;
};
