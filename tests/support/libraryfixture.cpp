#include "tests/support/libraryfixture.h"

#include <algorithm>
#include <atomic>

#include "core/filesystem/filesystem.h"
#include "core/json/jsontext.h"

namespace velmora::test {
namespace {

std::atomic<NetworkState> network = NetworkState::online;
std::atomic<NetworkMonitor*> liveMonitor = nullptr;

struct SwitchedMonitor : NetworkMonitor {
    SwitchedMonitor() { liveMonitor = this; }
    ~SwitchedMonitor() override { liveMonitor = nullptr; }
    NetworkState getNetworkState() override { return network; }
    bool startListening() override { return true; }
    void stopListening() override {}
};

bool isIngest(const HostRequest& request) { return request.url.find("/ingest") != std::string::npos; }

}  // namespace

std::string textOf(const JsonValue& value) { return serialize(value); }

CapturedLog& LibraryTest::processLog() {
    static CapturedLog log(LogLevel::warn);
    return log;
}

LibraryTest::LibraryTest() {
    Filesystem::setRootPath(Path(root_.path()));
    setNetworkMonitorFactory([] { return std::make_unique<SwitchedMonitor>(); });
}

LibraryTest::~LibraryTest() {
    host_.release();
    for (const velmora_ingest_instance instance : started_) velmora_ingest_stop(instance);
    velmora_offline();
}

void LibraryTest::setNetwork(NetworkState state) {
    network = state;
    if (NetworkMonitor* const monitor = liveMonitor) monitor->updateNetworkState(state);
}

void LibraryTest::configure(int32_t consent, const char* guid) {
    ASSERT_EQ(velmora_setIngestConfig(guid, VELMORA_ENVIRONMENT_PROD, "proj", "key", VELMORA_SOURCE_HOST,
                                      VELMORA_CATEGORY_DESKTOP, consent),
              VELMORA_OK);
}

void LibraryTest::set(int32_t key, const std::string& value, const char* guid) {
    ASSERT_EQ(velmora_setConfig(guid, key, value.c_str()), VELMORA_OK);
}

velmora_ingest_instance LibraryTest::start(const char* guid, const char* commonData,
                                           velmora_ingest_error_callback onError) {
    velmora_ingest_instance instance = nullptr;
    EXPECT_EQ(velmora_ingest_start(guid, commonData, onError, &instance), VELMORA_OK);
    started_.push_back(instance);
    return instance;
}

void LibraryTest::stop(velmora_ingest_instance instance) {
    EXPECT_EQ(velmora_ingest_stop(instance), VELMORA_OK);
    started_.erase(std::remove(started_.begin(), started_.end(), instance), started_.end());
}

int32_t LibraryTest::submit(velmora_ingest_instance instance, const std::string& json, bool auth, bool batch) {
    return velmora_ingest_submitEvent(instance, json.c_str(), batch, auth, VELMORA_VALIDATE_CONFIGURED);
}

JsonDocument LibraryTest::posted() {
    JsonDocument all(rapidjson::kArrayType);
    for (const HostRequest& request : host_.requests()) {
        if (!isIngest(request)) continue;
        JsonDocument batch;
        const bool isParsed = !parseValue(batch, request.text()).IsError();
        EXPECT_TRUE(isParsed) << request.text();
        if (!isParsed) continue;
        for (const auto& event : batch["events"].GetArray()) {
            all.PushBack(JsonValue(event, all.GetAllocator()), all.GetAllocator());
        }
    }
    return all;
}

size_t LibraryTest::countPosted(const std::string& value, const char* key) {
    const JsonDocument all = posted();
    return static_cast<size_t>(std::count_if(all.Begin(), all.End(), [&](const JsonValue& event) {
        const auto& data = event["data"];
        return data.HasMember(key) && toText(data[key]) == value;
    }));
}

JsonDocument LibraryTest::awaitPosted(const std::string& value, const char* key) {
    EXPECT_TRUE(host_.waitUntil([&] { return countPosted(value, key) > 0; }))
        << "no event with " << key << " " << value;
    JsonDocument data(rapidjson::kObjectType);
    const JsonDocument all = posted();
    for (const auto& event : all.GetArray()) {
        const auto member = event["data"].FindMember(key);
        if (member == event["data"].MemberEnd() || toText(member->value) != value) continue;
        data.CopyFrom(event["data"], data.GetAllocator());
        break;
    }
    return data;
}

}  // namespace velmora::test
