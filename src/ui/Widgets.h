#pragma once

#include "controller/Published.h"
#include "ui/Appearance.h"

#include <QAbstractButton>
#include <QColor>
#include <QFont>
#include <QLabel>
#include <QPushButton>
#include <QWidget>

#include <functional>

class TessarelController;

// The small widgets the panel's screens share. Each looks its colours up when it paints, and
// every button takes the keyboard focus with Tab (a click gives none, as on other desktops'
// panels), shows it with a ring in the accent colour and runs on Return and Enter as on Space.
// GUI thread only.

// A view that renders again once the controller has announced a change. The announcement
// comes before the new value is stored, so the render is queued and coalesced. Views keep no
// state of their own: each reads the controller when it renders and hands every action to it.
class ControllerView : public QWidget {
    Q_OBJECT
protected:
    ControllerView(TessarelController& controller, QWidget* parent);
    virtual void render() = 0;

    TessarelController& controller;

private:
    Signal<>::Subscription observation_;
    bool renderQueued_ = false;
};

// Whether `widget` shows the focus ring: it has the focus and the keyboard is in use, that is a
// Tab key came after the last click (the focus a window gives its first control when it opens
// stays unmarked until then).
bool showsFocusRing(const QWidget& widget);

// Return and Enter click a focused button, as Space does.
bool clickOnReturn(QAbstractButton& button, const QKeyEvent& event);

// A text in a tone of the current scheme. Optionally a long text is shortened in the middle to
// the width it is given, so that both its ends stay readable.
class TextLabel : public QLabel {
    Q_OBJECT
public:
    TextLabel(const QString& text, int pixelSize, QFont::Weight weight, Appearance::Ink ink,
              QWidget* parent = nullptr);
    void setElidedInTheMiddle(bool elided);
    // The text as it is drawn at the label's present width.
    QString shownText() const;
    QSize minimumSizeHint() const override;

protected:
    void paintEvent(QPaintEvent* event) override;

private:
    Appearance::Ink ink_;
    bool elided_ = false;
};

// One of our symbols, rendered when painting at the pixel ratio of the screen the widget is on.
class SymbolView : public QWidget {
    Q_OBJECT
public:
    SymbolView(const QString& symbol, Appearance::Ink ink, int side, QWidget* parent = nullptr);

protected:
    void paintEvent(QPaintEvent* event) override;

private:
    QString symbol_;
    Appearance::Ink ink_;
    int side_;
};

// A hairline between sections.
class Divider : public QWidget {
    Q_OBJECT
public:
    explicit Divider(Qt::Orientation orientation, QWidget* parent = nullptr);

protected:
    void paintEvent(QPaintEvent* event) override;
};

// A rounded rectangle with a faint fill and a hairline drawn inside its border.
class RoundedBox : public QWidget {
    Q_OBJECT
public:
    RoundedBox(double radius, double strokeOpacity, QWidget* parent = nullptr);
    // The focus ring goes around the box while the control inside it has the focus.
    void setRingsFocusWithin();

protected:
    void paintEvent(QPaintEvent* event) override;

private:
    double radius_;
    double strokeOpacity_;
    bool ringsFocusWithin_ = false;
};

class Dot : public QWidget {
    Q_OBJECT
public:
    Dot(const QColor& color, int diameter, QWidget* parent = nullptr);

protected:
    void paintEvent(QPaintEvent* event) override;

private:
    QColor color_;
};

// A filled button with a white symbol before its white title, the start and stop buttons.
class ProminentButton : public QPushButton {
    Q_OBJECT
public:
    ProminentButton(const QString& title, const QString& symbol, QColor (*fill)(), int pixelSize,
                    int horizontalPadding, int height, QWidget* parent = nullptr);
    QSize sizeHint() const override;

protected:
    void paintEvent(QPaintEvent* event) override;
    void keyPressEvent(QKeyEvent* event) override;

private:
    QString symbol_;
    QColor (*fill_)();
    int pixelSize_;
    int horizontalPadding_;
};

// A text-only button in the accent colour.
class LinkButton : public QPushButton {
    Q_OBJECT
public:
    explicit LinkButton(int pixelSize, QWidget* parent = nullptr);
    QSize sizeHint() const override;

protected:
    void paintEvent(QPaintEvent* event) override;
    void keyPressEvent(QKeyEvent* event) override;
};

// The level meter: 22 bars, lit from the left up to `level`.
class Meter : public QWidget {
    Q_OBJECT
public:
    explicit Meter(double level = 0, QWidget* parent = nullptr);
    void setLevel(double level);
    double level() const { return level_; }
    QSize sizeHint() const override;

protected:
    void paintEvent(QPaintEvent* event) override;

private:
    double level_;
};

// A green dot and a status text.
class ReadyLabel : public QWidget {
    Q_OBJECT
public:
    explicit ReadyLabel(const QString& text, QWidget* parent = nullptr);
    QString text() const;

private:
    QLabel* label_;
};

// The title row of the setup and progress screens: symbol tile, title, close button.
class Header : public QWidget {
    Q_OBJECT
public:
    Header(const QString& symbol, const QColor& color, const QString& title,
           std::function<void()> close, QWidget* parent = nullptr);
};
