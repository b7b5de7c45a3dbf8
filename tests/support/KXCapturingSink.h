#pragma once

#include <KXClientFramework/KXLog.h>

#include <memory>
#include <mutex>
#include <string>
#include <vector>

/// A log sink that keeps every line, for tests that check what was logged. install() makes it
/// the library's sink until the returned guard is destroyed.
class KXCapturingSink : public KXLogSink {
public:
    void write(std::string_view line) override {
        std::lock_guard lock(mutex_);
        lines_.emplace_back(line);
    }

    std::vector<std::string> lines() const {
        std::lock_guard lock(mutex_);
        return lines_;
    }

    /// Lines that contain `text`.
    std::vector<std::string> linesContaining(std::string_view text) const {
        std::vector<std::string> found;
        std::lock_guard lock(mutex_);
        for (const auto& line : lines_) {
            if (line.find(text) != std::string::npos) {
                found.push_back(line);
            }
        }
        return found;
    }

    void clear() {
        std::lock_guard lock(mutex_);
        lines_.clear();
    }

    struct Guard {
        std::shared_ptr<KXCapturingSink> sink;
        ~Guard() { KXLog::setSink(nullptr); }
        KXCapturingSink* operator->() const { return sink.get(); }
        KXCapturingSink& operator*() const { return *sink; }
    };

    static Guard install() {
        auto sink = std::make_shared<KXCapturingSink>();
        KXLog::setSink(sink);
        return Guard{sink};
    }

private:
    mutable std::mutex mutex_;
    std::vector<std::string> lines_;
};
