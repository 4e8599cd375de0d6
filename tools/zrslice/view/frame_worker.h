// One render thread for the viewer's frames. The module is not thread-safe on
// one scene, so frames are drawn one at a time; each view (a "slot") holds at
// most one waiting frame, and a newer frame for the same slot replaces the one
// still waiting, which is then never drawn. The thread that asked waits only
// for its own frame and holds no render slot while it sends the result.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

namespace zrview {

class FrameWorker {
public:
    FrameWorker();
    ~FrameWorker();  // draws nothing more; waiting callers get false
    FrameWorker(const FrameWorker&) = delete;
    FrameWorker& operator=(const FrameWorker&) = delete;

    // Runs `job` on the render thread and waits for it. Returns false, without
    // running it, when a newer job for the same slot came first or the worker
    // stopped. Jobs of different slots run in the order they were submitted.
    // `job` reports its own failures: it must not throw.
    bool Run(const std::string& slot, std::function<void()> job);

private:
    struct Waiting {
        std::function<void()> job;
        uint64_t order = 0;
        std::shared_ptr<int> outcome;  // 0 waiting, 1 done, 2 dropped
    };
    void Loop();

    std::mutex mutex_;
    std::condition_variable changed_;
    std::map<std::string, Waiting> waiting_;
    uint64_t nextOrder_ = 0;
    bool stopping_ = false;
    std::thread thread_;
};

}  // namespace zrview
