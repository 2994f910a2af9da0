#pragma once

#include "controller/Published.h"

#include <QColor>
#include <QFont>
#include <QWidget>

#include <functional>

class QLabel;
class QPushButton;
class TessarelController;

// The small widgets the panel's screens share. GUI thread only.

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

protected:
    void paintEvent(QPaintEvent* event) override;

private:
    double radius_;
    double strokeOpacity_;
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

QLabel* symbolLabel(const QString& symbol, const QColor& tint, int side, QWidget* parent);
QLabel* textLabel(const QString& text, int pixelSize, QFont::Weight weight, const QColor& color,
                  QWidget* parent);
// A filled, tinted push button with a symbol before its title.
QPushButton* prominentButton(const QString& title, const QString& symbol, const QColor& tint,
                             int pixelSize, int horizontalPadding, int height, QWidget* parent);
