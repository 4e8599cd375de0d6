// A progress line for loads that take a while: once a file has been loading
// for a second, one line on standard error says what is being done and how
// far it is, rewritten in place, and ends with the time the load took. Only
// on a terminal and when the host asks for it (zrslice: not with -q); a load
// that fails clears its line, so that the error is the only line left.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

namespace zrio {

// Whether loads show progress lines, each starting with `prefix` (the host's
// name and a colon), and after how many seconds. Off until a host turns it on.
void ShowLoadProgress(bool shown, const std::string& prefix = "", double afterSeconds = 1.0);

class LoadProgress {
public:
    // Starts the clock for loading `file`.
    explicit LoadProgress(std::string file);
    ~LoadProgress();
    LoadProgress(const LoadProgress&) = delete;
    LoadProgress& operator=(const LoadProgress&) = delete;

    // What is being done now ("reading", a text that outlives the load) and
    // how far it is, 0 to 1, or negative when that is not known.
    void Step(const char* stage, double fraction = -1.0);

private:
    void Watch();
    void Print(const std::string& text, bool last);
    double Seconds() const;

    std::string file_;
    std::string prefix_;
    bool shown_ = false;
    double after_ = 1.0;
    std::chrono::steady_clock::time_point start_;
    int exceptionsAtStart_ = 0;  // more at the end: the load is failing
    std::atomic<const char*> stage_{"reading"};
    std::atomic<double> fraction_{-1.0};
    std::mutex mutex_;  // guards done_ and the line
    std::condition_variable wake_;
    bool done_ = false;
    bool printed_ = false;
    std::thread watcher_;
};

}  // namespace zrio
