#pragma once

#include "capture/CaptureEngine.h"
#include "controller/TessarelController.h"
#include "region/RegionSelector.h"
#include "support/EventLoop.h"
#include "support/FakeCapturePlatform.h"
#include "support/FakeControllerPlatform.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QThreadPool>

#include <gtest/gtest.h>

#include <condition_variable>
#include <memory>
#include <mutex>

// Passes screenshots on to the fake, but can hold the next one until the test releases it.
class GatedScreenshots : public ScreenshotService {
public:
    explicit GatedScreenshots(ScreenshotService& inner) : inner_(inner) {}

    void hold() {
        std::lock_guard guard(mutex_);
        held_ = true;
    }
    void release() {
        {
            std::lock_guard guard(mutex_);
            held_ = false;
        }
        changed_.notify_all();
    }
    bool isWaiting() {
        std::lock_guard guard(mutex_);
        return waiting_;
    }

    Image captureImage(const ContentFilter& filter,
                       const ScreenshotConfiguration& configuration) override {
        {
            std::unique_lock lock(mutex_);
            waiting_ = true;
            changed_.wait(lock, [this] { return !held_; });
            waiting_ = false;
        }
        return inner_.captureImage(filter, configuration);
    }

private:
    ScreenshotService& inner_;
    std::mutex mutex_;
    std::condition_variable changed_;
    bool held_ = false;
    bool waiting_ = false;
};

// A real engine on the fake capture services, the real selector on the fake overlay host,
// and a controller whose Downloads folder is a fresh temporary directory.
class ControllerTest : public testing::Test {
protected:
    ControllerTest() {
        fakes.locations.downloads = {QUrl::fromLocalFile(folder.path())};
        controller = std::make_unique<TessarelController>(engine, selector, fakes.platform());
    }

    ~ControllerTest() override {
        screenshots.release();
        // No engine call may outlive the engine.
        QThreadPool::globalInstance()->waitForDone();
    }

    void waitForPendingWork() {
        ASSERT_TRUE(processEventsUntil([this] { return !controller->hasPendingWork(); }));
    }

    // A capture whose engine call succeeds: the recording is running when this returns.
    void startAudioRecording() {
        controller->show(TessarelMode::audioSetup);
        controller->startAudio();
        waitForPendingWork();
        ASSERT_EQ(controller->mode(), TessarelMode::recordingAudio);
    }

    void startVideoRecording() {
        controller->show(TessarelMode::videoSetup);
        controller->beginVideoSelection();
        ASSERT_EQ(overlays.overlays.size(), 1u);
        overlays.select(0, Rect{100, 100, 400, 300});
        waitForPendingWork();
        ASSERT_EQ(controller->mode(), TessarelMode::recordingVideo);
    }

    void takeSnapshotAndWait() {
        controller->show(TessarelMode::snapshotSetup);
        controller->takeSnapshot();
        waitForPendingWork();
    }

    QString pathOf(const std::optional<QUrl>& url) { return url ? url->toLocalFile() : QString(); }

    QTemporaryDir folder;
    FakeCapturePlatform capture;
    GatedScreenshots screenshots{capture.screenshots};
    CaptureEngine engine{CapturePlatform{capture.content, capture.audio, capture.audioWriters,
                                         screenshots, capture.video, capture.resources}};
    FakeSelectionOverlayHost overlays;
    RegionSelector selector{overlays};
    FakeControllerPlatform fakes;
    std::unique_ptr<TessarelController> controller;
};
