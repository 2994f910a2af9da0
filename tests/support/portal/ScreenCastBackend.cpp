// A desktop portal backend for tests: the backend side of ScreenCast and of Access (the
// frontend's permission dialogs). Its "dialog" grants, or declines while the file `decline`
// exists in its control folder, after as many milliseconds as the file `dialog-ms` there
// says (else at once), and picks the output named in `choose` there (else the first); a
// restored session is granted without asking. In that folder it counts each grant it gives
// as a line in `grants`, each session opened and closed as a line in `sessions`, and each
// call it gets as a line in `requests`. Each shared monitor is a real PipeWire video node in
// shared memory: the test pattern of its seed, a block sliding through its lower quarter, a
// crop that leaves out a strip of other pixels at the right, damage for the rows that
// changed and, when asked for, the pointer as metadata (a 16 × 16 magenta square at
// (40, 40)); now and then a corrupted and an empty buffer, which a consumer must pass over.
//
//   portal_screencast_backend [--from-screen] <control folder> <monitor> ...
//
// With --from-screen each monitor's pictures are instead those of the output of its name on
// the Wayland compositor named by WAYLAND_DISPLAY, copied with wlr-screencopy as
// xdg-desktop-portal-wlr does, with the compositor's damage and the pointer drawn in (a
// consumer that asks for it as metadata gets none).
//
// where each monitor is <name>:<x>:<y>:<width>:<height>:<pixel width>:<pixel height>:<seed>:<turn>
// and <turn> sends its buffers turned, with a transform saying so: "0" upright, "90", "180",
// "270" turned counter-clockwise, "flipped" mirrored left to right, "flipped-90" ... mirrored
// and then turned (the Wayland output transforms).
// Prints "ready" once it owns its bus name.

#include "ScreenFeed.h"
#include "support/VirtualDisplay.h"

#include <QCoreApplication>
#include <QDBusArgument>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusMetaType>
#include <QDBusObjectPath>
#include <QDBusVariant>
#include <QDBusVirtualObject>
#include <QDir>
#include <QFile>
#include <QTextStream>
#include <QThread>

#include <cstdio>
#include <cstring>
#include <map>
#include <memory>

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wpedantic"
#pragma GCC diagnostic ignored "-Wold-style-cast"
#pragma GCC diagnostic ignored "-Wcast-align"
#pragma GCC diagnostic ignored "-Wmissing-field-initializers"
#include <pipewire/pipewire.h>
#include <spa/buffer/meta.h>
#include <spa/param/video/format-utils.h>
#include <spa/pod/builder.h>

namespace {

constexpr int kCropStrip = 8;  // columns of other pixels right of the picture
constexpr int kBlockSide = 48; // the sliding block
constexpr int kPointerSide = 16;
constexpr int kPointerAt = 40;
constexpr int kFramesPerSecond = 60;
constexpr uint32_t kCursorModes = 1 | 4; // hidden, metadata
const QString kVendor = QStringLiteral("tessarel-test");

struct Monitor {
    bool fromScreen = false; // the compositor's output of this name, not the pattern
    QString name;
    QRect logical;
    QSize pixels;
    int seed = 0;
    uint32_t transform = SPA_META_TRANSFORMATION_None; // how its buffers come turned
};

// The buffer's picture for the upright `picture`: mirrored left to right when the transform
// flips, then turned counter-clockwise by its angle.
QImage turned(const QImage& picture, uint32_t transform) {
    const QImage flipped =
        transform >= SPA_META_TRANSFORMATION_Flipped ? picture.mirrored(true, false) : picture;
    const int angle = static_cast<int>(transform % 4) * 90;
    // QTransform turns clockwise on the screen's downward y axis.
    return angle == 0 ? flipped : flipped.transformed(QTransform().rotate(-angle));
}

struct Stream {
    uint32_t node = 0;
    QVariantMap properties;
};
struct Pair {
    int first = 0;
    int second = 0;
};
struct RestoreData {
    QString vendor;
    uint32_t version = 0;
    QDBusVariant data;
};

} // namespace

Q_DECLARE_METATYPE(Stream)
Q_DECLARE_METATYPE(Pair)
Q_DECLARE_METATYPE(RestoreData)

