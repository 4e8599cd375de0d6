#include "load_progress.h"

#include <cstdio>
#include <exception>

namespace zrio {

namespace {

// Set by the host before it loads anything.
struct Settings {
    bool shown = false;
    std::string prefix;
    double afterSeconds = 1.0;
};

Settings& Current() {
    static Settings settings;
    return settings;
}

// How often a shown line is rewritten.
constexpr std::chrono::milliseconds kRefresh{250};

}  // namespace

void ShowLoadProgress(bool shown, const std::string& prefix, double afterSeconds) {
    Current() = Settings{shown, prefix, afterSeconds};
}

LoadProgress::LoadProgress(std::string file)
    : file_(std::move(file)),
      prefix_(Current().prefix),
      shown_(Current().shown),
      after_(Current().afterSeconds),
      start_(std::chrono::steady_clock::now()),
      exceptionsAtStart_(std::uncaught_exceptions()) {
    if (!shown_) return;
    // Due at once: the first line is out before any work starts.
    if (after_ <= 0.0) Print(std::string(stage_.load()), false);
    watcher_ = std::thread([this] { Watch(); });
}

LoadProgress::~LoadProgress() {
    if (!shown_) return;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        done_ = true;
    }
    wake_.notify_all();
    watcher_.join();
    if (std::uncaught_exceptions() > exceptionsAtStart_) {
        // The load failed: the error says why, on a line of its own.
        if (printed_) std::fputs("\r\033[K", stderr);
        return;
    }
    const double seconds = Seconds();
    if (printed_ || seconds >= after_) {
        char text[64];
        std::snprintf(text, sizeof(text), "loaded in %.1f s", seconds);
        Print(text, true);
    }
}

void LoadProgress::Step(const char* stage, double fraction) {
    stage_ = stage;
    fraction_ = fraction;
}

double LoadProgress::Seconds() const {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
}

void LoadProgress::Watch() {
    std::unique_lock<std::mutex> lock(mutex_);
    const auto due = start_ + std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                                  std::chrono::duration<double>(after_));
    if (wake_.wait_until(lock, due, [this] { return done_; })) return;
    do {
        char text[160];
        const double fraction = fraction_;
        if (fraction >= 0.0)
            std::snprintf(text, sizeof(text), "%s %.0f %% (%.0f s)", stage_.load(), fraction * 100.0,
                          Seconds());
        else
            std::snprintf(text, sizeof(text), "%s (%.0f s)", stage_.load(), Seconds());
        Print(text, false);
    } while (!wake_.wait_for(lock, kRefresh, [this] { return done_; }));
}

void LoadProgress::Print(const std::string& text, bool last) {
    std::fprintf(stderr, "\r%s%s: %s\033[K%s", prefix_.c_str(), file_.c_str(), text.c_str(),
                 last ? "\n" : "");
    std::fflush(stderr);
    printed_ = true;
}

}  // namespace zrio
