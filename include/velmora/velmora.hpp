// velmora for C++17 hosts: ownership, function objects and exceptions over the C interface. Header only; everything
// here is inline, so the library's ABI is the C interface alone.
//
// Failures: a function with a last argument `std::error_code* error` throws std::system_error when that is null, which
// is the default, and otherwise stores the code, 0 for success, and does not throw for it. Codes compare with
// velmora::host::make_error_code(VELMORA_ERROR_OPT_OUT) and the like. What a function does, from which thread, and
// which codes it has stands at its C counterpart.
//
//     velmora::host::HttpStack stack;
//     velmora::host::setIngestConfig(guid, {"my-project", "my-key"});
//     velmora::host::online();
//     velmora::host::Ingest ingest(guid);
//     ingest.submit(R"({"event.workflow":"Export","event.type":"success"})");
//     ingest.flush();
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "velmora/httpstack.h"
#include "velmora/velmora.h"

namespace velmora::host {

class ResultCategory final : public std::error_category {
public:
    const char* name() const noexcept override { return "velmora"; }
    std::string message(int result) const override {
        static constexpr std::array<const char*, 23> kMessages{
            "success",
            "unknown failure",
            "no JSON object",
            "an event attribute violates a rule",
            "invalid argument",
            "the identity service refused the access token",
            "disk full",
            "an HTTP callback is missing",
            "no HTTP session",
            "the HTTP request failed",
            "the mapping can't be read",
            "the mapping is empty",
            "the mapping has a bad format",
            "no rule matched",
            "the instance is not alive",
            "the event is too big",
            "no folder could be locked",
            "time-out",
            "sending is off or a retry waits",
            "the identity service failed",
            "the tracking service refused the request",
            "the tracking service failed",
            "the user has opted out",
        };
        const auto index = static_cast<std::size_t>(result);
        return index < kMessages.size() ? kMessages[index] : "result " + std::to_string(result);
    }
};

inline const std::error_category& resultCategory() noexcept {
    static const ResultCategory kCategory;
    return kCategory;
}

inline std::error_code make_error_code(velmora_result result) noexcept {
    return {static_cast<int>(result), resultCategory()};
}

namespace detail {

inline std::error_code codeOf(std::int32_t result) noexcept { return {static_cast<int>(result), resultCategory()}; }

inline void check(std::int32_t result, std::error_code* error, const char* what) {
    if (error != nullptr)
        *error = codeOf(result);
    else if (result != VELMORA_OK)
        throw std::system_error(codeOf(result), what);
}

struct Release {
    void operator()(char* text) const noexcept { velmora_release(text); }
};
using OwnedText = std::unique_ptr<char, Release>;

inline std::string takeText(char* text) {
    const OwnedText owned(text);
    return owned ? std::string(owned.get()) : std::string();
}

// Error callbacks carry no user data. Each handler takes a slot, and each slot has a C function of its own.
class ErrorSlots {
public:
    using Handler = std::function<void(std::error_code)>;
    static constexpr std::size_t kCount = 16;
    static constexpr std::size_t kNone = kCount;

    // Takes a free slot; kNone if all are taken.
    static std::size_t take(Handler handler) {
        ErrorSlots& self = instance();
        const std::lock_guard<std::mutex> lock(self.mutex_);
        for (std::size_t slot = 0; slot < kCount; ++slot) {
            if (self.handlers_[slot] != nullptr) continue;
            self.handlers_[slot] = std::make_shared<Handler>(std::move(handler));
            return slot;
        }
        return kNone;
    }

    static void free(std::size_t slot) noexcept {
        if (slot == kNone) return;
        ErrorSlots& self = instance();
        const std::lock_guard<std::mutex> lock(self.mutex_);
        self.handlers_[slot] = nullptr;
    }

    static velmora_ingest_error_callback callback(std::size_t slot) {
        static const auto kCallbacks = makeCallbacks(std::make_index_sequence<kCount>());
        return slot == kNone ? nullptr : kCallbacks[slot];
    }

private:
    static ErrorSlots& instance() {
        static ErrorSlots* const kInstance = new ErrorSlots;  // outlives every pool thread
        return *kInstance;
    }

    template <std::size_t Slot>
    static void onError(std::int32_t error) {
        std::shared_ptr<Handler> handler;
        {
            ErrorSlots& self = instance();
            const std::lock_guard<std::mutex> lock(self.mutex_);
            handler = self.handlers_[Slot];
        }
        if (handler != nullptr) (*handler)(codeOf(error));
    }

