#pragma once

#include "capture/linux/PixelSpan.h"

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

struct pw_thread_loop;
struct pw_context;
struct pw_core;
struct pw_stream;
struct pw_registry;
struct spa_buffer;
struct spa_pod;

// The pictures of one screen's PipeWire video node, read on PipeWire's own thread from
// shared-memory buffers. Each picture is kept as B, G, R, X rows at the stream's full pixel
// size, cropped and turned as the buffer's metadata says, with the pointer drawn in when the
// stream only describes it. Of the buffers waiting at a time only the newest is read; empty
// and corrupted ones are passed over.
class PipeWireScreenStream {
public:
    struct Picture {
        std::vector<uint8_t> pixels;
        int width = 0;
        int height = 0;
        int bytesPerRow = 0;
        PixelSpan changedRows; // since the picture taken before
    };

    // Takes `remoteFd`, a PipeWire connection the portal opened, and connects to `nodeId`.
    // `ended` is called on PipeWire's thread when the stream stops on its own. Throws
    // PlatformError.
    PipeWireScreenStream(int remoteFd, uint32_t nodeId, bool drawsPointer,
                         std::function<void(std::exception_ptr)> ended);
    ~PipeWireScreenStream();
    PipeWireScreenStream(const PipeWireScreenStream&) = delete;
    PipeWireScreenStream& operator=(const PipeWireScreenStream&) = delete;

    // One consumer thread: swaps the newest picture into `picture` when one came since the
    // last take, else returns false and leaves `picture` as it is.
    bool takeNewest(Picture& picture);
    // Blocks until a first picture came; throws PlatformError when the stream ended first
    // or none came within `timeout`.
    void awaitFirstPicture(std::chrono::milliseconds timeout);

private:
    struct Pointer;

    static void onStateChanged(void* data, int old, int state, const char* error);
    static void onParamChanged(void* data, uint32_t id, const spa_pod* param);
    static void onProcess(void* data);
    static void onGlobalRemoved(void* data, uint32_t id);
    void end(const char* why);
    void release();
    bool readPicture(const spa_buffer& buffer, bool onlyOneWaiting);
    bool readPointer(const spa_buffer& buffer);
    void publish(PixelSpan changed);

    std::function<void(std::exception_ptr)> ended_;
    const uint32_t nodeId_;
    const bool drawsPointer_;
    pw_thread_loop* loop_ = nullptr;
    pw_context* context_ = nullptr;
    pw_core* core_ = nullptr;
    pw_stream* stream_ = nullptr;
    pw_registry* registry_ = nullptr;
    struct Listener;
    std::unique_ptr<Listener> listener_;

    // PipeWire's thread only.
    uint32_t format_ = 0;
    int formatWidth_ = 0;
    int formatHeight_ = 0;
    Picture clean_; // the last picture read, without the pointer
    Picture back_;  // the picture being composed
    std::unique_ptr<Pointer> pointer_;
    PixelSpan pointerRows_; // drawn over in the last picture published

    std::mutex mutex_;
    std::condition_variable arrived_;
    Picture ready_; // the newest picture, not yet taken
    bool fresh_ = false;
    std::exception_ptr endError_; // set once the stream has ended
    bool hasEnded_ = false;
};
