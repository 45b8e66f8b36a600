// Keeps every line that the library logs, for as long as it lives. Declare it before the objects whose lines are
// wanted, so that it is removed after them; only one at a time.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "core/types/types.h"

namespace velmora::test {

struct LogLine {
    LogLevel level;
    std::string channel;
    std::string function;
    std::string message;
};

class CapturedLog {
public:
    explicit CapturedLog(LogLevel level = LogLevel::trace);
    ~CapturedLog();
    CapturedLog(const CapturedLog&) = delete;
    CapturedLog& operator=(const CapturedLog&) = delete;

    // All of these may be called while other threads log.
    std::vector<LogLine> lines() const;
    std::vector<std::string> messages() const;
    std::vector<std::string> messages(const std::string& channel) const;

    // Whether a message holds that text, or is it, at that level and channel.
    bool contains(const std::string& text) const;
    bool has(LogLevel level, const std::string& channel, const std::string& message) const;
    size_t count(const std::string& text) const;  // messages that hold it

    void clear();

private:
    class Sink;
    struct Store;
    std::shared_ptr<Store> store_;
};

}  // namespace velmora::test
