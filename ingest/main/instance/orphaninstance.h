// Sends what dead processes have left behind: looks for an instance folder of the same configuration that nobody holds,
// takes its hold, drains its lines, deletes it, and looks for the next. There is no age test and no record of owners.
#pragma once

#include <array>
#include <atomic>
#include <memory>
#include <string>

#include "core/filesystem/lockedpath.h"
#include "core/utils/taskengine.h"
#include "ingest/main/delivery/pipeline.h"

namespace velmora {

// Threads: changeState from any; everything else happens on its own engine. A scan that is due may find the state
// changed since: what it decides by is the state at its turn.
class OrphanInstance : private SerialTaskEngine {
public:
    OrphanInstance(SessionView& session, const IngestConfigProvider& config, std::string configGuid,
                   LineCallbacks callbacks);

    // Gives up the folder that it holds; what is not sent stays there.
    ~OrphanInstance() override;

    // Ends searching and draining for good, and asks the host for the end of what is under way. Returns at once.
    void beginStop() noexcept;

    // Searching and draining take place only while at least one of the two is On.
    void changeState(LineStates states);

private:
    // One line of the folder; finished when it is absent or has been found empty.
    struct Line {
        bool empty = true;
        std::unique_ptr<Pipeline> pipeline;
    };

    void doChangeState(LineStates states);
    void applyStates();
    void startNewInstance();
    void openLines();
    void openLine(PipelineKind kind);
    void onLineEmpty(PipelineKind kind);
    void checkIfPipelinesAreEmpty();
    void deleteFolder();
    void giveUpFolder();
    Line& line(PipelineKind kind) { return lines_[static_cast<size_t>(kind)]; }

    SessionView& session_;
    const IngestConfigProvider& config_;
    const std::string configGuid_;
    const LineCallbacks callbacks_;
    LineStates states_;
    std::atomic<bool> stopping_ = false;  // set once, by beginStop
    bool stopped_ = true;                 // neither of the two states is On
    std::unique_ptr<LockedPath> folder_;
    std::array<Line, kPipelineKinds> lines_;  // by kind; destroyed before the folder's hold
    TaskEngine timer_;
};

}  // namespace velmora