namespace {

QDBusArgument& operator<<(QDBusArgument& argument, const Stream& stream) {
    argument.beginStructure();
    argument << stream.node << stream.properties;
    argument.endStructure();
    return argument;
}
const QDBusArgument& operator>>(const QDBusArgument& argument, Stream& stream) {
    argument.beginStructure();
    argument >> stream.node >> stream.properties;
    argument.endStructure();
    return argument;
}
QDBusArgument& operator<<(QDBusArgument& argument, const Pair& pair) {
    argument.beginStructure();
    argument << pair.first << pair.second;
    argument.endStructure();
    return argument;
}
const QDBusArgument& operator>>(const QDBusArgument& argument, Pair& pair) {
    argument.beginStructure();
    argument >> pair.first >> pair.second;
    argument.endStructure();
    return argument;
}
QDBusArgument& operator<<(QDBusArgument& argument, const RestoreData& data) {
    argument.beginStructure();
    argument << data.vendor << data.version << data.data;
    argument.endStructure();
    return argument;
}
const QDBusArgument& operator>>(const QDBusArgument& argument, RestoreData& data) {
    argument.beginStructure();
    argument >> data.vendor >> data.version >> data.data;
    argument.endStructure();
    return argument;
}

// One monitor's picture as a PipeWire source node driven by a timer on PipeWire's thread.
class PatternSource {
public:
    PatternSource(pw_thread_loop* loop, pw_core* core, const Monitor& monitor, bool withPointer)
        : loop_(loop), monitor_(monitor), withPointer_(withPointer),
          pattern_(VirtualDisplay::testPattern(monitor.pixels, monitor.seed)),
          feed_(monitor.fromScreen ? std::make_unique<ScreenFeed>(monitor.name) : nullptr) {
        events_.version = PW_VERSION_STREAM_EVENTS;
        events_.param_changed = [](void* data, uint32_t id, const spa_pod* param) {
            static_cast<PatternSource*>(data)->paramChanged(id, param);
        };
        events_.state_changed = [](void* data, pw_stream_state, pw_stream_state, const char*) {
            pw_thread_loop_signal(static_cast<PatternSource*>(data)->loop_, false);
        };
        pw_thread_loop_lock(loop_);
        stream_ = pw_stream_new(core, "tessarel-test-monitor",
                                pw_properties_new(PW_KEY_MEDIA_CLASS, "Video/Source", nullptr));
        pw_stream_add_listener(stream_, &hook_, &events_, this);
        const int width = bufferSize().width() + kCropStrip;
        const int height = bufferSize().height();
        uint8_t space[1024];
        spa_pod_builder builder = SPA_POD_BUILDER_INIT(space, sizeof(space));
        spa_rectangle size =
            SPA_RECTANGLE(static_cast<uint32_t>(width), static_cast<uint32_t>(height));
        spa_fraction rate = SPA_FRACTION(kFramesPerSecond, 1);
        const spa_pod* params[] = {static_cast<const spa_pod*>(spa_pod_builder_add_object(
            &builder, SPA_TYPE_OBJECT_Format, SPA_PARAM_EnumFormat, SPA_FORMAT_mediaType,
            SPA_POD_Id(SPA_MEDIA_TYPE_video), SPA_FORMAT_mediaSubtype,
            SPA_POD_Id(SPA_MEDIA_SUBTYPE_raw), SPA_FORMAT_VIDEO_format,
            SPA_POD_Id(SPA_VIDEO_FORMAT_BGRx), SPA_FORMAT_VIDEO_size, SPA_POD_Rectangle(&size),
            SPA_FORMAT_VIDEO_framerate, SPA_POD_Fraction(&rate)))};
        pw_stream_connect(
            stream_, PW_DIRECTION_OUTPUT, PW_ID_ANY,
            static_cast<pw_stream_flags>(PW_STREAM_FLAG_DRIVER | PW_STREAM_FLAG_MAP_BUFFERS),
            params, 1);
        while (pw_stream_get_node_id(stream_) == SPA_ID_INVALID) {
            pw_thread_loop_wait(loop_);
        }
        node_ = pw_stream_get_node_id(stream_);
        timer_ = pw_loop_add_timer(
            pw_thread_loop_get_loop(loop_),
            [](void* data, uint64_t) { static_cast<PatternSource*>(data)->frame(); }, this);
        timespec interval{0, 1'000'000'000 / kFramesPerSecond};
        pw_loop_update_timer(pw_thread_loop_get_loop(loop_), timer_, &interval, &interval, false);
        pw_thread_loop_unlock(loop_);
    }

    ~PatternSource() {
        pw_thread_loop_lock(loop_);
        pw_loop_destroy_source(pw_thread_loop_get_loop(loop_), timer_);
        spa_hook_remove(&hook_);
        pw_stream_destroy(stream_);
        pw_thread_loop_unlock(loop_);
    }

    uint32_t node() const { return node_; }

private:
    void paramChanged(uint32_t id, const spa_pod* param) {
        if (id != SPA_PARAM_Format || param == nullptr) {
            return;
        }
        const int stride = (bufferSize().width() + kCropStrip) * 4;
        uint8_t space[1024];
        spa_pod_builder builder = SPA_POD_BUILDER_INIT(space, sizeof(space));
        const spa_pod* params[] = {
            static_cast<const spa_pod*>(spa_pod_builder_add_object(
                &builder, SPA_TYPE_OBJECT_ParamBuffers, SPA_PARAM_Buffers,
                SPA_PARAM_BUFFERS_buffers, SPA_POD_CHOICE_RANGE_Int(4, 2, 8),
                SPA_PARAM_BUFFERS_blocks, SPA_POD_Int(1), SPA_PARAM_BUFFERS_size,
                SPA_POD_Int(stride * bufferSize().height()), SPA_PARAM_BUFFERS_stride,
                SPA_POD_Int(stride), SPA_PARAM_BUFFERS_dataType,
                SPA_POD_CHOICE_FLAGS_Int(1 << SPA_DATA_MemFd))),
            metaParam(builder, SPA_META_Header, sizeof(spa_meta_header)),
            metaParam(builder, SPA_META_VideoCrop, sizeof(spa_meta_region)),
            metaParam(builder, SPA_META_VideoTransform, sizeof(spa_meta_videotransform)),
            metaParam(builder, SPA_META_VideoDamage, sizeof(spa_meta_region) * 4),
            metaParam(builder, SPA_META_Cursor,
                      sizeof(spa_meta_cursor) + sizeof(spa_meta_bitmap) +
                          kPointerSide * kPointerSide * 4)};
        pw_stream_update_params(stream_, params, 6);
    }

    static const spa_pod* metaParam(spa_pod_builder& builder, uint32_t type, size_t size) {
        return static_cast<const spa_pod*>(spa_pod_builder_add_object(
            &builder, SPA_TYPE_OBJECT_ParamMeta, SPA_PARAM_Meta, SPA_PARAM_META_type,
            SPA_POD_Id(type), SPA_PARAM_META_size, SPA_POD_Int(static_cast<int>(size))));
    }

    bool sideways() const { return monitor_.transform % 2 == 1; }
    // The buffer's picture size, without the cropped-off strip.
    QSize bufferSize() const { return sideways() ? monitor_.pixels.transposed() : monitor_.pixels; }

    // Sends the compositor's next picture of the output in `buffer`, with its damage; nothing
    // when nothing changed.
    void sendScreen(pw_buffer& buffer, int stride) {
        spa_buffer* spa = buffer.buffer;
        spa_data& plane = spa->datas[0];
        // Waiting no longer than a frame: the loop is locked meanwhile.
        const std::optional<ScreenFeed::Picture> picture =
            feed_->next(withPointer_, std::chrono::milliseconds(1000 / kFramesPerSecond));
        if (!picture || picture->width != monitor_.pixels.width() ||
            picture->height != monitor_.pixels.height()) {
            pw_stream_queue_buffer(stream_, &buffer);
            return;
        }
        const bool first = count_++ == 0;
        auto* pixels = static_cast<uint8_t*>(plane.data);
        for (int y = 0; y < picture->height; ++y) {
            std::memcpy(pixels + static_cast<ptrdiff_t>(y) * stride,
                        picture->pixels + static_cast<ptrdiff_t>(y) * picture->stride,
                        static_cast<size_t>(picture->width) * 4);
        }
        if (auto* header = static_cast<spa_meta_header*>(
                spa_buffer_find_meta_data(spa, SPA_META_Header, sizeof(spa_meta_header)))) {
            header->flags = 0;
            header->seq = count_;
        }
        if (auto* turn = static_cast<spa_meta_videotransform*>(spa_buffer_find_meta_data(
                spa, SPA_META_VideoTransform, sizeof(spa_meta_videotransform)))) {
            turn->transform = SPA_META_TRANSFORMATION_None;
        }
        if (auto* crop = static_cast<spa_meta_region*>(
                spa_buffer_find_meta_data(spa, SPA_META_VideoCrop, sizeof(spa_meta_region)))) {
            crop->region = SPA_REGION(0, 0, static_cast<uint32_t>(picture->width),
                                      static_cast<uint32_t>(picture->height));
        }
        if (spa_meta* damage = spa_buffer_find_meta(spa, SPA_META_VideoDamage)) {
            auto* regions = static_cast<spa_meta_region*>(damage->data);
            const int top = first ? 0 : picture->changedTop;
            const int bottom = first ? picture->height : picture->changedBottom;
            regions[0].region = SPA_REGION(0, top, static_cast<uint32_t>(picture->width),
                                           static_cast<uint32_t>(std::max(bottom - top, 0)));
            regions[1].region = SPA_REGION(0, 0, 0, 0);
        }
        if (auto* cursor = static_cast<spa_meta_cursor*>(
                spa_buffer_find_meta_data(spa, SPA_META_Cursor, sizeof(spa_meta_cursor)))) {
            cursor->id = 0; // drawn in
        }
        plane.chunk->offset = 0;
        plane.chunk->stride = stride;
        plane.chunk->size = static_cast<uint32_t>(stride * picture->height);
        plane.chunk->flags = 0;
        pw_stream_queue_buffer(stream_, &buffer);
        pw_stream_trigger_process(stream_);
    }

    // Writes the next picture into a free buffer and sends it.
    void frame() {
        pw_buffer* buffer = pw_stream_dequeue_buffer(stream_);
        if (buffer == nullptr) {
            return;
        }
        spa_buffer* spa = buffer->buffer;
        spa_data& plane = spa->datas[0];
        const int width = monitor_.pixels.width();
        const int height = monitor_.pixels.height();
        const int stride = (bufferSize().width() + kCropStrip) * 4;
        const int bufferBytes = stride * bufferSize().height();
        auto* pixels = static_cast<uint8_t*>(plane.data);
        if (pixels == nullptr || plane.maxsize < static_cast<uint32_t>(bufferBytes)) {
            pw_stream_queue_buffer(stream_, buffer);
            return;
        }
        if (feed_) {
            sendScreen(*buffer, stride);
            return;
        }
        ++count_;
        const bool corrupted = count_ % 23 == 7;
        const bool empty = count_ % 23 == 15;
        auto* header = static_cast<spa_meta_header*>(
            spa_buffer_find_meta_data(spa, SPA_META_Header, sizeof(spa_meta_header)));
        if (header) {
            header->flags = corrupted ? SPA_META_HEADER_FLAG_CORRUPTED : 0;
            header->seq = count_;
        }
        // The upright picture: the pattern with the block sliding through the lower quarter,
        // two pixels a frame; a corrupted buffer is pure red.
        QImage picture = pattern_.copy();
        const int travel = width - kBlockSide;
        const int step = (count_ * 2) % (2 * travel);
        const int blockX = step < travel ? step : 2 * travel - step;
        const int blockY = height - height / 8 - kBlockSide / 2;
        if (corrupted) {
            picture.fill(QColor(255, 0, 0));
        } else {
            for (int y = blockY; y < blockY + kBlockSide; ++y) {
                auto* row = reinterpret_cast<QRgb*>(picture.scanLine(y));
                for (int x = blockX; x < blockX + kBlockSide; ++x) {
                    row[x] = qRgb(40, 200, 60);
                }
            }
        }
        const QImage sent = turned(picture, monitor_.transform);
        for (int y = 0; y < sent.height(); ++y) {
            uint8_t* row = pixels + static_cast<ptrdiff_t>(y) * stride;
            std::memcpy(row, sent.constScanLine(y), static_cast<size_t>(sent.width()) * 4);
            for (int x = sent.width(); x < sent.width() + kCropStrip; ++x) { // cut off: green
                row[x * 4] = 0;
                row[x * 4 + 1] = 255;
                row[x * 4 + 2] = 0;
            }
        }
        if (auto* turn = static_cast<spa_meta_videotransform*>(spa_buffer_find_meta_data(
                spa, SPA_META_VideoTransform, sizeof(spa_meta_videotransform)))) {
            turn->transform = monitor_.transform;
        }
        if (auto* crop = static_cast<spa_meta_region*>(
                spa_buffer_find_meta_data(spa, SPA_META_VideoCrop, sizeof(spa_meta_region)))) {
            crop->region = SPA_REGION(0, 0, static_cast<uint32_t>(sent.width()),
                                      static_cast<uint32_t>(sent.height()));
        }
        if (spa_meta* damage = spa_buffer_find_meta(spa, SPA_META_VideoDamage)) {
            // The block's band as the buffer holds it; a sideways band, all of it.
            auto* regions = static_cast<spa_meta_region*>(damage->data);
            const bool whole = count_ == 1 || sideways();
            const bool upsideDown = monitor_.transform == SPA_META_TRANSFORMATION_180 ||
                                    monitor_.transform == SPA_META_TRANSFORMATION_Flipped180;
            regions[0].region =
                whole ? SPA_REGION(0, 0, static_cast<uint32_t>(sent.width()),
                                   static_cast<uint32_t>(sent.height()))
                      : SPA_REGION(0, upsideDown ? height - blockY - kBlockSide : blockY,
                                   static_cast<uint32_t>(width), static_cast<uint32_t>(kBlockSide));
            regions[1].region = SPA_REGION(0, 0, 0, 0);
        }
        if (auto* cursor = static_cast<spa_meta_cursor*>(
                spa_buffer_find_meta_data(spa, SPA_META_Cursor, sizeof(spa_meta_cursor)))) {
            if (withPointer_) {
                cursor->id = 1;
                cursor->flags = 0;
                cursor->position = SPA_POINT(kPointerAt, kPointerAt);
                cursor->hotspot = SPA_POINT(0, 0);
                cursor->bitmap_offset = sizeof(spa_meta_cursor);
                auto* bitmap = SPA_PTROFF(cursor, cursor->bitmap_offset, spa_meta_bitmap);
                bitmap->format = SPA_VIDEO_FORMAT_BGRA;
                bitmap->size = SPA_RECTANGLE(kPointerSide, kPointerSide);
                bitmap->stride = kPointerSide * 4;
                bitmap->offset = sizeof(spa_meta_bitmap);
                auto* square = SPA_PTROFF(bitmap, bitmap->offset, uint8_t);
                for (int i = 0; i < kPointerSide * kPointerSide; ++i) {
                    square[i * 4] = 255;
                    square[i * 4 + 1] = 0;
                    square[i * 4 + 2] = 255;
                    square[i * 4 + 3] = 255;
                }
            } else {
                cursor->id = 0;
            }
        }
        plane.chunk->offset = 0;
        plane.chunk->stride = stride;
        plane.chunk->size = empty ? 0 : static_cast<uint32_t>(bufferBytes);
        plane.chunk->flags = 0;
        pw_stream_queue_buffer(stream_, buffer);
        pw_stream_trigger_process(stream_);
    }

    pw_thread_loop* loop_;
    const Monitor monitor_;
    const bool withPointer_;
    const QImage pattern_;
    const std::unique_ptr<ScreenFeed> feed_;
    pw_stream* stream_ = nullptr;
    pw_stream_events events_{};
    spa_hook hook_{};
    spa_source* timer_ = nullptr;
    uint32_t node_ = 0;
    int count_ = 0;
};

#pragma GCC diagnostic pop

// The backend's objects: the ScreenCast implementation at the portal's path, and the
// requests and sessions below it.
class Backend final : public QDBusVirtualObject {
public:
    Backend(QDir control, std::vector<Monitor> monitors)
        : control_(std::move(control)), monitors_(std::move(monitors)) {
        pw_init(nullptr, nullptr);
        loop_ = pw_thread_loop_new("backend", nullptr);
        context_ = pw_context_new(pw_thread_loop_get_loop(loop_), nullptr, 0);
        pw_thread_loop_start(loop_);
        pw_thread_loop_lock(loop_);
        core_ = pw_context_connect(context_, nullptr, 0);
        pw_thread_loop_unlock(loop_);
        if (core_ == nullptr) {
            std::fprintf(stderr, "no PipeWire\n");
            std::exit(1);
        }
    }

