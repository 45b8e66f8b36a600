#include "ingest/event/conversion/eventtransformer.h"

#include <fstream>
#include <system_error>

#include "core/filesystem/filesystem.h"
#include "core/json/jsontext.h"
#include "core/types/errors.h"
#include "core/types/logger.h"
#include "ingest/event/conversion/batchwriter.h"
#include "ingest/event/conversion/mappingprovider.h"
#include "ingest/event/conversion/rewriterule.h"
#include "service/ingest/csvparser.h"

namespace velmora {
namespace {

constexpr char kChannel[] = "event.transformer";
constexpr char kFileName[] = "iaas.csv";

VelmoraError codeOf(const csv::Error& error) {
    switch (error.number()) {
        case csv::Error::kNotOpened:
            return VelmoraError::iaas_file_not_found_or_not_readable;
        case csv::Error::kNoData:
            return VelmoraError::iaas_file_empty;
        case csv::Error::kCorrupted:
            return VelmoraError::iaas_file_invalid_format;
        default:
            return VelmoraError::unknown;
    }
}

template <typename Callable>
auto withCodes(Callable&& callable) {
    try {
        return callable();
    } catch (const csv::Error& error) {
        throw std::system_error(codeOf(error), error.what());
    }
}

csv::Parser parseInCsv(const Path& inCsv) {
    VELMORA_LOG(info, kChannel) << "Parse input csv: " << inCsv.string();
    try {
        if (inCsv.exists()) return csv::Parser(inCsv, ',');
    } catch (const csv::Error& error) {
        if (error.number() != csv::Error::kNotOpened) throw;
    }
    VELMORA_LOG(error, kChannel) << "file not found; inCsvPath: " << inCsv.string();
    throw std::system_error(VelmoraError::invalid_argument);
}

}  // namespace

EventTransformer::EventTransformer(std::string configGuid)
    : provider_(withCodes([&] { return std::make_unique<MappingProvider>(std::move(configGuid), onFetchMapping); })) {}

EventTransformer::~EventTransformer() = default;

void EventTransformer::transform(std::string& json, bool& matched) {
    matched = false;
    JsonDocument document;
    if (!parseObject(document, json)) {
        json = "{}";
        throw std::system_error(VelmoraError::invalid_json);
    }
    matched = currentTable()->applyAll(document);
    json = matched ? serialize(document) : "{}";
}

void EventTransformer::transformBatch(const Path& inCsv, const Path& outCsv) {
    withCodes([&] {
        const csv::Parser events = parseInCsv(inCsv);
        std::ofstream out;
        if (!Filesystem::open(out, outCsv, std::ios::out | std::ios::binary | std::ios::trunc)) {
            VELMORA_LOG(error, kChannel) << "file not opened; outCsvPath: " << outCsv.string();
            throw std::system_error(VelmoraError::invalid_argument);
        }
        const auto table = currentTable();
        TransformBatchWriter writer(out, *table, events.header());
        for (const csv::Row& row : events.rows()) writer.write(row);
        out.flush();
        if (!out.good()) throw std::runtime_error("file not written; outCsvPath: " + outCsv.string());
    });
}

void EventTransformer::setMapping(service::ingest::Mapping mapping) { provider_->updateMapping(std::move(mapping)); }

bool EventTransformer::substitute(const std::string& value, const std::string& command, std::string& result) {
    const auto substitution = Substitution::parse(command);
    if (substitution) result = substitution->apply(value);
    return substitution.has_value();
}

service::ingest::Mapping EventTransformer::onFetchMapping(const std::string& configGuid) {
    VELMORA_LOG(debug, kChannel) << "Fetch mapping for configGuid=" << configGuid;
    service::ingest::Mapping mapping;
    service::ingest::loadFrom(mappingPath(configGuid), mapping);
    return mapping;
}

Path EventTransformer::mappingPath(const std::string& configGuid) {
    return Filesystem::getDataFolder(false) / configGuid / kFileName;
}

service::ingest::Mapping EventTransformer::parseMapping(const std::string& csv, const std::string& nameForMessages) {
    return withCodes([&] {
        service::ingest::Mapping mapping;
        service::ingest::loadFromText(csv, nameForMessages, mapping);
        return mapping;
    });
}

std::shared_ptr<const RuleTable> EventTransformer::currentTable() {
    const uint64_t revision = provider_->revision();
    {
        const MutexLock lock(mutex_);
        if (table_ && tableRevision_ >= revision) return table_;
    }
    // Others go on with the table that they have meanwhile; of several that are made at once the newest stays.
    auto table = std::make_shared<const RuleTable>(provider_->getMapping());
    const MutexLock lock(mutex_);
    if (!table_ || tableRevision_ < revision) {
        table_ = std::move(table);
        tableRevision_ = revision;
    }
    return table_;
}

}  // namespace velmora
