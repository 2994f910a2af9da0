#pragma once

#include "capture/CaptureEngine.h"
#include "controller/TessarelController.h"
#include "region/RegionSelector.h"
#include "support/EventLoop.h"
#include "support/FakeCapturePlatform.h"
#include "support/FakeControllerPlatform.h"

#include <QApplication>
#include <QTemporaryDir>
#include <QThreadPool>
#include <QWidget>

#include <gtest/gtest.h>

#include <memory>

// The real controller and engine on fake platform services, for driving real widgets.
class GuiTest : public testing::Test {
protected:
    GuiTest() {
        fakes.locations.downloads = {QUrl::fromLocalFile(folder.path())};
        controller = std::make_unique<TessarelController>(engine, selector, fakes.platform());
    }

    ~GuiTest() override {
        // No engine call may outlive the engine.
        QThreadPool::globalInstance()->waitForDone();
        for (QWidget* window : QApplication::topLevelWidgets()) {
            window->close();
        }
        settle();
    }

    // Runs everything already queued on the GUI thread: renders, resizes, deferred deletes.
    static void settle() {
        bool done = false;
        QMetaObject::invokeMethod(
            QCoreApplication::instance(), [&done] { done = true; }, Qt::QueuedConnection);
        processEventsUntil([&done] { return done; });
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    }

    void waitForPendingWork() {
        ASSERT_TRUE(processEventsUntil([this] { return !controller->hasPendingWork(); }));
        settle();
    }

    template <typename T = QWidget> static T* find(const QWidget* root, const QString& name) {
        return root->findChild<T*>(name);
    }

    QTemporaryDir folder;
    FakeCapturePlatform capture;
    CaptureEngine engine{capture.platform()};
    FakeSelectionOverlayHost overlays;
    RegionSelector selector{overlays};
    FakeControllerPlatform fakes;
    std::unique_ptr<TessarelController> controller;
};
