#include "core/types/logger.h"

#include <atomic>
#include <locale>
#include <string_view>
#include <utility>

namespace velmora {
namespace {

// Owned by hand: a smart pointer with static storage would be destroyed before the last objects that log. Atomic, since
// a logger's own engine may look while the logger is being installed; nobody else may log while it is exchanged.
std::atomic<Logger*> installed = nullptr;

// A line that can't be written is lost; nobody above could do anything about it.
void writeLine(LogLevel level, const LogSite& site, std::ostringstream& message) noexcept {
    try {
        Logger* const present = installed;
        if (present == nullptr) return;
        present->log(level, site.channel, logFunctionName(site.function).c_str(), logFileName(site.file).c_str(),
                     site.line, message);
    } catch (...) {
    }
}

std::string without(std::string text, std::string_view unwanted) {
    for (size_t at = text.find(unwanted); at != std::string::npos; at = text.find(unwanted)) {
        text.erase(at, unwanted.size());
    }
    return text;
}

}  // namespace

Logger* logger() noexcept { return installed; }

bool logs(LogLevel level) noexcept {
    Logger* const present = installed;
    return present != nullptr && present->getLogLevel() >= level;
}

void setLogger(std::unique_ptr<Logger> next) {
    if (next) {
        Logger* const fresh = next.release();
        Logger* const old = installed.exchange(fresh);
        if (old != fresh) delete old;
        VELMORA_LOG_AT(info, "log", "velmora::setLogger") << "start logger";
        return;
    }
    if (logger() == nullptr) return;
    VELMORA_LOG_AT(info, "log", "velmora::setLogger") << "stop logger";
    logger()->stop();
    delete installed.exchange(nullptr);
}

void setDefaultLogger(std::unique_ptr<Logger> next) {
    if (logger() == nullptr) setLogger(std::move(next));
}

std::string logFileName(const char* path) {
    std::string_view name(path);
    if (const size_t slash = name.rfind('/'); slash != std::string_view::npos) {
        name.remove_prefix(slash + 1);
    } else if (const size_t backslash = name.rfind('\\'); backslash != std::string_view::npos) {
        name.remove_prefix(backslash + 1);
    }
    return std::string(name.substr(0, name.rfind('.')));
}

std::string logFunctionName(const char* prettyFunction) {
    const std::string text = without(without(prettyFunction, "{anonymous}::"), "(anonymous namespace)::");
    std::string head = text.substr(0, text.find('('));
    int depth = 0;  // a blank inside template arguments does not separate the return type
    for (size_t i = head.size(); i > 0; --i) {
        const char c = head[i - 1];
        if (c == '>') ++depth;
        if (c == '<') --depth;
        if (depth == 0 && (c == ' ' || c == '*' || c == '&')) return head.substr(i);
    }
    return head;
}

LogStatement::LogStatement(LogLevel level, const char* channel, const char* function, const char* file, int line)
    : level_(level), site_{channel, function, file, line} {
    message_.imbue(std::locale::classic());
}

LogStatement::~LogStatement() { writeLine(level_, site_, message_); }

LogScope::LogScope(LogLevel level, const char* channel, const char* function, const char* file, int line)
    : level_(level), site_{channel, function, file, line} {
    if (logs(level)) message_.emplace().imbue(std::locale::classic());
}

LogScope::LogScope(LogScope&& other) noexcept
    : message_(std::move(other.message_)),
      level_(other.level_),
      site_(other.site_),
      armed_(std::exchange(other.armed_, false)) {}

LogScope::~LogScope() {
    if (armed_) write("End ");
}

void LogScope::begin() noexcept { write("Begin "); }

void LogScope::write(const char* prefix) noexcept {
    if (!message_ || !logs(level_)) return;
    try {
        std::ostringstream line;
        line << prefix << message_->str();
        writeLine(level_, site_, line);
    } catch (...) {
        // As in writeLine.
    }
}

}  // namespace velmora