    QString introspect(const QString&) const override { return {}; }

    bool handleMessage(const QDBusMessage& message, const QDBusConnection& connection) override {
        const QString member = message.member();
        const QList<QVariant> arguments = message.arguments();
        if (message.interface() == QLatin1String("org.freedesktop.DBus.Properties")) {
            const QVariantMap properties{{QStringLiteral("AvailableSourceTypes"), 1u},
                                         {QStringLiteral("AvailableCursorModes"), kCursorModes},
                                         {QStringLiteral("version"), 4u}};
            if (member == QLatin1String("GetAll")) {
                connection.send(message.createReply(QVariant(properties)));
            } else {
                connection.send(message.createReply(QVariant::fromValue(
                    QDBusVariant(properties.value(arguments.value(1).toString())))));
            }
            return true;
        }
        if (member == QLatin1String("Close")) { // a request or a session
            if (sessions_.erase(message.path()) > 0) {
                note("sessions", "closed");
            }
            connection.send(message.createReply());
            return true;
        }
        note("requests", member.toUtf8());
        const QString sessionPath = arguments.value(1).value<QDBusObjectPath>().path();
        QVariantMap results;
        uint32_t response = 0;
        if (member == QLatin1String("CreateSession")) {
            sessions_[sessionPath] = {};
            note("sessions", "opened");
            results.insert(QStringLiteral("session_id"), sessionPath);
        } else if (member == QLatin1String("SelectSources")) {
            Session& session = sessions_[sessionPath];
            const QVariantMap options = qdbus_cast<QVariantMap>(arguments.value(3));
            session.withPointer = options.value(QStringLiteral("cursor_mode")).toUInt() == 4;
            session.persist = options.value(QStringLiteral("persist_mode")).toUInt();
            if (options.contains(QStringLiteral("restore_data"))) {
                const auto data =
                    qdbus_cast<RestoreData>(options.value(QStringLiteral("restore_data")));
                if (data.vendor == kVendor) {
                    session.restored = data.data.variant().toString();
                }
            }
        } else if (member == QLatin1String("Start")) {
            Session& session = sessions_[sessionPath];
            response = start(session, results);
        } else if (member == QLatin1String("AccessDialog")) {
            response = control_.exists(QStringLiteral("decline")) ? 1 : 0;
        } else {
            return false;
        }
        connection.send(message.createReply(QVariantList{response, results}));
        return true;
    }

private:
    struct Session {
        bool withPointer = false;
        uint32_t persist = 0;
        QString restored; // the monitor a restore token named
        std::shared_ptr<PatternSource> source;
    };