    template <std::size_t... Slots>
    static constexpr std::array<velmora_ingest_error_callback, kCount> makeCallbacks(std::index_sequence<Slots...>) {
        return {&onError<Slots>...};
    }

    std::mutex mutex_;
    std::array<std::shared_ptr<Handler>, kCount> handlers_;
};

using Completion = std::function<void(std::error_code)>;

inline void onCompletion(velmora_ingest_instance, std::int32_t result, void* userData) {
    const std::unique_ptr<Completion> completion(static_cast<Completion*>(userData));
    (*completion)(codeOf(result));
}

// Runs an asynchronous call with a function object that lives until its callback has run, or here if none will come.
template <typename Call>
std::int32_t withCompletion(Completion completion, Call call) {
    auto owned = std::make_unique<Completion>(std::move(completion));
    const std::int32_t result = call(&onCompletion, static_cast<void*>(owned.get()));
    if (result == VELMORA_OK) (void)owned.release();
    return result;
}

}  // namespace detail

// The ready HTTP stack, installed as long as the object lives. Make it before the first instance and let it end after
// the last. Uses velmora_httpstack, which is then to be linked.
class HttpStack {
public:
    struct Options {
        std::uint32_t connectTimeoutMs = 10000;
        std::uint32_t totalTimeoutMs = 60000;
        std::uint32_t maxRedirects = 5;
        const char* proxy = nullptr;  // null: the system's, "": none
        std::string caBundle;
        std::string userAgent;
        std::vector<std::pair<std::string, std::string>> routes;  // from, to
    };

