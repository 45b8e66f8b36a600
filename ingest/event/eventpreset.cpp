#include "ingest/event/eventpreset.h"

#include <array>
#include <atomic>
#include <cstddef>
#include <cstring>

#include "core/json/jsontext.h"
#include "core/json/mergejson.h"
#include "core/sysinfo/sysinfo.h"
#include "core/types/errors.h"
#include "core/types/logger.h"
#include "core/utils/strings.h"
#include "core/utils/timestamps.h"
#include "ingest/event/eventattributes.h"
#include "ingest/event/eventmodel.h"
#include "ingest/event/eventwriter.h"
#include "ingest/event/systemattributes.h"

namespace velmora {
namespace {

using Allocator = JsonPool;

constexpr size_t kUsualEnvelopeSize = 4096;
constexpr size_t kUsualDocumentSize = 8192;
constexpr size_t kAutomaticAttributes = 6;
constexpr size_t kUsualDefaults = 5;
constexpr char kEmptyObject[] = "{}";
constexpr int kMaxEventNesting = kMaxNesting - 1;  // the envelope goes around it, and has to be read again

// Written by the network monitor; a single flag that stands for nothing else.
std::atomic<bool> eventOnline{false};

// Room for a usual event's values, so that the heap is not asked.
struct Pool {
    alignas(std::max_align_t) std::array<char, kUsualDocumentSize> memory;
    Allocator allocator{memory.data(), memory.size()};
};

JsonValue refer(const std::string& text) {
    return JsonValue(rapidjson::StringRef(text.data(), static_cast<rapidjson::SizeType>(text.size())));
}

// What is asked of the system for one event. Other values refer to these texts.
struct Moment {
    std::string time = currentTimeLocalMillis();
    bool hasConnection = false;
    bool hasLanguage = false;
    std::string connection;
    std::string dtsEnd;
    std::string language;
    const std::string offline = isEventOnline() ? "false" : "true";
    std::string guid;

    Moment() {
        hasConnection = sysinfo::getConnectionType(connection);
        dtsEnd = currentTimeLocalMillis();
        hasLanguage = sysinfo::getLocale(language);
        guid = makeGuid();
    }

    [[nodiscard]] JsonValue environment(Allocator& allocator) const {
        JsonValue env(rapidjson::kObjectType);
        if (hasConnection) env.AddMember("connection_type", refer(connection), allocator);
        env.AddMember("dts_end", refer(dtsEnd), allocator);
        if (hasLanguage) env.AddMember("language", refer(language), allocator);
        env.AddMember("offline", refer(offline), allocator);
        return env;
    }
};

void appendIfAny(EventAttributes& data, const char* name, const std::string& value) {
    if (!value.empty()) data.append(name, refer(value));
}

void mergeIfAny(EventAttributes& data, const char* name, const std::string& value, Allocator& allocator) {
    if (value.empty()) return;
    data.merge(name, *new (allocator.Malloc(sizeof(JsonValue))) JsonValue(refer(value)));
}

void addAutomaticAttributes(EventAttributes& data, const Moment& moment, Allocator& allocator) {
    appendIfAny(data, key::kEventDtsEnd, moment.time);
    appendIfAny(data, key::kEventGuid, moment.guid);
    data.append(key::kEntityEnv, moment.environment(allocator));
    if (moment.hasConnection) mergeIfAny(data, key::kEventConnection, moment.connection, allocator);
    if (moment.hasLanguage) mergeIfAny(data, key::kEventLanguage, moment.language, allocator);
    mergeIfAny(data, key::kEventOffline, moment.offline, allocator);
}

void append(JsonBuffer& out, std::string_view text) { std::memcpy(out.Push(text.size()), text.data(), text.size()); }

std::string textOf(const JsonBuffer& buffer) { return {buffer.GetString(), buffer.GetSize()}; }

// The object of an envelope that the batch-time attributes go into.
JsonValue& dataOf(JsonDocument& event) {
    const auto data = event.FindMember(key::kData);
    if (data == event.MemberEnd()) {
        event.AddMember(rapidjson::StringRef(key::kData), JsonValue(rapidjson::kObjectType), event.GetAllocator());
        return (event.MemberEnd() - 1)->value;
    }
    if (!data->value.IsObject()) data->value.SetObject();
    return data->value;
}

void mergeUserAgent(JsonValue& data, Allocator& allocator) {
    std::string userAgent;
    if (!sysinfo::getUserAgent(userAgent)) return;
    JsonValue env(rapidjson::kObjectType);
    const auto length = static_cast<rapidjson::SizeType>(userAgent.size());
    env.AddMember("user_agent", JsonValue(userAgent.data(), length, allocator), allocator);
    JsonValue attributes(rapidjson::kObjectType);
    attributes.AddMember(rapidjson::StringRef(key::kEntityEnv), env, allocator);
    mergeObjects(data, attributes, allocator);
}

std::shared_ptr<const JsonDocument> parsed(const std::string& json) {
    auto document = std::make_shared<JsonDocument>();
    if (!parseObject(*document, json)) document->SetObject();
    return document;
}

}  // namespace

void setEventOnline(bool online) noexcept { eventOnline.store(online, std::memory_order_relaxed); }
bool isEventOnline() noexcept { return eventOnline.load(std::memory_order_relaxed); }

// The JSON texts and parsed objects that are held ready. Objects are shared and never changed, only replaced.
struct EventPreset::Fragments {
    using Object = std::shared_ptr<const JsonDocument>;

