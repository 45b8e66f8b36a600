#include "core/types/logger.h"

#include <atomic>
#include <chrono>
#include <locale>
#include <string_view>
#include <thread>

#include "core/types/mutex.h"

namespace velmora {
namespace {

// How long an exchanged logger is waited for.
constexpr std::chrono::seconds kUsePatience(2);

// Owned by hand: a smart pointer with static storage would be destroyed before the last objects that log.
std::atomic<Logger*> installed = nullptr;
std::atomic<LogLevel> levelInForce = LogLevel::off;  // of the installed logger; off if there is none

// Lines under way, counted by the generation they began in, so that an exchange waits for those that may have seen the
// old logger and not for those that write to the new one. Only the latest two generations are told apart.
std::atomic<uint32_t> generation = 0;
std::atomic<uint32_t> uses[2] = {};
Mutex exchangeMutex;  // one exchange at a time; the log line of nobody runs under it

// A line that can't be written is lost; nobody above could do anything about it.
void writeLine(LogLevel level, const LogSite& site, std::ostringstream& message) noexcept {
    try {
        const LoggerUse used;
        if (!used) return;
        used->log(level, site.channel, logFunctionName(site.function).c_str(), logFileName(site.file).c_str(),
                  site.line, message);
    } catch (...) {
    }
}

bool awaitLinesOf(uint32_t ended) {
    const auto deadline = std::chrono::steady_clock::now() + kUsePatience;
    while (uses[ended % 2] != 0) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

void exchangeLogger(Logger* next) {
    Logger* old = nullptr;
    {
        const MutexLock lock(exchangeMutex);
        old = installed.exchange(next);
        if (old == nullptr || old == next) return;
        if (!awaitLinesOf(generation++)) return;  // left alive
    }
    delete old;
}

std::string without(std::string text, std::string_view unwanted) {
    for (size_t at = text.find(unwanted); at != std::string::npos; at = text.find(unwanted)) {
        text.erase(at, unwanted.size());
    }
    return text;
}

}  // namespace

Logger* logger() noexcept { return installed; }

bool logs(LogLevel level) noexcept { return levelInForce.load(std::memory_order_relaxed) >= level; }

LoggerUse::LoggerUse() noexcept {
    while (true) {
        generation_ = generation;
        ++uses[generation_ % 2];
        if (generation == generation_) break;
        --uses[generation_ % 2];  // an exchange came between and does not wait for this line
    }
    logger_ = installed;
}

LoggerUse::~LoggerUse() { --uses[generation_ % 2]; }

void setLogLevel(LogLevel level) {
    const LoggerUse used;
    if (!used) return;
    used->setLogLevel(level);
    levelInForce = level;
}

void setLogger(std::unique_ptr<Logger> next) {
    if (next) {
        const LogLevel level = next->getLogLevel();
        exchangeLogger(next.release());
        levelInForce = level;
        VELMORA_LOG_AT(info, "log", "velmora::setLogger") << "start logger";
        return;
    }
    VELMORA_LOG_AT(info, "log", "velmora::setLogger") << "stop logger";
    if (const LoggerUse used; used) used->stop();
    levelInForce = LogLevel::off;
    exchangeLogger(nullptr);
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

void writeScopeLine(LogLevel level, const LogSite& site, const char* prefix, const std::string& text) noexcept {
    try {
        std::ostringstream line;
        line << prefix << text;
        writeLine(level, site, line);
    } catch (...) {
        // As in writeLine.
    }
}

}  // namespace velmora