    explicit HttpStack(std::error_code* error = nullptr) : HttpStack(Options(), error) {}
    explicit HttpStack(const Options& options, std::error_code* error = nullptr) {
        std::vector<velmora_httpstack_route> routes;
        for (const auto& route : options.routes) routes.push_back({route.first.c_str(), route.second.c_str()});
        velmora_httpstack_options c;
        velmora_httpstack_defaults(&c);
        c.connectTimeoutMs = options.connectTimeoutMs;
        c.totalTimeoutMs = options.totalTimeoutMs;
        c.maxRedirects = options.maxRedirects;
        c.proxy = options.proxy;
        c.caBundle = options.caBundle.empty() ? nullptr : options.caBundle.c_str();
        c.userAgent = options.userAgent.empty() ? nullptr : options.userAgent.c_str();
        c.routes = routes.data();
        c.routeCount = static_cast<std::uint32_t>(routes.size());
        const std::int32_t result = velmora_httpstack_install(&c);
        installed_ = result == VELMORA_OK;
        detail::check(result, error, "velmora HTTP stack");
    }
    ~HttpStack() {
        if (installed_) velmora_httpstack_uninstall();
    }
    HttpStack(const HttpStack&) = delete;
    HttpStack& operator=(const HttpStack&) = delete;

private:
    bool installed_ = false;
};

// What every configuration needs.
struct IngestConfig {
    std::string project;
    std::string apiKey;
    velmora_environment environment = VELMORA_ENVIRONMENT_PROD;
    velmora_source_type sourceType = VELMORA_SOURCE_HOST;
    velmora_source_category sourceCategory = VELMORA_CATEGORY_DESKTOP;
    velmora_consent consent = VELMORA_CONSENT_DEFAULT;
};

// How an event is submitted.
struct Submission {
    bool batch = true;  // false: at once
    bool auth = false;  // true: an event of the signed-in user
    velmora_validate validate = VELMORA_VALIDATE_CONFIGURED;
};

inline void init(std::error_code* error = nullptr) { detail::check(velmora_init(), error, "velmora_init"); }
inline void online(std::error_code* error = nullptr) { detail::check(velmora_online(), error, "velmora_online"); }
inline void offline(std::error_code* error = nullptr) { detail::check(velmora_offline(), error, "velmora_offline"); }

inline void setSession(const std::string& guid, std::error_code* error = nullptr) {
    detail::check(velmora_setSession(guid.c_str()), error, "velmora_setSession");
}

inline std::string session(std::error_code* error = nullptr) {
    std::array<char, 37> guid{};
    detail::check(velmora_getSession(guid.data()), error, "velmora_getSession");
    return guid.data();
}

inline void setAccessToken(const std::string& token, std::error_code* error = nullptr) {
    detail::check(velmora_setAccessToken(token.c_str()), error, "velmora_setAccessToken");
}

inline void setLorneProfile(const std::string& json, std::error_code* error = nullptr) {
    detail::check(velmora_setLorneProfile(json.c_str()), error, "velmora_setLorneProfile");
}

inline void setConfig(const std::string& configGuid, velmora_config_key key, const std::string& value,
                      std::error_code* error = nullptr) {
    detail::check(velmora_setConfig(configGuid.c_str(), key, value.c_str()), error, "velmora_setConfig");
}

inline void setIngestConfig(const std::string& configGuid, const IngestConfig& config,
                            std::error_code* error = nullptr) {
    detail::check(
        velmora_setIngestConfig(configGuid.c_str(), config.environment, config.project.c_str(), config.apiKey.c_str(),
                                config.sourceType, config.sourceCategory, config.consent),
        error, "velmora_setIngestConfig");
}

inline void setLogLevel(velmora_log_level level, std::error_code* error = nullptr) {
    detail::check(velmora_setLogLevel(level), error, "velmora_setLogLevel");
}

// Sends log lines to the function instead of to files; an empty function drops them. Once, before anything else. The
// function lives until the process ends, may be called from several threads at a time, and must not throw.
inline void setLog(std::function<void(velmora_log_level level, const char* channel, const char* line)> sink,
                   std::error_code* error = nullptr) {
    using Sink = std::function<void(velmora_log_level, const char*, const char*)>;
    static const Sink* installed = nullptr;
    if (!sink) return detail::check(velmora_setLogCallback(nullptr), error, "velmora_setLogCallback");
    installed = new Sink(std::move(sink));
    const velmora_log_callback callback = [](std::int32_t level, const char* channel, const char* line) {
        (*installed)(static_cast<velmora_log_level>(level), channel, line);
    };
    detail::check(velmora_setLogCallback(callback), error, "velmora_setLogCallback");
}

inline void setIaasMapping(const std::string& configGuid, const std::string& csv, std::error_code* error = nullptr) {
    detail::check(velmora_setIaasMapping(configGuid.c_str(), csv.c_str()), error, "velmora_setIaasMapping");
}

struct Conversion {
    std::string json;
    bool matched = false;
};

// An event that no rule matches is no failure here.
inline Conversion iaasToIngestSDM(const std::string& configGuid, const std::string& json,
                                  std::error_code* error = nullptr) {
    char* text = nullptr;
    const std::int32_t result = velmora_iaasToIngestSDM(configGuid.c_str(), json.c_str(), &text);
    Conversion conversion{detail::takeText(text), result == VELMORA_OK};
    const bool converted = result == VELMORA_OK || result == VELMORA_ERROR_IAAS_NO_RULE_MATCHED;
    detail::check(converted ? static_cast<std::int32_t>(VELMORA_OK) : result, error, "velmora_iaasToIngestSDM");
    return conversion;
}

inline void iaasBatchToIngestSDM(const std::string& configGuid, const std::string& inCsvPath,
                                 const std::string& outCsvPath, std::error_code* error = nullptr) {
    detail::check(velmora_iaasBatchToIngestSDM(configGuid.c_str(), inCsvPath.c_str(), outCsvPath.c_str()), error,
                  "velmora_iaasBatchToIngestSDM");
}

inline std::string selbyData(std::error_code* error = nullptr) {
    char* text = nullptr;
    const std::int32_t result = velmora_getSELBYData(&text);
    std::string data = detail::takeText(text);
    detail::check(result, error, "velmora_getSELBYData");
    return data;
}

// A running instance; it is stopped when the object ends, and events not yet delivered stay on disk. Movable. An object
// that was moved from or stopped is empty: its operations fail with code 4.
class Ingest {
public:
    using ErrorHandler = std::function<void(std::error_code)>;
    using Completion = std::function<void(std::error_code)>;

    Ingest() noexcept = default;

