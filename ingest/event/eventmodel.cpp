#include "ingest/event/eventmodel.h"

namespace velmora {

std::string pipelineKindToString(PipelineKind kind) {
    switch (kind) {
        case PipelineKind::meta:
            return "meta";
        case PipelineKind::auth_invalid:
            return "auth_invalid";
        case PipelineKind::auth:
            return "auth";
        case PipelineKind::anon_invalid:
            return "anon_invalid";
        case PipelineKind::anon:
            return "anon";
    }
    return "unknown";
}

std::string itemToString(debug::Item item) {
    switch (item) {
        case debug::Item::event:
            return "event";
        case debug::Item::http:
            return "http";
    }
    return "unknown";
}

std::string actionToString(debug::Action action) {
    switch (action) {
        case debug::Action::saved:
            return "saved";
        case debug::Action::rejected:
            return "rejected";
        case debug::Action::discarded:
            return "discarded";
        case debug::Action::sent:
            return "sent";
        case debug::Action::request:
            return "request";
    }
    return "unknown";
}

std::string reasonToString(debug::Reason reason) {
    switch (reason) {
        case debug::Reason::success:
            return "success";
        case debug::Reason::error:
            return "error";
        case debug::Reason::validation:
            return "validation";
        case debug::Reason::opt_out:
            return "opt-out";
        case debug::Reason::decryption:
            return "decryption";
        case debug::Reason::filesize:
            return "filesize";
        case debug::Reason::payloadsize:
            return "payloadsize";
    }
    return "unknown";
}

std::string storeFolderName(PipelineKind kind) { return pipelineKindToString(kind) + "_events"; }

}  // namespace velmora
