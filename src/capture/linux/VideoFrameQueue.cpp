#include "capture/linux/VideoFrameQueue.h"

#include <algorithm>

VideoFrameQueue::VideoFrameQueue(int depth, int width, int height)
    : depth_(static_cast<size_t>(std::max(depth, 1))) {
    // One frame may be filling and one encoding besides those waiting.
    for (size_t i = 0; i < depth_ + 2; ++i) {
        auto frame = std::make_unique<VideoFrame>();
        frame->width = width;
        frame->height = height;
        frame->y.resize(static_cast<size_t>(width) * static_cast<size_t>(height));
        const size_t chroma =
            static_cast<size_t>(frame->chromaWidth()) * static_cast<size_t>(frame->chromaHeight());
        frame->u.resize(chroma);
        frame->v.resize(chroma);
        frame->changed.resize(static_cast<size_t>(frame->chromaHeight()));
        free_.push_back(frame.get());
        storage_.push_back(std::move(frame));
    }
}

VideoFrame& VideoFrameQueue::acquire() {
    std::lock_guard guard(mutex_);
    if (waiting_.size() >= depth_ || free_.empty()) {
        VideoFrame* newest = waiting_.back();
        waiting_.pop_back();
        ++dropped_;
        return *newest;
    }
    VideoFrame* frame = free_.back();
    free_.pop_back();
    std::fill(frame->changed.begin(), frame->changed.end(), PixelSpan{});
    return *frame;
}

void VideoFrameQueue::publish(VideoFrame& frame) {
    {
        std::lock_guard guard(mutex_);
        waiting_.push_back(&frame);
    }
    ready_.notify_one();
}

void VideoFrameQueue::close(int64_t endTimeNs) {
    {
        std::lock_guard guard(mutex_);
        endTimeNs_ = endTimeNs;
    }
    ready_.notify_one();
}

VideoFrame* VideoFrameQueue::next() {
    std::unique_lock guard(mutex_);
    ready_.wait(guard, [this] { return !waiting_.empty() || endTimeNs_; });
    if (waiting_.empty()) {
        return nullptr;
    }
    VideoFrame* frame = waiting_.front();
    waiting_.pop_front();
    return frame;
}

void VideoFrameQueue::recycle(VideoFrame& frame) {
    std::lock_guard guard(mutex_);
    free_.push_back(&frame);
}

int64_t VideoFrameQueue::endTimeNs() const {
    std::lock_guard guard(mutex_);
    return endTimeNs_.value_or(0);
}

size_t VideoFrameQueue::waiting() const {
    std::lock_guard guard(mutex_);
    return waiting_.size();
}

long long VideoFrameQueue::droppedFrames() const {
    std::lock_guard guard(mutex_);
    return dropped_;
}
