#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <utility>
#include <vector>

// A list of observers; removing one is done by dropping its Subscription.
// GUI thread only: observers are called synchronously, in the order they subscribed.
template <typename... Args> class Signal {
public:
    class Subscription {
    public:
        Subscription() = default;
        Subscription(std::weak_ptr<void> owner, std::function<void()> cancel)
            : owner_(std::move(owner)), cancel_(std::move(cancel)) {}
        Subscription(Subscription&& other) noexcept { *this = std::move(other); }
        Subscription& operator=(Subscription&& other) noexcept {
            reset();
            owner_ = std::move(other.owner_);
            cancel_ = std::exchange(other.cancel_, nullptr);
            return *this;
        }
        Subscription(const Subscription&) = delete;
        Subscription& operator=(const Subscription&) = delete;
        ~Subscription() { reset(); }
        void reset() {
            if (cancel_ && !owner_.expired()) {
                cancel_();
            }
            cancel_ = nullptr;
        }

    private:
        std::weak_ptr<void> owner_;
        std::function<void()> cancel_;
    };

    [[nodiscard]] Subscription subscribe(std::function<void(const Args&...)> observer) {
        const std::size_t id = state_->nextId++;
        state_->observers.emplace_back(id, std::move(observer));
        std::weak_ptr<State> weak = state_;
        return Subscription(state_, [weak, id] {
            if (auto state = weak.lock()) {
                std::erase_if(state->observers,
                              [id](const auto& entry) { return entry.first == id; });
            }
        });
    }

    void notify(const Args&... args) const {
        // Copy, so that an observer may unsubscribe while being called.
        const auto observers = state_->observers;
        for (const auto& entry : observers) {
            entry.second(args...);
        }
    }

private:
    struct State {
        std::size_t nextId = 0;
        std::vector<std::pair<std::size_t, std::function<void(const Args&...)>>> observers;
    };
    std::shared_ptr<State> state_ = std::make_shared<State>();
};

// An observable property: every set, also of the current value, is announced to the
// owner's objectWillChange and to the property's own observers before the value is stored.
template <typename T> class Published {
public:
    Published(T initial, const Signal<>& objectWillChange)
        : value_(std::move(initial)), objectWillChange_(objectWillChange) {}

    const T& operator()() const { return value_; }
    const T& value() const { return value_; }

    void set(T newValue) {
        objectWillChange_.notify();
        willSet_.notify(newValue);
        value_ = std::move(newValue);
    }

    // Delivers the current value at once, then each new value as it is being set.
    [[nodiscard]] typename Signal<T>::Subscription
    subscribe(std::function<void(const T&)> observer) {
        observer(value_);
        return willSet_.subscribe(std::move(observer));
    }

private:
    T value_;
    const Signal<>& objectWillChange_;
    Signal<T> willSet_;
};
