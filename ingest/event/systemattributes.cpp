#include "ingest/event/systemattributes.h"

#include <algorithm>
#include <cstdint>

#include "core/sysinfo/sysinfo.h"
#include "ingest/event/eventmodel.h"
#include "ingest/event/eventwriter.h"

namespace velmora {
namespace {

using Pairs = EventWriter::Pairs;
using service::oswin::Profile;
using TextFact = bool (*)(std::string& out);
using NumberFact = bool (*)(uint64_t& out);

// Empty if the system does not tell.
std::string ask(TextFact fact) {
    std::string text;
    return fact(text) ? text : std::string();
}

void addFact(Pairs& pairs, const char* name, TextFact fact) {
    std::string text;
    if (fact(text)) pairs.emplace_back(name, text);
}

void addFact(Pairs& pairs, const char* name, NumberFact fact) {
    uint64_t number = 0;
    if (fact(number)) pairs.emplace_back(name, std::to_string(number));
}

template <typename... Values>
std::string fragment(const char* name, const Values&... values) {
    std::string json;
    EventWriter(&json).set(name, values...).finish();
    return json;
}

void writeIdentityObject(JsonWriter& json, const Profile& profile) {
    json.startObject(key::kEntityOswin);
    json.addString("accounttype", profile.accountType);
    if (!profile.preferredLanguages.empty()) json.addString("lang", profile.preferredLanguages.front());
    if (!profile.serviceAccounts.empty()) {
        const auto& account = profile.serviceAccounts.front();
        json.addString("service_code", account.serviceCode);
        json.addString("service_level", account.serviceLevel);
        json.addString("service_status", account.serviceStatus);
    }
    json.addString("mrkt_perm", profile.mrktPerm);
    json.addString("mrkt_perm_email", profile.mrktPermEmail);
    json.endObject(true);
}

}  // namespace

std::string makeEnvelopeFragment(const service::config::ingest::Config& config) {
    std::string json;
    EventWriter(&json)
        .set(key::kProject, config.project)
        .set(key::kEnvironment, environmentToString(config.environment))
        .set(key::kIngestType, std::string("velmora"))
        .finish();
    return json;
}

std::string makeEventFragment(SourceCategory category) {
    std::string json;
    EventWriter(&json)
        .set(key::kEntityDatasdk, Pairs{{"version", kSdkVersion}})
        .set(key::kEventDeviceGuid, ask(sysinfo::getDeviceGuid))
        .set(key::kSourceDevice, ask(sysinfo::getDeviceName))
        .set(key::kSourcePlatform, ask(sysinfo::getPlatform))
        .set(key::kSourceOsVersion, ask(sysinfo::getOSVersion))
        .set(key::kEventCategory, sourceCategoryToString(category))
        .finish();
    return json;
}

std::string makeDeviceFragment() {
    Pairs device;
    addFact(device, "cpu_processor", sysinfo::getProcessorName);
    addFact(device, "cpu_num_cores", sysinfo::getNumCores);
    addFact(device, "cpu_speed", sysinfo::getProcessorSpeed);
    addFact(device, "device_guid", sysinfo::getDeviceGuid);
    addFact(device, "device_resolution", sysinfo::getDisplayResolution);
    addFact(device, "hdd_size", sysinfo::getDiskSize);
    addFact(device, "nic_guid", sysinfo::getPrimaryMACAddress);
    addFact(device, "ram_size", sysinfo::getRAMSize);
    addFact(device, "pen_touch", sysinfo::getPenTouchSupport);
    return fragment(key::kEntityDevice, device);
}

std::string makeSourceFragment() {
    Pairs source;
    addFact(source, "device", sysinfo::getDeviceName);
    addFact(source, "platform", sysinfo::getPlatform);
    addFact(source, "os_version", sysinfo::getOSVersion);
    return fragment(key::kEntitySource, source);
}

std::string makeUserAgentFragment() { return fragment(key::kEventUserAgent, ask(sysinfo::getUserAgent)); }

std::string makeIdentityFragment(const Profile& profile) {
    std::string json;
    EventWriter writer(&json);
    writeIdentityObject(writer.json(), profile);
    writer.set(key::kEventUserGuid, profile.userId);
    if (!profile.serviceAccounts.empty()) {
        const auto& account = profile.serviceAccounts.front();
        writer.set(key::kUserServiceCode, account.serviceCode)
            .set(key::kUserServiceLevel, account.serviceLevel)
            .set(key::kUserServiceStatus, account.serviceStatus);
    }
    writer.finish();
    return json;
}

std::string makeLorneFragment(const std::unordered_map<std::string, std::string>& profile) {
    Pairs pairs(profile.begin(), profile.end());
    std::sort(pairs.begin(), pairs.end());
    return fragment(key::kEntityLorne, pairs);
}

}  // namespace velmora
