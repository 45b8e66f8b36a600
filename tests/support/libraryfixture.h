// The whole library in one process, through its C interface: a scripted host, a root folder of its own, a network that
// the test switches. The session is the process's: one case per process.
#pragma once

#include <gtest/gtest.h>
#include <velmora/velmora.h>
#include "core/json/jsontext.h"

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "core/network/networkmonitor.h"
#include "tests/support/capturedlog.h"
#include "tests/support/fakehost.h"
#include "tests/support/tempfolder.h"

namespace velmora::test {

class LibraryTest : public testing::Test {
protected:
    static constexpr const char* kGuid = "3f2c9d5e-8f7a-4f0b-9f53-0d7f8f1f2a11";

    LibraryTest();
    ~LibraryTest() override;

    void setNetwork(NetworkState state);

    // Project "proj", key "key", production, host, desktop.
    void configure(int32_t consent, const char* guid = kGuid);
    void set(int32_t key, const std::string& value, const char* guid = kGuid);
    velmora_ingest_instance start(const char* guid = kGuid, const char* commonData = nullptr,
                                  velmora_ingest_error_callback onError = nullptr);
    void stop(velmora_ingest_instance instance);
    int32_t submit(velmora_ingest_instance instance, const std::string& json, bool auth = false, bool batch = true);

    // Every event that has been posted to the ingest service so far, in order, in one array of envelopes.
    JsonDocument posted();

    // The "data" of the first posted event whose subtype (or any other key) is `value`; waits for it.
    JsonDocument awaitPosted(const std::string& value, const char* key = "event.subtype");

    size_t countPosted(const std::string& value, const char* key = "event.subtype");

    TempFolder root_;
    CapturedLog& log_ = processLog();
    FakeHost host_;

private:
    // Outlives the session, which logs until the process ends.
    static CapturedLog& processLog();

    std::vector<velmora_ingest_instance> started_;
};

std::string textOf(const JsonValue& value);

}  // namespace velmora::test
