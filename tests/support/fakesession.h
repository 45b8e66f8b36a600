// The session as a line or an instance sees it, with plain values behind each question.
#pragma once

#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include "core/types/mutex.h"
#include "ingest/main/delivery/sessionview.h"

namespace velmora::test {

struct FakeSession : SessionView {
    std::string getSessionGuid() override { return "11111111-2222-3333-4444-555555555555"; }
    StringMap getCommonData() override { return commonData; }
    void setCommonData(StringMap data) override { commonData = std::move(data); }
    StringMap getLorneProfile() override { return lorneProfile; }
    service::config::ingest::Config getIngestConfig(const std::string&) override { return config; }
    PipelineState getOnlineLimit() override { return onlineLimit; }
    PipelineState getNetworkLimit() override { return networkLimit; }
    PipelineState getAuthState(Consent, Environment) override { return authState; }
    std::vector<uint64_t> getRetryIntervals() override { return retryIntervals; }

    // Over the callbacks that are installed at the first call.
    std::shared_ptr<transfer::TransferEngine> getTransferEngine() override {
        const MutexLock lock(mutex);
        if (!engine) engine = transfer::makeTransferEngine();
        return engine;
    }

    StringMap commonData;
    StringMap lorneProfile;
    service::config::ingest::Config config;
    std::vector<uint64_t> retryIntervals{1000, 2000};
    std::atomic<PipelineState> onlineLimit = PipelineState::On;
    std::atomic<PipelineState> networkLimit = PipelineState::On;
    std::atomic<PipelineState> authState = PipelineState::On;

private:
    Mutex mutex;
    std::shared_ptr<transfer::TransferEngine> engine VELMORA_GUARDED_BY(mutex);
};

}  // namespace velmora::test
