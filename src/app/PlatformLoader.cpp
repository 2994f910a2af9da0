#include "app/PlatformLoader.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QTimer>

#include <dlfcn.h>
#include <link.h>
#include <malloc.h>
#include <sys/mman.h>
#include <unistd.h>

#include <chrono>
#include <mutex>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace {

// How long the capture module stays loaded once the last of its objects is gone: a recording
// started soon after the last one finds it ready; a minute later the recorders' libraries
// and the memory their threads used have left the process.
constexpr std::chrono::seconds kCaptureModuleIdleTime{10};

// The shared objects a module brought into the process that the C library keeps after the
// module has left: those marked never to be unloaded and those holding unique symbols, with
// what they need. Their code and read-only data leave the process's memory once the module
// has gone, as an unloaded library's do, so an idle tray application does not keep a
// recording's libraries resident; they come back from the page cache when next used.
class LibrariesLeftBehind {
public:
    // Around each load of the module.
    void noteBeforeLoad() { before_ = loadedObjects(); }
    void noteAfterLoad() {
        for (const std::string& name : loadedObjects()) {
            if (!before_.contains(name)) {
                brought_.insert(name);
            }
        }
        before_.clear();
    }

    // After the module has been unloaded. Only pages no writable segment shares, of objects
    // whose code was never relocated in place: dropping a page maps the file's own again.
    // Done while the C library holds its list of objects, so none can leave meanwhile.
    void release() {
        dl_iterate_phdr(
            [](dl_phdr_info* object, size_t, void* brought) {
                if (object->dlpi_name == nullptr ||
                    !static_cast<const std::set<std::string>*>(brought)->contains(
                        object->dlpi_name) ||
                    hasTextRelocations(*object)) {
                    return 0;
                }
                const auto page = static_cast<uintptr_t>(sysconf(_SC_PAGESIZE));
                for (ElfW(Half) i = 0; i < object->dlpi_phnum; ++i) {
                    const ElfW(Phdr)& segment = object->dlpi_phdr[i];
                    if (segment.p_type != PT_LOAD || (segment.p_flags & PF_W) != 0) {
                        continue;
                    }
                    const uintptr_t begin = object->dlpi_addr + segment.p_vaddr;
                    const uintptr_t first = (begin + page - 1) & ~(page - 1);
                    const uintptr_t end = (begin + segment.p_memsz) & ~(page - 1);
                    if (end > first) {
                        madvise(reinterpret_cast<void*>(first), end - first, MADV_DONTNEED);
                    }
                }
                return 0;
            },
            &brought_);
    }

private:
    static bool hasTextRelocations(const dl_phdr_info& object) {
        for (ElfW(Half) i = 0; i < object.dlpi_phnum; ++i) {
            if (object.dlpi_phdr[i].p_type != PT_DYNAMIC) {
                continue;
            }
            const auto* entry =
                reinterpret_cast<const ElfW(Dyn)*>(object.dlpi_addr + object.dlpi_phdr[i].p_vaddr);
            for (; entry->d_tag != DT_NULL; ++entry) {
                if (entry->d_tag == DT_TEXTREL ||
                    (entry->d_tag == DT_FLAGS && (entry->d_un.d_val & DF_TEXTREL) != 0)) {
                    return true;
                }
            }
        }
        return false;
    }

    static std::set<std::string> loadedObjects() {
        std::set<std::string> names;
        dl_iterate_phdr(
            [](dl_phdr_info* object, size_t, void* data) {
                if (object->dlpi_name != nullptr && object->dlpi_name[0] != '\0') {
                    static_cast<std::set<std::string>*>(data)->emplace(object->dlpi_name);
                }
                return 0;
            },
            &names);
        return names;
    }

    std::set<std::string> before_;
    std::set<std::string> brought_;
};

template <typename EntryPoint> struct Module {
    void* handle = nullptr;
    EntryPoint entry = nullptr;
};

