#include "frame_worker.h"

#include <utility>

namespace zrview {

namespace {
constexpr int kWaiting = 0, kDone = 1, kDropped = 2;
}

FrameWorker::FrameWorker() : thread_([this] { Loop(); }) {}

FrameWorker::~FrameWorker() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stopping_ = true;
        for (auto& [slot, w] : waiting_) *w.outcome = kDropped;
        waiting_.clear();
    }
    changed_.notify_all();
    thread_.join();
}

bool FrameWorker::Run(const std::string& slot, std::function<void()> job) {
    auto outcome = std::make_shared<int>(kWaiting);
    std::unique_lock<std::mutex> lock(mutex_);
    if (stopping_) return false;
    auto found = waiting_.find(slot);
    if (found != waiting_.end()) *found->second.outcome = kDropped;  // superseded
    waiting_[slot] = Waiting{std::move(job), nextOrder_++, outcome};
    changed_.notify_all();
    changed_.wait(lock, [&] { return *outcome != kWaiting; });
    return *outcome == kDone;
}

void FrameWorker::Loop() {
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
        changed_.wait(lock, [&] { return stopping_ || !waiting_.empty(); });
        if (stopping_) return;
        auto first = waiting_.begin();
        for (auto it = waiting_.begin(); it != waiting_.end(); ++it)
            if (it->second.order < first->second.order) first = it;
        Waiting next = std::move(first->second);
        waiting_.erase(first);
        lock.unlock();
        next.job();
        lock.lock();
        *next.outcome = kDone;
        changed_.notify_all();
    }
}

}  // namespace zrview