    // A line in the control folder's file `name`, for the test to count.
    void note(const char* name, const QByteArray& line) const {
        QFile file(control_.filePath(QString::fromLatin1(name)));
        file.open(QIODevice::Append);
        file.write(line + '\n');
    }

    uint32_t start(Session& session, QVariantMap& results) {
        const Monitor* chosen = nullptr;
        for (const Monitor& monitor : monitors_) {
            if (monitor.name == session.restored) {
                chosen = &monitor;
            }
        }
        if (chosen == nullptr) { // the user is asked
            QFile looking(control_.filePath(QStringLiteral("dialog-ms")));
            if (looking.open(QIODevice::ReadOnly)) {
                QThread::msleep(looking.readAll().trimmed().toULong());
            }
            if (control_.exists(QStringLiteral("decline"))) {
                return 1;
            }
            note("grants", "granted");
            QFile choice(control_.filePath(QStringLiteral("choose")));
            const QString wanted = choice.open(QIODevice::ReadOnly)
                                       ? QString::fromUtf8(choice.readAll()).trimmed()
                                       : monitors_.front().name;
            for (const Monitor& monitor : monitors_) {
                if (monitor.name == wanted) {
                    chosen = &monitor;
                }
            }
            if (chosen == nullptr) {
                return 2;
            }
        }
        session.source =
            std::make_shared<PatternSource>(loop_, core_, *chosen, session.withPointer);
        const Stream stream{
            session.source->node(),
            {{QStringLiteral("position"),
              QVariant::fromValue(Pair{chosen->logical.x(), chosen->logical.y()})},
             {QStringLiteral("size"),
              QVariant::fromValue(Pair{chosen->logical.width(), chosen->logical.height()})},
             {QStringLiteral("source_type"), 1u}}};
        results.insert(QStringLiteral("streams"), QVariant::fromValue(QList<Stream>{stream}));
        if (session.persist != 0) {
            results.insert(QStringLiteral("persist_mode"), session.persist);
            results.insert(
                QStringLiteral("restore_data"),
                QVariant::fromValue(RestoreData{kVendor, 1, QDBusVariant(chosen->name)}));
        }
        return 0;
    }