    // `onError` hears of failures that belong to no call; up to 16 objects of a process can have one, further ones fail
    // with code 1. It must not throw. Two objects with one config share the instance: the first to end stops it.
    explicit Ingest(const std::string& config, const std::string& commonData = "{}", ErrorHandler onError = nullptr,
                    std::error_code* error = nullptr) {
        std::int32_t result = VELMORA_ERROR_UNKNOWN;
        const bool wantsErrors = static_cast<bool>(onError);
        if (wantsErrors) slot_ = detail::ErrorSlots::take(std::move(onError));
        if (!wantsErrors || slot_ != detail::ErrorSlots::kNone)
            result =
                velmora_ingest_start(config.c_str(), commonData.c_str(), detail::ErrorSlots::callback(slot_), &handle_);
        if (result != VELMORA_OK) detail::ErrorSlots::free(std::exchange(slot_, detail::ErrorSlots::kNone));
        detail::check(result, error, "velmora_ingest_start");
    }
    ~Ingest() { end(); }

    Ingest(Ingest&& other) noexcept { swap(other); }
    Ingest& operator=(Ingest&& other) noexcept {
        Ingest taken(std::move(other));
        swap(taken);
        return *this;
    }
    Ingest(const Ingest&) = delete;
    Ingest& operator=(const Ingest&) = delete;

    explicit operator bool() const noexcept { return handle_ != nullptr; }
    velmora_ingest_instance handle() const noexcept { return handle_; }

    void submit(const std::string& json, const Submission& how = {}, std::error_code* error = nullptr) {
        detail::check(
            velmora_ingest_submitEvent(handle_, json.c_str(), how.batch ? 1 : 0, how.auth ? 1 : 0, how.validate), error,
            "velmora_ingest_submitEvent");
    }

    void addCommonAttribute(const std::string& key, const std::string& value, std::error_code* error = nullptr) {
        detail::check(velmora_ingest_addCommonAttribute(handle_, key.c_str(), value.c_str()), error,
                      "velmora_ingest_addCommonAttribute");
    }

    void removeCommonAttribute(const std::string& key, std::error_code* error = nullptr) {
        detail::check(velmora_ingest_removeCommonAttribute(handle_, key.c_str()), error,
                      "velmora_ingest_removeCommonAttribute");
    }

    // Waits until everything is delivered or a batch has failed.
    void flush(std::error_code* error = nullptr) {
        detail::check(velmora_ingest_flush(handle_, nullptr, nullptr), error, "velmora_ingest_flush");
    }

    // Returns at once; `completion` runs on a pool thread, may outlive this object, and must not throw.
    void flushAsync(Completion completion, std::error_code* error = nullptr) {
        const std::int32_t result = detail::withCompletion(
            std::move(completion), [this](velmora_ingest_completion_callback callback, void* userData) {
                return velmora_ingest_flush(handle_, callback, userData);
            });
        detail::check(result, error, "velmora_ingest_flush");
    }

    // Waits until the instance is gone; the object is empty afterwards.
    void stop(std::error_code* error = nullptr) { detail::check(end(), error, "velmora_ingest_stop"); }

    // Returns at once with an empty object. The error handler, if any, stays until `completion` has run.
    void stopAsync(Completion completion, std::error_code* error = nullptr) {
        const velmora_ingest_instance handle = std::exchange(handle_, nullptr);
        const std::size_t slot = std::exchange(slot_, detail::ErrorSlots::kNone);
        auto onStopped = [slot, completion = std::move(completion)](std::error_code result) {
            detail::ErrorSlots::free(slot);
            completion(result);
        };
        const std::int32_t result = detail::withCompletion(
            std::move(onStopped), [handle](velmora_ingest_completion_callback callback, void* userData) {
                return velmora_ingest_stop_v2(handle, callback, userData);
            });
        if (result != VELMORA_OK) detail::ErrorSlots::free(slot);
        detail::check(result, error, "velmora_ingest_stop_v2");
    }

    void swap(Ingest& other) noexcept {
        std::swap(handle_, other.handle_);
        std::swap(slot_, other.slot_);
    }

private:
    std::int32_t end() noexcept {
        if (handle_ == nullptr) return VELMORA_ERROR_INVALID_ARGUMENT;
        const std::int32_t result = velmora_ingest_stop(std::exchange(handle_, nullptr));
        detail::ErrorSlots::free(std::exchange(slot_, detail::ErrorSlots::kNone));
        return result;
    }

    velmora_ingest_instance handle_ = nullptr;
    std::size_t slot_ = detail::ErrorSlots::kNone;
};

}  // namespace velmora::host

template <>
struct std::is_error_code_enum<velmora_result> : std::true_type {};

// Found by argument-dependent lookup, so that a std::error_code compares with a velmora_result directly.
inline std::error_code make_error_code(velmora_result result) noexcept {
    return velmora::host::make_error_code(result);
}