// Opens the module beside the program at `fromProgram`, where the build and the installation
// both put it, and finds its entry point `name`. Throws PlatformError when either is missing.
template <typename EntryPoint>
Module<EntryPoint> openModule(const char* fromProgram, const char* name) {
    const QString path =
        QDir(QCoreApplication::applicationDirPath()).filePath(QString::fromUtf8(fromProgram));
    void* handle = dlopen(QFile::encodeName(path).constData(), RTLD_NOW | RTLD_LOCAL);
    const auto entry =
        handle ? reinterpret_cast<EntryPoint>(dlsym(handle, name)) : EntryPoint{nullptr};
    if (!entry) {
        const QString reason = QString::fromLocal8Bit(dlerror());
        if (handle) {
            dlclose(handle);
        }
        throw PlatformError(
            QStringLiteral("Tessarel could not load its capture module: %1").arg(reason));
    }
    return {handle, entry};
}

// The error a module raised, as an object of this program: code of the module's own copy
// describes and destroys the original, and that code leaves with the module.
std::exception_ptr ownCopy(const std::exception_ptr& error) {
    if (!error) {
        return nullptr;
    }
    try {
        std::rethrow_exception(error);
    } catch (const ScreenCapturePermissionError& e) {
        return std::make_exception_ptr(ScreenCapturePermissionError(QString::fromUtf8(e.what())));
    } catch (const PlatformError& e) {
        return std::make_exception_ptr(PlatformError(QString::fromUtf8(e.what())));
    } catch (...) {
        // The standard library's own, which stays.
        return std::current_exception();
    }
}

// Runs a call into the capture module; what it throws leaves as this program's own copy.
template <typename Call> decltype(auto) intoModule(Call&& call) {
    try {
        return call();
    } catch (...) {
        std::rethrow_exception(ownCopy(std::current_exception()));
    }
}

// A text the module made may be its own constant, stored in the module itself.
std::optional<QString> ownCopy(const std::optional<QString>& text) {
    return text ? std::optional(QString(text->constData(), text->size())) : std::nullopt;
}

// Keeps the capture module loaded for as long as a copy of it lives.
using ModuleUse = std::shared_ptr<const void>;

// The module's streams, recorders and writers as the engine holds them: each keeps the module
// loaded for as long as it lives, and what reaches the engine from it is this program's own.
template <typename Stream> class ModuleStream : public Stream, private StreamDelegate {
public:
    ModuleStream(ModuleUse use, StreamDelegate* engine) : use_(std::move(use)), engine_(engine) {}

    // The module's stream, made to report to delegate().
    void attach(std::shared_ptr<Stream> stream) { stream_ = std::move(stream); }
    StreamDelegate* delegate() { return this; }

    void startCapture() override {
        intoModule([&] { stream_->startCapture(); });
    }
    void stopCapture() override {
        intoModule([&] { stream_->stopCapture(); });
    }

protected:
    Stream& stream() { return *stream_; }

private:
    void streamDidStop(std::exception_ptr error) override {
        engine_->streamDidStop(ownCopy(error));
    }

    const ModuleUse use_;
    StreamDelegate* const engine_;
    std::shared_ptr<Stream> stream_; // goes first, while its delegate still exists
};

class ModuleAudioStream final : public ModuleStream<AudioCaptureStream> {
public:
    using ModuleStream::ModuleStream;
    void addAudioOutput(AudioSampleHandler* handler) override {
        intoModule([&] { stream().addAudioOutput(handler); });
    }
};

class ModuleRecordingOutput final : public RecordingOutput, private RecordingOutputDelegate {
public:
    ModuleRecordingOutput(ModuleUse use, RecordingOutputDelegate* engine)
        : use_(std::move(use)), engine_(engine) {}

