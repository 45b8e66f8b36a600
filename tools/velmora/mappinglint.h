// Finds what is wrong with a mapping table before a host ships it.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace velmora::tool {

struct LintFinding {
    size_t line = 0;    // of the file, from 1
    size_t column = 0;  // of the table, from 1; 0 for a finding about the whole row
    std::string name;   // of the column
    std::string text;
};

// Sorted by line and column. Reported are expressions, commands and formats that are wrong, options that the library
// does not know, columns without effect, values that are taken out of an event and go nowhere, and rules that can't
// match because an earlier one has always taken their keys. Throws csv::Error for a text that is no table.
[[nodiscard]] std::vector<LintFinding> lintMapping(const std::string& csv, const std::string& name);

}  // namespace velmora::tool
