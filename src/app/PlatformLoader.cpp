#include "app/PlatformLoader.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>

#include <dlfcn.h>

#include <mutex>

namespace {

// Stands in for every capture service and loads the capture module on the first call, from
// whichever thread makes it; every call then goes to the module's service. An idle tray
// application so maps none of the capture and encoder libraries.
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

    // Asked right before each capture, so it loads the module no sooner than the capture would.
    bool preflightScreenCaptureAccess() override {
        return module().permission().preflightScreenCaptureAccess();
    }
    std::optional<QUrl> screenRecordingSettingsURL() override {
        return module().permission().screenRecordingSettingsURL();
    }

    ShareableContent shareableContent(bool excludingDesktopWindows,
                                      bool onScreenWindowsOnly) override {
        return loaded().content.shareableContent(excludingDesktopWindows, onScreenWindowsOnly);
    }
    uint32_t mainDisplayID() override { return loaded().content.mainDisplayID(); }

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
        return loaded().screenshots.captureImage(filter, configuration);
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
    // Throws PlatformError when the module cannot be loaded; the next call tries again.
    CapturePlatform loaded() { return module().platform(); }

    LoadedCapturePlatform& module() {
        std::call_once(loadOnce_, [this] { module_.reset(load()); });
        return *module_;
    }

    static LoadedCapturePlatform* load() {
        // Beside the program, where the build and the installation both put it. Loaded for
        // good: its threads and services live until the process ends.
        const QString path = QDir(QCoreApplication::applicationDirPath())
                                 .filePath(QStringLiteral(TESSAREL_CAPTURE_MODULE_FROM_PROGRAM));
        void* module = dlopen(QFile::encodeName(path).constData(), RTLD_NOW | RTLD_LOCAL);
        const auto make = module ? reinterpret_cast<decltype(&tessarel_make_capture_platform)>(
                                       dlsym(module, "tessarel_make_capture_platform"))
                                 : nullptr;
        if (!make) {
            throw PlatformError(QStringLiteral("Tessarel could not load its capture module: %1")
                                    .arg(QString::fromLocal8Bit(dlerror())));
        }
        return make();
    }

    std::once_flag loadOnce_;
    std::unique_ptr<LoadedCapturePlatform> module_;
};

} // namespace

std::unique_ptr<LoadedCapturePlatform> loadCapturePlatform() {
    return std::make_unique<LazyCapturePlatform>();
}
