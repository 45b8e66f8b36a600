#include "ingest/event/conversion/conversions.h"

#include <boost/filesystem/operations.hpp>
#include <fstream>
#include <utility>

#include "core/filesystem/filesystem.h"
#include "core/types/errors.h"
#include "core/utils/strings.h"

namespace velmora {
namespace {

// Beside the file and then in its place, so that a reader, or a crash, finds the old text or the new one whole.
void replaceFile(const Path& path, const std::string& text) {
    Filesystem::createDirectories(path.parent());
    Path fresh = path;
    fresh += ".";
    fresh += makeGuid();
    std::ofstream stream;
    const bool written = Filesystem::open(stream, fresh, std::ios::binary | std::ios::trunc) && (stream << text) &&
                         (stream.close(), !stream.fail());
    boost::system::error_code failed;
    if (written) boost::filesystem::rename(fresh.native(), path.native(), failed);
    if (written && !failed) return;
    Filesystem::remove(fresh);
    throw std::system_error(VelmoraError::iaas_file_not_found_or_not_readable);
}

}  // namespace

void Conversions::setMapping(const std::string& configGuid, const std::string& csv) {
    const Path path = EventTransformer::mappingPath(configGuid);
    service::ingest::Mapping mapping = EventTransformer::parseMapping(csv, path.string());
    const MutexLock lock(mutex_);
    replaceFile(path, csv);
    if (const auto found = transformers_.find(configGuid); found != transformers_.end()) {
        found->second->setMapping(std::move(mapping));
    }
}

std::string Conversions::convert(const std::string& configGuid, std::string json, bool& matched) {
    transformer(configGuid)->transform(json, matched);
    return json;
}

void Conversions::convertFile(const std::string& configGuid, const std::string& inCsv, const std::string& outCsv) {
    transformer(configGuid)->transformBatch(Path(inCsv), Path(outCsv));
}

std::shared_ptr<EventTransformer> Conversions::transformer(const std::string& configGuid) {
    const MutexLock lock(mutex_);
    std::shared_ptr<EventTransformer>& found = transformers_[configGuid];
    if (!found) {
        try {
            found = std::make_shared<EventTransformer>(configGuid);
        } catch (...) {
            transformers_.erase(configGuid);  // the next call tries again
            throw;
        }
    }
    return found;
}

}  // namespace velmora
