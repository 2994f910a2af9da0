#pragma once

#include "controller/Published.h"
#include "controller/TessarelMode.h"

#include <QAbstractButton>
#include <QColor>
#include <QMessageBox>
#include <QPointer>
#include <QWidget>

#include <functional>
#include <optional>

class CloseButton;
class GearMenuButton;
class QLabel;
class QPushButton;
class TessarelController;

// The panel's screens. Views keep no state of their own: each reads the controller when it
// renders and hands every action to it. GUI thread only.

enum class CaptureKind { audio, video, snapshot };

// A view that renders again once the controller has announced a change. The announcement
// comes before the new value is stored, so the render is queued and coalesced.
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

// One capture kind on the home card; the whole row takes the click.
class HomeRow : public QAbstractButton {
    Q_OBJECT
public:
    HomeRow(const QString& icon, const QColor& color, const QString& title, const QString& subtitle,
            const QString& shortcut, std::function<void()> action, QWidget* parent = nullptr);
    QSize sizeHint() const override;

protected:
    void paintEvent(QPaintEvent* event) override;
};

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
    QLabel* folderName_ = nullptr;
    QLabel* formatText_ = nullptr;
    QAbstractButton* formatButton_ = nullptr;
};

class ProgressView : public ControllerView {
    Q_OBJECT
public:
    ProgressView(TessarelController& controller, bool audio, QWidget* parent = nullptr);

protected:
    void render() override;

private:
    bool audio_;
    QLabel* durationLabel_ = nullptr;
    Meter* meter_ = nullptr;
};

// Fills the panel: the screen for the current mode, the error alert and the permission alert.
class TessarelRootView : public ControllerView {
    Q_OBJECT
public:
    static constexpr QSize minimumPanelSize{650, 410};
    // The panel shrinks no further than 650 × 410, nor than a smaller screen needs.
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
