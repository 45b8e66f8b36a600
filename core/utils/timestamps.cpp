#include "core/utils/timestamps.h"

#include <atomic>
#include <chrono>
#include <cstdlib>

#include "core/platform/process.h"

namespace velmora {
namespace {

using Ticks = std::chrono::duration<int64_t, std::ratio<1, 10'000'000>>;

constexpr int64_t kSlotSeconds = 60;
constexpr int64_t kSlotShift = 20;
constexpr int64_t kOffsetBias = int64_t{1} << (kSlotShift - 1);

Ticks now() noexcept { return std::chrono::floor<Ticks>(std::chrono::system_clock::now().time_since_epoch()); }

void appendDigits(std::string& out, int64_t value, int width) {
    const size_t start = out.size();
    out.resize(start + static_cast<size_t>(width));
    for (int i = width - 1; i >= 0; --i, value /= 10) {
        out[start + static_cast<size_t>(i)] = static_cast<char>('0' + value % 10);
    }
}

// "2023-03-14T10:15:30"; empty for a year that does not have four digits.
std::string formatSeconds(std::chrono::seconds time) {
    const auto days = std::chrono::floor<std::chrono::days>(time);
    const std::chrono::year_month_day date{std::chrono::sys_days(days)};
    const std::chrono::hh_mm_ss<std::chrono::seconds> clock(time - days);
    std::string text;
    // The calendar wraps around beyond its range; a century is far from there on either side.
    if (std::abs(days.count()) > 3'000'000 || int{date.year()} < 0 || int{date.year()} > 9999) return text;
    text.reserve(32);
    appendDigits(text, int{date.year()}, 4);
    text += '-';
    appendDigits(text, unsigned{date.month()}, 2);
    text += '-';
    appendDigits(text, unsigned{date.day()}, 2);
    text += 'T';
    appendDigits(text, clock.hours().count(), 2);
    text += ':';
    appendDigits(text, clock.minutes().count(), 2);
    text += ':';
    appendDigits(text, clock.seconds().count(), 2);
    return text;
}

// Asking the system for the zone costs as much as the rest of an event's time stamp, and zones change on full minutes:
// the answer is kept for the minute. One word, so that threads need no lock; each may write what any other would.
bool cachedLocalOffset(std::chrono::seconds time, std::chrono::seconds& offset) {
    static std::atomic<int64_t> cache{INT64_MIN};
    const int64_t slot = time.count() / kSlotSeconds;
    const int64_t kept = cache.load(std::memory_order_relaxed);
    if (kept >> kSlotShift == slot) {
        offset = std::chrono::seconds((kept & ((int64_t{1} << kSlotShift) - 1)) - kOffsetBias);
        return true;
    }
    if (!platform::localOffset(time.count(), offset)) return false;
    cache.store((slot << kSlotShift) | (offset.count() + kOffsetBias), std::memory_order_relaxed);
    return true;
}

void appendOffset(std::string& out, std::chrono::seconds offset) {
    const int64_t minutes = std::abs(offset.count()) / 60;
    out += offset.count() < 0 ? '-' : '+';
    appendDigits(out, minutes / 60, 2);
    appendDigits(out, minutes % 60, 2);
}

}  // namespace

std::string currentTimeUtcMicros() {
    const Ticks time = now();
    const auto seconds = std::chrono::floor<std::chrono::seconds>(time);
    std::string text = formatSeconds(seconds);
    if (text.empty()) return text;
    text += '.';
    appendDigits(text, std::chrono::floor<std::chrono::microseconds>(time - seconds).count(), 6);
    text += 'Z';
    return text;
}

std::string currentTimeLocalMillis() {
    const Ticks time = now();
    const auto seconds = std::chrono::floor<std::chrono::seconds>(time);
    std::chrono::seconds offset{};
    if (!cachedLocalOffset(seconds, offset)) return {};
    std::string text = formatSeconds(seconds + offset);
    if (text.empty()) return text;
    text += '.';
    appendDigits(text, std::chrono::floor<std::chrono::milliseconds>(time - seconds).count(), 3);
    appendOffset(text, offset);
    return text;
}

std::string formatTimeUtc(int64_t ticks) {
    std::string text = formatSeconds(std::chrono::floor<std::chrono::seconds>(Ticks(ticks)));
    if (!text.empty()) text += 'Z';
    return text;
}

int64_t currentTicks() noexcept { return now().count(); }

int64_t currentSeconds(uint32_t* microseconds) noexcept {
    const Ticks time = now();
    const auto seconds = std::chrono::floor<std::chrono::seconds>(time);
    if (microseconds != nullptr) {
        *microseconds = static_cast<uint32_t>(std::chrono::floor<std::chrono::microseconds>(time - seconds).count());
    }
    return seconds.count();
}

}  // namespace velmora
