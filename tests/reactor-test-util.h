#ifndef PLEXA_TESTS_REACTOR_TEST_UTIL_H
#define PLEXA_TESTS_REACTOR_TEST_UTIL_H

#include <plexa/plexa.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

namespace reactortest {

// What reactor threads did, in order, readable from the test thread.
class Journal {
public:
    void Add(std::string const& entry) {
        std::lock_guard<std::mutex> guard(mutex_);
        entries_.push_back(entry);
        cond_.notify_all();
    }
    // Waits up to five seconds until pred holds over the entries.
    bool WaitUntil(std::function<bool(std::vector<std::string> const&)> pred) {
        std::unique_lock<std::mutex> lock(mutex_);
        return cond_.wait_for(lock, std::chrono::seconds(5), [&] { return pred(entries_); });
    }
    bool WaitFor(std::string const& entry) {
        return WaitUntil([&](std::vector<std::string> const& e) {
            return std::find(e.begin(), e.end(), entry) != e.end();
        });
    }
    bool WaitCount(std::size_t n) {
        return WaitUntil([n](std::vector<std::string> const& e) { return e.size() >= n; });
    }
    std::vector<std::string> Get() {
        std::lock_guard<std::mutex> guard(mutex_);
        return entries_;
    }

private:
    std::mutex mutex_;
    std::condition_variable cond_;
    std::vector<std::string> entries_;
};

// Runs fn once on the reactor thread; on_destroy (if any) when released.
class Task : public ZNRReactorTask {
public:
    explicit Task(std::function<void()> fn, std::function<void()> on_destroy = {})
        : fn_(std::move(fn)), on_destroy_(std::move(on_destroy)) {}
    bool Run() override {
        fn_();
        return false;
    }
    void Cancel() override {}
    void Destroy() override {
        if (on_destroy_) on_destroy_();
        delete this;
    }

private:
    std::function<void()> fn_;
    std::function<void()> on_destroy_;
};

class Notify : public ZNRReactorStopNotify {
public:
    explicit Notify(std::function<void()> fn) : fn_(std::move(fn)) {}
    void OnStop(ZNRReactor*) override { fn_(); }
    void Destroy() override { delete this; }

private:
    std::function<void()> fn_;
};

}  // namespace reactortest

#endif
