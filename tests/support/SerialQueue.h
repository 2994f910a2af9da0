#pragma once

#include <QString>

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>

// A serial work queue on one dedicated thread named after the queue. Work items run in
// the order they were dispatched, one at a time. The destructor runs what is queued, then
// joins the thread.
class SerialQueue {
public:
    explicit SerialQueue(const QString& label);
    ~SerialQueue();
    SerialQueue(const SerialQueue&) = delete;
    SerialQueue& operator=(const SerialQueue&) = delete;

    // Any thread.
    void dispatch(std::function<void()> work);
    // Any thread but the queue's own: runs `work` on the queue and waits for it.
    void sync(const std::function<void()>& work);
    // The thread the work runs on.
    std::thread::id threadID() const { return thread_.get_id(); }

private:
    void run();

    std::mutex mutex_;
    std::condition_variable wake_;
    std::deque<std::function<void()>> work_;
    bool stopping_ = false;
    std::thread thread_;
};
