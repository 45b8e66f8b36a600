#include "velmora/ingest.h"

#include "core/types/errors.h"
#include "core/utils/callbackscope.h"
#include "ingest/main/entryframe.h"
#include "ingest/session/session.h"

using velmora::refuse;
using velmora::requireText;
using velmora::runEntry;
using velmora::Session;
using velmora::shown;
using velmora::VelmoraError;

namespace {

const void* address(velmora_ingest_instance handle) { return handle; }

void requireInstance(velmora_ingest_instance handle, const char* function, const char* message) {
    if (handle == nullptr) refuse(VelmoraError::invalid_argument, function, message, address(handle));
}

void stop(velmora_ingest_instance instance, velmora_ingest_completion_callback callback, void* userData) {
    constexpr auto kFunction = "velmora_ingest_stop_v2";
    requireInstance(instance, kFunction, "stop for instance=");
    VELMORA_LOG_SCOPE_AT(info, "api", kFunction, "stop for instance=" << address(instance));
    Session::getInstance().stopIngest(instance, callback, userData);
}

void submitEvent(velmora_ingest_instance instance, const char* json, int32_t batch, int32_t auth, int32_t validate) {
    constexpr auto kFunction = "velmora_ingest_submitEvent";
    if (instance == nullptr) {
        refuse(VelmoraError::invalid_argument, kFunction, "submitEvent for instance=", shown(nullptr));
    }
    if (json == nullptr) refuse(VelmoraError::invalid_argument, kFunction, "submitEvent with json=", shown(nullptr));
    VELMORA_LOG_SCOPE_AT(info, "api", kFunction,
                         "submitEvent for instance=" << address(instance) << " json=" << json << " batch=" << batch
                                                     << " auth=" << auth << " validate=" << validate);
    Session::getInstance().instance(instance)->submitEvent(json, batch != 0, auth != 0, validate, "{}");
}

}  // namespace

int32_t velmora_ingest_start(const char* config, const char* commonData, velmora_ingest_error_callback errorCallback,
                             velmora_ingest_instance* pInstance) {
    return runEntry([=] {
        constexpr auto kFunction = "velmora_ingest_start";
        requireText(config, kFunction, "ingest start for config=");
        if (pInstance == nullptr) {
            refuse(VelmoraError::invalid_argument, kFunction, "ingest start for pInstance=nullptr");
        }
        if (commonData != nullptr && !velmora::validJSON(commonData)) {
            refuse(VelmoraError::invalid_json, kFunction, "ingest start for commonData=", commonData);
        }
        VELMORA_LOG_SCOPE_AT(info, "api", kFunction, "ingest start for config=" << config);
        *pInstance =
            Session::getInstance().startIngest(config, commonData != nullptr ? commonData : "{}", errorCallback);
    });
}

int32_t velmora_ingest_stop(velmora_ingest_instance instance) {
    return runEntry([=] { stop(instance, nullptr, nullptr); });
}

int32_t velmora_ingest_stop_v2(velmora_ingest_instance instance, velmora_ingest_completion_callback completionCallback,
                               void* userData) {
    return runEntry([=] { stop(instance, completionCallback, userData); });
}

int32_t velmora_ingest_addCommonAttribute(velmora_ingest_instance instance, const char* key, const char* value) {
    return runEntry([=] {
        constexpr auto kFunction = "velmora_ingest_addCommonAttribute";
        requireInstance(instance, kFunction, "add common attribute for instance=");
        requireText(key, kFunction, "add common attribute for key=");
        requireText(value, kFunction, "add common attribute for value=");
        VELMORA_LOG_SCOPE_AT(
            info, "api", kFunction,
            "add common attribute for instance=" << address(instance) << " key=" << key << " val=" << value);
        Session::getInstance().instance(instance)->addCommonAttribute(key, value);
    });
}

int32_t velmora_ingest_removeCommonAttribute(velmora_ingest_instance instance, const char* key) {
    return runEntry([=] {
        constexpr auto kFunction = "velmora_ingest_removeCommonAttribute";
        requireInstance(instance, kFunction, "remove common attribute for instance=");
        requireText(key, kFunction, "remove common attribute for key=");
        VELMORA_LOG_SCOPE_AT(info, "api", kFunction,
                             "remove common attribute for instance=" << address(instance) << " key=" << key);
        Session::getInstance().instance(instance)->removeCommonAttribute(key);
    });
}

int32_t velmora_ingest_submitEvent(velmora_ingest_instance instance, const char* json, int32_t batch, int32_t auth,
                                   int32_t validate) {
    return runEntry([=] { submitEvent(instance, json, batch, auth, validate); });
}

int32_t velmora_ingest_submitAuthEvent(velmora_ingest_instance instance, const char* json, int32_t batch) {
    return runEntry([=] { submitEvent(instance, json, batch, 1, VELMORA_VALIDATE_CONFIGURED); });
}

int32_t velmora_ingest_submitAnonEvent(velmora_ingest_instance instance, const char* json, int32_t batch) {
    return runEntry([=] { submitEvent(instance, json, batch, 0, VELMORA_VALIDATE_CONFIGURED); });
}

int32_t velmora_ingest_flush(velmora_ingest_instance instance, velmora_ingest_completion_callback completionCallback,
                             void* userData) {
    return runEntry([=] {
        constexpr auto kFunction = "velmora_ingest_flush";
        requireInstance(instance, kFunction, "flush for instance=");
        VELMORA_LOG_SCOPE_AT(info, "api", kFunction, "flush for instance=" << address(instance));
        if (completionCallback == nullptr && velmora::CallbackScope::isInside(instance)) {
            throw std::system_error(VelmoraError::precondition_failed,
                                    "a flush without a callback inside a callback of the instance; give it one");
        }
        Session::getInstance().instance(instance)->flush(completionCallback, userData);
    });
}
