#include "ingest/main/instance/orphaninstance.h"

#include <algorithm>
#include <utility>

#include "core/filesystem/filesystem.h"
#include "core/types/errors.h"
#include "core/types/logger.h"
#include "ingest/main/instance/instancefolder.h"

namespace velmora {
namespace {

constexpr std::chrono::milliseconds kScanInterval(1800000);

const char* emptyText(PipelineKind kind) {
    switch (kind) {
        case PipelineKind::meta:
            return "meta is empty";
        case PipelineKind::auth_invalid:
            return "auth invalid is empty";
        case PipelineKind::auth:
            return "auth is empty";
        case PipelineKind::anon_invalid:
            return "anon invalid is empty";
        case PipelineKind::anon:
            return "anon is empty";
    }
    return "";
}

}  // namespace

OrphanInstance::OrphanInstance(SessionView& session, const IngestConfigProvider& config, std::string configGuid,
                               LineCallbacks callbacks)
    : session_(session), config_(config), configGuid_(std::move(configGuid)), callbacks_(std::move(callbacks)) {
    VELMORA_LOG(info, "orphaninstance") << "Initializing OrphanInstance";
}

OrphanInstance::~OrphanInstance() {
    exceptionSafeWrapper([this] {
        beginStop();
        timer_.stop();
        stop();
        giveUpFolder();
    });
}

void OrphanInstance::beginStop() noexcept {
    stopping_ = true;
    exceptionSafeWrapper([this] { changeState({}); });
}

void OrphanInstance::changeState(LineStates states) {
    schedule(Task([this, states] { doChangeState(states); }));
}

void OrphanInstance::doChangeState(LineStates states) {
    states_ = stopping_ ? LineStates() : states;
    applyStates();
    const bool on = std::max(states_.auth, states_.anon) == PipelineState::On;
    if (std::exchange(stopped_, !on) == !on) return;
    if (on) {
        timer_.start();
        startNewInstance();
    } else {
        timer_.stop();
        giveUpFolder();
    }
}

void OrphanInstance::applyStates() {
    // The lines of the signed-in user come last.
    for (const PipelineKind kind : {PipelineKind::meta, PipelineKind::anon_invalid, PipelineKind::anon,
                                    PipelineKind::auth_invalid, PipelineKind::auth}) {
        if (const auto& pipeline = line(kind).pipeline)
            pipeline->changeState(isAuthenticated(kind) ? states_.auth : states_.anon);
    }
}

void OrphanInstance::startNewInstance() {
    if (stopped_ || folder_) return;
    if (!config_.read([](const auto& config) { return config.orphanInstanceEnabled; })) {
        VELMORA_LOG(info, "orphaninstance") << "Orphan instance is disabled";
        return;
    }
    VELMORA_LOG(info, "orphaninstance") << "Starting new orphan instance";
    folder_ = acquireInstanceFolder(configGuid_, false);
    if (!folder_) {
        timer_.schedule(kScanInterval, Task([this] { schedule(Task([this] { startNewInstance(); })); }));
        return;
    }
    openLines();
    applyStates();
    checkIfPipelinesAreEmpty();
}

void OrphanInstance::openLines() {
    // All flags before the first line: one that can't be opened does not look finished, and keeps the folder.
    for (const PipelineKind kind : kEveryPipelineKind) line(kind).empty = !(*folder_ / storeFolderName(kind)).exists();
    for (const PipelineKind kind : kEveryPipelineKind) {
        if (!line(kind).empty) exceptionSafeWrapper([&] { openLine(kind); });
    }
}

void OrphanInstance::openLine(PipelineKind kind) {
    auto pipeline = std::make_unique<Pipeline>(session_, config_, *folder_ / storeFolderName(kind), callbacks_.onDrop,
                                               "orphan", kind, true);
    pipeline->setDebugCallback(callbacks_.onDebug);
    if (!isInvalidLine(kind)) pipeline->setBatchAttributes(callbacks_.batchAttributes);
    if (kind != PipelineKind::meta) {
        pipeline->setBatchErrorCallback(isAuthenticated(kind) ? callbacks_.onAuthError : callbacks_.onAnonError);
    }
    pipeline->setEmptyCallback([this, kind] {
        VELMORA_LOG_AT(info, "orphaninstance", "velmora::OrphanInstance::startNewInstance") << emptyText(kind);
        schedule(Task([this, kind] { onLineEmpty(kind); }));
    });
    line(kind).pipeline = std::move(pipeline);
}

void OrphanInstance::onLineEmpty(PipelineKind kind) {
    // The report may be a late one of a line of the folder before.
    const auto& pipeline = line(kind).pipeline;
    if (!pipeline || pipeline->size() != 0) return;
    line(kind).empty = true;
    checkIfPipelinesAreEmpty();
}

void OrphanInstance::checkIfPipelinesAreEmpty() {
    if (!folder_) return;
    for (Line& each : lines_) {
        if (each.empty) each.pipeline.reset();
    }
    if (std::all_of(lines_.begin(), lines_.end(), [](const Line& each) { return each.empty; })) deleteFolder();
}

void OrphanInstance::deleteFolder() {
    VELMORA_LOG(info, "orphaninstance") << "Delete: path=" << folder_->string();
    // A folder that is held may keep its name until it is let go of: whether it is still there tells nothing.
    const bool deleted = Filesystem::remove(*folder_) || Filesystem::removeAll(*folder_);
    folder_.reset();
    if (deleted) schedule(Task([this] { startNewInstance(); }));
}

void OrphanInstance::giveUpFolder() {
    for (Line& each : lines_) {
        if (each.pipeline) each.pipeline->beginStop();
    }
    for (Line& each : lines_) each.pipeline.reset();
    folder_.reset();
}

}  // namespace velmora
