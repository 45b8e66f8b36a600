// Turns events of the legacy format into events of the standard data model, by the rules of a mapping table that the
// host supplies per configuration guid. It knows no event itself.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "core/filesystem/path.h"
#include "core/types/mutex.h"
#include "ingest/event/conversion/ruletable.h"

namespace velmora {

class MappingProvider;

// Any thread. Expressions are compiled at the first use of a mapping; an update does not disturb a conversion that is
// under way. Failures of the mapping file are std::system_error with the codes iaas_file_not_found_or_not_readable,
// iaas_file_empty, iaas_file_invalid_format, or unknown.
class EventTransformer {
public:
    // Reads the table of the guid from its file.
    explicit EventTransformer(std::string configGuid);
    ~EventTransformer();

    // `json` becomes the converted event if a rule matched, else "{}". A text that is no JSON object becomes "{}" too,
    // and invalid_json is thrown. A rule with a bad expression, or one that explodes on this event, throws what the
    // regular expression library throws; `json` then stays as it is.
    void transform(std::string& json, bool& matched);

    // Converts a CSV file of events, a column per key, into a sheet that shows what each rule did to each of them.
    // Throws invalid_argument if one of the files can't be opened.
    void transformBatch(const Path& inCsv, const Path& outCsv);

    // Takes a table in place of the present one.
    void setMapping(service::ingest::Mapping mapping);

    // One substitution by a command s/expression/replacement/flags; false for a command of another form. Throws
    // boost::regex_error for a bad expression.
    [[nodiscard]] static bool substitute(const std::string& value, const std::string& command, std::string& result);

    [[nodiscard]] static service::ingest::Mapping onFetchMapping(const std::string& configGuid);

    // Where the table of a guid is kept: iaas.csv in the guid's folder below the data folder.
    [[nodiscard]] static Path mappingPath(const std::string& configGuid);

    // A table from a text, with the failures of this class: to check one before it replaces another.
    [[nodiscard]] static service::ingest::Mapping parseMapping(const std::string& csv,
                                                               const std::string& nameForMessages);

private:
    [[nodiscard]] std::shared_ptr<const RuleTable> currentTable();

    const std::unique_ptr<MappingProvider> provider_;
    Mutex mutex_;  // outside the provider's own
    std::shared_ptr<const RuleTable> table_ VELMORA_GUARDED_BY(mutex_);
    uint64_t tableRevision_ VELMORA_GUARDED_BY(mutex_) = 0;
};

}  // namespace velmora
