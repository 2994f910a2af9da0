#include "app/PlatformLoader.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>

#include <dlfcn.h>

#include <mutex>

namespace {

// The module beside the program at `fromProgram`, where the build and the installation both
// put it, and its entry point `name`. Loaded for good: its threads and services live until
// the process ends. Throws PlatformError when either is missing.
template <typename EntryPoint> EntryPoint entryPoint(const char* fromProgram, const char* name) {
    const QString path =
        QDir(QCoreApplication::applicationDirPath()).filePath(QString::fromUtf8(fromProgram));
    void* module = dlopen(QFile::encodeName(path).constData(), RTLD_NOW | RTLD_LOCAL);
    const auto entry =
        module ? reinterpret_cast<EntryPoint>(dlsym(module, name)) : EntryPoint{nullptr};
    if (!entry) {
        throw PlatformError(QStringLiteral("Tessarel could not load its capture module: %1")
                                .arg(QString::fromLocal8Bit(dlerror())));
    }
    return entry;
}

// Stands in for every capture service and loads the modules on the first call that needs
// them, from whichever thread makes it; every call then goes to the module's service. An
// idle tray application so maps none of the capture and encoder libraries, and one that
// took snapshots none of the recorders'.
class LazyCapturePlatform final : public LoadedCapturePlatform,
                                  public ShareableContentProvider,
                                  public AudioCaptureService,
                                  public AudioWriterFactory,
                                  public ScreenshotService,
                                  public VideoCaptureService,
                                  public ApplicationResources,
                                  public ScreenCapturePermission {
public:
    CapturePlatform platform() override { return {*this, *this, *this, *this, *this, *this}; }
    ScreenCapturePermission& permission() override { return *this; }

    // Asked right before each capture, so it loads a module no sooner than the capture would.
    // Where the screen module serves the session, capture asks no grant.
    bool preflightScreenCaptureAccess() override {
        return screenModule() != nullptr || recorders().permission().preflightScreenCaptureAccess();
    }
    std::optional<QUrl> screenRecordingSettingsURL() override {
        if (screenModule() != nullptr) {
            return std::nullopt;
        }
        return recorders().permission().screenRecordingSettingsURL();
    }

    ShareableContent shareableContent(bool excludingDesktopWindows,
                                      bool onScreenWindowsOnly) override {
        return screen().content.shareableContent(excludingDesktopWindows, onScreenWindowsOnly);
    }
    uint32_t mainDisplayID() override { return screen().content.mainDisplayID(); }

    std::shared_ptr<AudioCaptureStream> makeStream(const ContentFilter& filter,
                                                   const AudioStreamConfiguration& config,
                                                   StreamDelegate* delegate) override {
        return loaded().audio.makeStream(filter, config, delegate);
    }

    std::unique_ptr<AudioFileWriter> makeWriter(const QUrl& url,
                                                const AudioWriterSettings& settings) override {
        return loaded().audioWriters.makeWriter(url, settings);
    }

    Image captureImage(const ContentFilter& filter,
                       const ScreenshotConfiguration& configuration) override {
        return screen().screenshots.captureImage(filter, configuration);
    }

    std::vector<VideoCodec> availableVideoCodecTypes() override {
        return loaded().video.availableVideoCodecTypes();
    }
    std::shared_ptr<VideoCaptureStream> makeStream(const ContentFilter& filter,
                                                   const VideoStreamConfiguration& config,
                                                   StreamDelegate* delegate) override {
        return loaded().video.makeStream(filter, config, delegate);
    }
    std::shared_ptr<RecordingOutput>
    makeRecordingOutput(const RecordingOutputConfiguration& config,
                        RecordingOutputDelegate* delegate) override {
        return loaded().video.makeRecordingOutput(config, delegate);
    }

    std::optional<QString> pathForResource(const QString& name) override {
        return loaded().resources.pathForResource(name);
    }

private:
    struct ScreenServices {
        ShareableContentProvider& content;
        ScreenshotService& screenshots;
    };

    // Each throws PlatformError when a module cannot be loaded; the next call tries again.
    ScreenServices screen() {
        if (LoadedScreenCapture* screen = screenModule()) {
            return {screen->content(), screen->screenshots()};
        }
        const CapturePlatform all = loaded();
        return {all.content, all.screenshots};
    }

    LoadedScreenCapture* screenModule() {
        std::call_once(screenOnce_, [this] {
            screen_.reset(entryPoint<decltype(&tessarel_make_screen_capture)>(
                TESSAREL_SCREEN_MODULE_FROM_PROGRAM, "tessarel_make_screen_capture")());
        });
        return screen_.get();
    }

    CapturePlatform loaded() { return recorders().platform(); }

    LoadedCapturePlatform& recorders() {
        std::call_once(loadOnce_, [this] {
            LoadedScreenCapture* screen = screenModule();
            module_.reset(entryPoint<decltype(&tessarel_make_capture_platform)>(
                TESSAREL_CAPTURE_MODULE_FROM_PROGRAM, "tessarel_make_capture_platform")(screen));
        });
        return *module_;
    }

    std::once_flag screenOnce_;
    std::unique_ptr<LoadedScreenCapture> screen_; // outlives the capture module's use of it
    std::once_flag loadOnce_;
    std::unique_ptr<LoadedCapturePlatform> module_;
};

} // namespace

std::unique_ptr<LoadedCapturePlatform> loadCapturePlatform() {
    return std::make_unique<LazyCapturePlatform>();
}