    void attach(std::shared_ptr<RecordingOutput> output) { output_ = std::move(output); }
    RecordingOutputDelegate* delegate() { return this; }
    // The module's recorder, keeping this one alive while the module's stream holds it.
    static std::shared_ptr<RecordingOutput> inModule(const std::shared_ptr<RecordingOutput>& own) {
        return {own, static_cast<ModuleRecordingOutput&>(*own).output_.get()};
    }

private:
    void recordingOutputDidStartRecording() override {
        engine_->recordingOutputDidStartRecording();
    }
    void recordingOutputDidFinishRecording() override {
        engine_->recordingOutputDidFinishRecording();
    }
    void recordingOutputDidFail(std::exception_ptr error) override {
        engine_->recordingOutputDidFail(ownCopy(error));
    }

    const ModuleUse use_;
    RecordingOutputDelegate* const engine_;
    std::shared_ptr<RecordingOutput> output_;
};

class ModuleVideoStream final : public ModuleStream<VideoCaptureStream> {
public:
    using ModuleStream::ModuleStream;
    // Takes only recorders made by the same platform.
    void addRecordingOutput(const std::shared_ptr<RecordingOutput>& output) override {
        intoModule([&] { stream().addRecordingOutput(ModuleRecordingOutput::inModule(output)); });
    }
};

class ModuleAudioWriter final : public AudioFileWriter {
    // Every call of the module's writer, its errors made this program's own.
    template <typename Member, typename... Arguments>
    decltype(auto) call(Member member, Arguments&&... arguments) {
        return intoModule([&]() -> decltype(auto) {
            return (*writer_.*member)(std::forward<Arguments>(arguments)...);
        });
    }

public:
    ModuleAudioWriter(ModuleUse use, std::unique_ptr<AudioFileWriter> writer)
        : use_(std::move(use)), writer_(std::move(writer)) {}

    bool canAddInput() override { return call(&AudioFileWriter::canAddInput); }
    void addInput() override { call(&AudioFileWriter::addInput); }
    bool startWriting() override { return call(&AudioFileWriter::startWriting); }
    void startSession(int64_t sourceTimeNs) override {
        call(&AudioFileWriter::startSession, sourceTimeNs);
    }
    bool isReadyForMoreMediaData() override {
        return call(&AudioFileWriter::isReadyForMoreMediaData);
    }
    bool append(SampleBuffer buffer) override {
        return call(&AudioFileWriter::append, std::move(buffer));
    }
    void markAsFinished() override { call(&AudioFileWriter::markAsFinished); }
    void finishWriting() override { call(&AudioFileWriter::finishWriting); }
    void cancelWriting() override { call(&AudioFileWriter::cancelWriting); }
    AudioWriterStatus status() override { return call(&AudioFileWriter::status); }
    std::optional<QString> error() override { return ownCopy(call(&AudioFileWriter::error)); }

private:
    const ModuleUse use_;
    const std::unique_ptr<AudioFileWriter> writer_;
};

