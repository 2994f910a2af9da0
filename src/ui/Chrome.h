#pragma once

#include <QAbstractButton>
#include <QMenu>
#include <QPointer>

#include <functional>

// A 44 × 44 symbol button of the panel's own chrome: a secondary-coloured symbol that turns
// darker on a faint rounded square while the pointer is over it. Reached with Tab; Return,
// Enter and Space press it. GUI thread only.
class ChromeButton : public QAbstractButton {
    Q_OBJECT
public:
    bool isHovered() const { return hovered_; }
    QSize sizeHint() const override { return {44, 44}; }

protected:
    ChromeButton(const QString& symbol, int symbolSize, const QString& description,
                 QWidget* parent);
    void paintEvent(QPaintEvent* event) override;
    void keyPressEvent(QKeyEvent* event) override;
    void enterEvent(QEnterEvent* event) override;
    void leaveEvent(QEvent* event) override;

private:
    QString symbol_;
    int symbolSize_;
    bool hovered_ = false;
};

// The options button of the home screen: a click pops up "About..." and "Quit".
class GearMenuButton : public ChromeButton {
    Q_OBJECT
public:
    GearMenuButton(std::function<void()> showAbout, std::function<void()> quit,
                   QWidget* parent = nullptr);
    // The menu's items call whatever closures were set last.
    void setActions(std::function<void()> showAbout, std::function<void()> quit);
    // The menu while it is up, else null.
    QMenu* openMenu() const { return menu_; }

private:
    void popUpMenu();

    std::function<void()> showAbout_;
    std::function<void()> quit_;
    QPointer<QMenu> menu_;
};

// The close button of every screen header.
class CloseButton : public ChromeButton {
    Q_OBJECT
public:
    explicit CloseButton(std::function<void()> action, QWidget* parent = nullptr);
    void setAction(std::function<void()> action);

private:
    std::function<void()> closeAction_;
};
