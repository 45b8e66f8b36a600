#include "tests/support/capturedlog.h"

#include <algorithm>
#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <utility>

#include "core/types/logger.h"
#include "core/types/mutex.h"

namespace velmora::test {

struct CapturedLog::Store {
    mutable Mutex mutex;
    std::vector<LogLine> lines VELMORA_GUARDED_BY(mutex);
};

class CapturedLog::Sink : public Logger {
public:
    Sink(LogLevel level, std::shared_ptr<Store> store) : level_(level), store_(std::move(store)) {}

    LogLevel getLogLevel() override { return level_; }
    void setLogLevel(LogLevel level) override { level_ = level; }

    void logf(LogLevel level, const char* channel, const char* function, const char*, int, const char* format,
              ...) override {
        va_list arguments;
        va_start(arguments, format);
        std::string text(4096, '\0');
        const int length = std::vsnprintf(text.data(), text.size(), format, arguments);
        va_end(arguments);
        text.resize(static_cast<size_t>(std::clamp(length, 0, 4095)));
        keep(level, channel, function, std::move(text));
    }

    void log(LogLevel level, const char* channel, const char* function, const char*, int,
             std::ostringstream& message) override {
        keep(level, channel, function, message.str());
    }

private:
    void keep(LogLevel level, const char* channel, const char* function, std::string message) {
        const MutexLock lock(store_->mutex);
        store_->lines.push_back({level, channel, function, std::move(message)});
    }

    std::atomic<LogLevel> level_;
    const std::shared_ptr<Store> store_;
};

CapturedLog::CapturedLog(LogLevel level) : store_(std::make_shared<Store>()) {
    setLogger(std::make_unique<Sink>(level, store_));
    clear();
}

CapturedLog::~CapturedLog() { setLogger(nullptr); }

std::vector<LogLine> CapturedLog::lines() const {
    const MutexLock lock(store_->mutex);
    return store_->lines;
}

std::vector<std::string> CapturedLog::messages() const {
    std::vector<std::string> texts;
    for (const LogLine& line : lines()) texts.push_back(line.message);
    return texts;
}

std::vector<std::string> CapturedLog::messages(const std::string& channel) const {
    std::vector<std::string> texts;
    for (const LogLine& line : lines()) {
        if (line.channel == channel) texts.push_back(line.message);
    }
    return texts;
}

bool CapturedLog::contains(const std::string& text) const { return count(text) > 0; }

bool CapturedLog::has(LogLevel level, const std::string& channel, const std::string& message) const {
    const auto all = lines();
    return std::any_of(all.begin(), all.end(), [&](const LogLine& line) {
        return line.level == level && line.channel == channel && line.message == message;
    });
}

size_t CapturedLog::count(const std::string& text) const {
    const auto all = messages();
    return static_cast<size_t>(std::count_if(
        all.begin(), all.end(), [&](const std::string& message) { return message.find(text) != std::string::npos; }));
}

void CapturedLog::clear() {
    const MutexLock lock(store_->mutex);
    store_->lines.clear();
}

}  // namespace velmora::test
