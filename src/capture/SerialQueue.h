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

    const QString& label() const { return label_; }

    // Any thread.
    void dispatch(std::function<void()> work);
    // Any thread but the queue's own: runs `work` on the queue and waits for it.
    void sync(const std::function<void()>& work);
    // True on the queue's thread.
    bool isCurrent() const { return std::this_thread::get_id() == thread_.get_id(); }

private:
    void run();

    QString label_;
    std::mutex mutex_;
    std::condition_variable wake_;
    std::deque<std::function<void()>> work_;
    bool stopping_ = false;
    std::thread thread_;
};