    std::string eventBase;
    const std::string device = makeDeviceFragment();
    const std::string source = makeSourceFragment();
    StringMap commonAttributes;
    std::string commonAttributesJson = kEmptyObject;
    std::shared_ptr<const ReadyAttributes> dataBase;
    Object userAgent = parsed(kEmptyObject);
    Object identity = userAgent;
    Object lorne = userAgent;
};

EventPreset::EventPreset(const IngestConfigProvider& config)
    : validator_(config), envelopeBase_(config.read(makeEnvelopeFragment)), fragments_(std::make_unique<Fragments>()) {
    const auto category = config.read([](const auto& record) { return record.sourceCategory; });
    const MutexLock lock(mutex_);
    fragments_->eventBase = makeEventFragment(category);
    rebuild();
}

EventPreset::~EventPreset() = default;

std::string EventPreset::getEventPayload(const std::string& data, uint32_t level, std::string configOverride) {
    VELMORA_LOG(trace, "event.preset") << "In getEventPayload: data=" << data << " config override=" << configOverride;
    Pool pool;
    JsonDocument event(&pool.allocator);
    if (!parseObject(event, data, kMaxEventNesting)) throw std::system_error(VelmoraError::invalid_json);
    const auto ready = dataBase();
    const Moment moment;
    EventAttributes attributes(*ready, pool.allocator, kAutomaticAttributes + event.MemberCount() + kUsualDefaults);
    addAutomaticAttributes(attributes, moment, pool.allocator);
    attributes.mergeMembers(event);
    if (configOverride != kEmptyObject) EventValidator::checkOverride(configOverride);
    validator_.validate(attributes, level);
    std::string result = envelope(attributes, moment.time, configOverride);
    VELMORA_LOG(trace, "event.preset") << "In getEventPayload: event=" << result;
    return result;
}

std::string EventPreset::envelope(const EventAttributes& data, const std::string& time,
                                  const std::string& configOverride) const {
    JsonBuffer out(nullptr, kUsualEnvelopeSize);
    if (configOverride == kEmptyObject) {
        append(out, std::string_view(envelopeBase_).substr(0, envelopeBase_.size() - 1));
        if (!time.empty()) append(out, ",\"time\":\"" + time + '"');
        append(out, ",\"data\":");
        data.write(out);
        out.Put('}');
        return textOf(out);
    }
    append(out, "{\"data\":");
    data.write(out);
    out.Put('}');
    std::string result = envelopeBase_;
    EventWriter(&result).set(key::kTime, time).finish();
    mergeJSON(result, configOverride);
    mergeJSON(result, textOf(out));
    return result;
}

std::shared_ptr<const ReadyAttributes> EventPreset::dataBase() const {
    const MutexLock lock(mutex_);
    return fragments_->dataBase;
}

std::string EventPreset::applyBatchAttributes(std::string event, bool includeIdentity) {
    if (tryApplyBatchAttributes(event, includeIdentity)) return event;
    VELMORA_LOG(warn, "json") << "invalid json data=" << event;
    event = kEmptyObject;
    static_cast<void>(tryApplyBatchAttributes(event, includeIdentity));
    return event;
}

bool EventPreset::tryApplyBatchAttributes(std::string& event, bool includeIdentity) {
    Fragments::Object userAgent, identity, lorne;
    {
        const MutexLock lock(mutex_);
        userAgent = fragments_->userAgent;
        identity = fragments_->identity;
        lorne = fragments_->lorne;
    }
    Pool pool;
    JsonDocument envelope(&pool.allocator);
    if (!parseObject(envelope, event)) return false;
    JsonValue& data = dataOf(envelope);
    mergeObjects(data, *userAgent, pool.allocator);
    mergeUserAgent(data, pool.allocator);
    if (includeIdentity) {
        mergeObjects(data, *identity, pool.allocator);
        mergeObjects(data, *lorne, pool.allocator);
    }
    event = serialize(envelope);
    return true;
}

void EventPreset::updateUserAgent() {
    const auto userAgent = parsed(makeUserAgentFragment());
    const MutexLock lock(mutex_);
    fragments_->userAgent = userAgent;
}

void EventPreset::setCommonAttribute(const std::string& key, const std::string& value) {
    const MutexLock lock(mutex_);
    StringMap attributes = fragments_->commonAttributes;
    attributes[key] = value;
    useCommonAttributes(std::move(attributes));
}

void EventPreset::setCommonAttributes(const StringMap& attributes) {
    const MutexLock lock(mutex_);
    StringMap all = fragments_->commonAttributes;
    all.insert(attributes.begin(), attributes.end());
    useCommonAttributes(std::move(all));
}

void EventPreset::useCommonAttributes(StringMap attributes) {
    std::string json = stringMapToJson(attributes);
    JsonDocument document;
    if (!parseObject(document, json, kMaxEventNesting)) throw std::system_error(VelmoraError::invalid_argument);
    fragments_->commonAttributes = std::move(attributes);
    fragments_->commonAttributesJson = std::move(json);
    rebuild();
}

void EventPreset::removeCommonAttribute(const std::string& key) {
    const MutexLock lock(mutex_);
    fragments_->commonAttributes.erase(key);
    fragments_->commonAttributesJson = stringMapToJson(fragments_->commonAttributes);
    rebuild();
}

EventPreset::StringMap EventPreset::getCommonAttributes() const {
    const MutexLock lock(mutex_);
    return fragments_->commonAttributes;
}

void EventPreset::setProfile(const service::oswin::Profile& profile) {
    const auto identity = parsed(makeIdentityFragment(profile));
    const MutexLock lock(mutex_);
    fragments_->identity = identity;
}

void EventPreset::clearProfile() {
    const auto nobody = parsed(kEmptyObject);
    const MutexLock lock(mutex_);
    fragments_->identity = nobody;
}

void EventPreset::setLorneProfile(const StringMap& profile) {
    const auto lorne = parsed(makeLorneFragment(profile));
    const MutexLock lock(mutex_);
    fragments_->lorne = lorne;
}

void EventPreset::setSessionGuid(const std::string& guid) {
    std::string fragment;
    EventWriter(&fragment).set(key::kEventSessionGuid, guid).finish();
    const MutexLock lock(mutex_);
    mergeJSON(fragments_->eventBase, fragment);
    rebuild();
}

void EventPreset::rebuild() {
    std::string data = kEmptyObject;
    mergeJSON(data, fragments_->eventBase);
    mergeJSON(data, fragments_->device);
    mergeJSON(data, fragments_->source);
    mergeJSON(data, fragments_->commonAttributesJson);
    fragments_->dataBase = std::make_shared<const ReadyAttributes>(data);
}

}  // namespace velmora