// Stands in for every capture service and loads the modules on the first call that needs
// them, from whichever thread makes it; every call then goes to the module's service. An
// idle tray application so maps none of the capture and encoder libraries, and one that
// took snapshots none of the recorders'. Where the screen module serves the screen, the
// capture module records and nothing else: it is unloaded, with the recorders' libraries, a
// while after the last of its streams, recorders and writers is gone, and loaded again by the
// next recording. Elsewhere it also holds the screen's grant and stays.
class LazyCapturePlatform final : public LoadedCapturePlatform,
                                  public ShareableContentProvider,
                                  public AudioCaptureService,
                                  public AudioWriterFactory,
                                  public ScreenshotService,
                                  public VideoCaptureService,
                                  public ApplicationResources,
                                  public ScreenCapturePermission {
    struct Recorders {
        ModuleUse use;
        LoadedCapturePlatform& module;
    };

    // Runs `call` with the screen's displays and snapshots.
    template <typename Call> decltype(auto) withScreen(Call call) {
        if (LoadedScreenCapture* screen = screenModule()) {
            return call(screen->content(), screen->screenshots());
        }
        return withRecorders([&](LoadedCapturePlatform& module) {
            const CapturePlatform all = module.platform();
            return call(all.content, all.screenshots);
        });
    }

    template <typename Call> decltype(auto) withRecorders(Call call) {
        const Recorders recorders = loadedRecorders();
        return intoModule([&]() -> decltype(auto) { return call(recorders.module); });
    }

    // The module's object `make` returns, made to report to its stand-in, which keeps the
    // module loaded.
    template <typename Own, typename Delegate, typename Make>
    std::shared_ptr<Own> made(Delegate* delegate, Make make) {
        Recorders recorders = loadedRecorders();
        const auto own = std::make_shared<Own>(std::move(recorders.use), delegate);
        own->attach(intoModule([&] { return make(recorders.module.platform(), own->delegate()); }));
        return own;
    }

public:
    LazyCapturePlatform() {
        idleTimer_.setSingleShot(true);
        idleTimer_.setInterval(kCaptureModuleIdleTime);
        QObject::connect(&idleTimer_, &QTimer::timeout, [this] { releaseIdleMemory(); });
    }

    CapturePlatform platform() override { return {*this, *this, *this, *this, *this, *this}; }
    ScreenCapturePermission& permission() override { return *this; }

    // Asked right before each capture, so it loads a module no sooner than the capture would.
    // Where the screen module serves the session, capture asks no grant.
    bool preflightScreenCaptureAccess() override {
        return screenModule() != nullptr || withRecorders([](LoadedCapturePlatform& module) {
                   return module.permission().preflightScreenCaptureAccess();
               });
    }
    std::optional<QUrl> screenRecordingSettingsURL() override {
        if (screenModule() != nullptr) {
            return std::nullopt;
        }
        return withRecorders([](LoadedCapturePlatform& module) {
            return module.permission().screenRecordingSettingsURL();
        });
    }

    ShareableContent shareableContent(bool excludingDesktopWindows,
                                      bool onScreenWindowsOnly) override {
        return withScreen([&](ShareableContentProvider& content, ScreenshotService&) {
            return content.shareableContent(excludingDesktopWindows, onScreenWindowsOnly);
        });
    }
    uint32_t mainDisplayID() override {
        return withScreen([](ShareableContentProvider& content, ScreenshotService&) {
            return content.mainDisplayID();
        });
    }

    std::shared_ptr<AudioCaptureStream> makeStream(const ContentFilter& filter,
                                                   const AudioStreamConfiguration& config,
                                                   StreamDelegate* delegate) override {
        return made<ModuleAudioStream>(delegate, [&](CapturePlatform module, StreamDelegate* own) {
            return module.audio.makeStream(filter, config, own);
        });
    }

    std::unique_ptr<AudioFileWriter> makeWriter(const QUrl& url,
                                                const AudioWriterSettings& settings) override {
        Recorders recorders = loadedRecorders();
        std::unique_ptr<AudioFileWriter> writer = intoModule(
            [&] { return recorders.module.platform().audioWriters.makeWriter(url, settings); });
        return std::make_unique<ModuleAudioWriter>(std::move(recorders.use), std::move(writer));
    }

    Image captureImage(const ContentFilter& filter,
                       const ScreenshotConfiguration& configuration) override {
        return withScreen([&](ShareableContentProvider&, ScreenshotService& screenshots) {
            return screenshots.captureImage(filter, configuration);
        });
    }

    std::vector<VideoCodec> availableVideoCodecTypes() override {
        return withRecorders([](LoadedCapturePlatform& module) {
            return module.platform().video.availableVideoCodecTypes();
        });
    }
    std::shared_ptr<VideoCaptureStream> makeStream(const ContentFilter& filter,
                                                   const VideoStreamConfiguration& config,
                                                   StreamDelegate* delegate) override {
        return made<ModuleVideoStream>(delegate, [&](CapturePlatform module, StreamDelegate* own) {
            return module.video.makeStream(filter, config, own);
        });
    }
    std::shared_ptr<RecordingOutput>
    makeRecordingOutput(const RecordingOutputConfiguration& config,
                        RecordingOutputDelegate* delegate) override {
        return made<ModuleRecordingOutput>(
            delegate, [&](CapturePlatform module, RecordingOutputDelegate* own) {
                return module.video.makeRecordingOutput(config, own);
            });
    }

    std::optional<QString> pathForResource(const QString& name) override {
        return ownCopy(withRecorders([&](LoadedCapturePlatform& module) {
            return module.platform().resources.pathForResource(name);
        }));
    }

private:
    // Throws PlatformError when the module cannot be loaded; the next call tries again.
    LoadedScreenCapture* screenModule() {
        std::call_once(screenOnce_, [this] {
            // Loaded for good: the displays it lists stay valid until the process ends.
            screen_.reset(openModule<decltype(&tessarel_make_screen_capture)>(
                              TESSAREL_SCREEN_MODULE_FROM_PROGRAM, "tessarel_make_screen_capture")
                              .entry());
        });
        return screen_.get();
    }

    // The capture module, loaded where it is not. Throws PlatformError when it cannot be;
    // the next call tries again.
    Recorders loadedRecorders() {
        LoadedScreenCapture* screen = screenModule();
        const std::lock_guard guard(moduleLock_);
        if (!recorders_) {
            leftBehind_.noteBeforeLoad();
            const auto opened = openModule<decltype(&tessarel_make_capture_platform)>(
                TESSAREL_CAPTURE_MODULE_FROM_PROGRAM, "tessarel_make_capture_platform");
            leftBehind_.noteAfterLoad();
            try {
                recorders_.reset(intoModule([&] { return opened.entry(screen); }));
            } catch (...) {
                dlclose(opened.handle);
                throw;
            }
            recordersHandle_ = opened.handle;
            keepLibrariesThatLeakWhenUnloaded();
        }
        ++uses_;
        return {ModuleUse(nullptr, [this](const void*) { released(); }), *recorders_};
    }

    // pixman, drawn in by FFmpeg's image decoders through cairo, allocates its tables when
    // loaded and never frees them: kept for good once loaded, it loses nothing per recording.
    static void keepLibrariesThatLeakWhenUnloaded() {
        dlopen("libpixman-1.so.0", RTLD_LAZY | RTLD_NOLOAD | RTLD_NODELETE);
    }

    void released() {
        const std::lock_guard guard(moduleLock_);
        if (--uses_ == 0) {
            // The timer belongs to the GUI thread; from any other the start waits for it.
            QMetaObject::invokeMethod(&idleTimer_, [this] { idleTimer_.start(); });
        }
    }

    // On the GUI thread, the idle time after the last use ended: the module leaves where it
    // only records, and the memory the capture's threads freed goes back to the system.
    void releaseIdleMemory() {
        {
            const std::lock_guard guard(moduleLock_);
            if (uses_ > 0) {
                return;
            }
            if (recorders_ && screen_ != nullptr) {
                // Its services end their threads and connections first.
                recorders_.reset();
                dlclose(std::exchange(recordersHandle_, nullptr));
                leftBehind_.release();
            }
        }
        malloc_trim(0);
    }

    std::once_flag screenOnce_;
    std::unique_ptr<LoadedScreenCapture> screen_; // outlives the capture module's use of it
    std::mutex moduleLock_;                       // guards the capture module's fields
    void* recordersHandle_ = nullptr;
    LibrariesLeftBehind leftBehind_;
    std::unique_ptr<LoadedCapturePlatform> recorders_;
    int uses_ = 0;
    QTimer idleTimer_;
};

} // namespace

std::unique_ptr<LoadedCapturePlatform> loadCapturePlatform() {
    return std::make_unique<LazyCapturePlatform>();
}
