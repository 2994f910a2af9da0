#include "support/SerialQueue.h"

#include <pthread.h>

#include <future>

SerialQueue::SerialQueue(const QString& label) : thread_([this] { run(); }) {
    // Thread names are limited to 15 bytes on Linux.
    pthread_setname_np(thread_.native_handle(), label.right(15).toUtf8().constData());
}

SerialQueue::~SerialQueue() {
    {
        std::lock_guard guard(mutex_);
        stopping_ = true;
    }
    wake_.notify_one();
    thread_.join();
}

void SerialQueue::dispatch(std::function<void()> work) {
    {
        std::lock_guard guard(mutex_);
        work_.push_back(std::move(work));
    }
    wake_.notify_one();
}

void SerialQueue::sync(const std::function<void()>& work) {
    std::promise<void> done;
    dispatch([&] {
        work();
        done.set_value();
    });
    done.get_future().wait();
}

void SerialQueue::run() {
    for (;;) {
        std::function<void()> next;
        {
            std::unique_lock guard(mutex_);
            wake_.wait(guard, [this] { return stopping_ || !work_.empty(); });
            if (work_.empty()) {
                return;
            }
            next = std::move(work_.front());
            work_.pop_front();
        }
        next();
    }
}
