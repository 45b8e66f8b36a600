// The table of rules by which legacy events are rewritten. The format of the file is told in docs/conversion.md.
#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "core/filesystem/path.h"

namespace velmora::service::ingest {

// One row of the table. The pairs stand in column order; empty cells are left out.
struct Rule {
    std::map<std::string, std::string> options;
    std::vector<std::pair<std::string, std::string>> in;   // key, and expression or substitution command
    std::vector<std::pair<std::string, std::string>> out;  // key and format
    unsigned inCount = 0;                                  // pairs of `in` as loaded
    size_t line = 0;                                       // where the row stands in the file, from 1; 0 if nowhere
};

struct Mapping {
    std::vector<Rule> rules;
    std::vector<std::string> inKeys;  // of the columns, in file order
    std::vector<std::string> outKeys;
};

// What a column of the table holds, with the key that it names.
enum class ColumnKind { ignored, options, input, output };
struct Column {
    ColumnKind kind = ColumnKind::ignored;
    std::string key;
};
[[nodiscard]] Column classifyColumn(const std::string& name);

// `out` is cleared first. Expressions are not looked at: a wrong one fails when its rule is applied. Both throw
// csv::Error, whereupon `out` is empty.
void loadFrom(const Path& file, Mapping& out);
void loadFromText(const std::string& csv, const std::string& nameForMessages, Mapping& out);

}  // namespace velmora::service::ingest