    QDir control_;
    std::vector<Monitor> monitors_;
    pw_thread_loop* loop_ = nullptr;
    pw_context* context_ = nullptr;
    pw_core* core_ = nullptr;
    std::map<QString, Session> sessions_;
};

} // namespace

namespace {

// "0", "90", "180", "270", "flipped", "flipped-90", "flipped-180", "flipped-270".
uint32_t transformNamed(const QString& name) {
    const bool flipped = name.startsWith(QLatin1String("flipped"));
    const QString angle = flipped ? name.mid(8) : name;
    return (flipped ? SPA_META_TRANSFORMATION_Flipped : SPA_META_TRANSFORMATION_None) +
           static_cast<uint32_t>(angle.toInt() / 90);
}

} // namespace

int main(int argc, char** argv) {
    QCoreApplication application(argc, argv);
    qDBusRegisterMetaType<Stream>();
    qDBusRegisterMetaType<QList<Stream>>();
    qDBusRegisterMetaType<Pair>();
    qDBusRegisterMetaType<RestoreData>();
    QStringList arguments = application.arguments();
    const bool fromScreen = arguments.size() > 1 && arguments[1] == QLatin1String("--from-screen");
    if (fromScreen) {
        arguments.removeAt(1);
    }
    if (arguments.size() < 3) {
        std::fprintf(stderr, "usage: portal_screencast_backend [--from-screen] <control folder> "
                             "<monitor>...\n");
        return 2;
    }
    std::vector<Monitor> monitors;
    for (const QString& monitor : arguments.mid(2)) {
        const QStringList parts = monitor.split(QLatin1Char(':'));
        if (parts.size() != 9) {
            std::fprintf(stderr, "bad monitor %s\n", qPrintable(monitor));
            return 2;
        }
        monitors.push_back(
            {fromScreen, parts[0],
             QRect(parts[1].toInt(), parts[2].toInt(), parts[3].toInt(), parts[4].toInt()),
             QSize(parts[5].toInt(), parts[6].toInt()), parts[7].toInt(),
             transformNamed(parts[8])});
    }
    Backend backend(QDir(arguments[1]), std::move(monitors));
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.registerVirtualObject(QStringLiteral("/org/freedesktop/portal/desktop"), &backend,
                                   QDBusConnection::SubPath) ||
        !bus.registerService(QStringLiteral("org.freedesktop.impl.portal.desktop.tessarel_test"))) {
        std::fprintf(stderr, "cannot own the backend's name\n");
        return 1;
    }
    std::printf("ready\n");
    std::fflush(stdout);
    return QCoreApplication::exec();
}
