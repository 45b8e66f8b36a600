// The checking sheet of a mapping table: what each rule made of each row of a file of events.
#pragma once

#include <iosfwd>
#include <string>
#include <vector>

#include "ingest/event/conversion/ruletable.h"
#include "service/ingest/csvparser.h"

namespace velmora {

// Columns: those of the input; "CONFIG", the "IN_" and the "OUT_" columns of the rule that matched; the values of the
// output keys behind that rule; what is left of the input; an empty column before the second and the third group. A row
// that several rules match appears once for each, one that no rule matches once with its input alone. A cell that holds
// a comma is quoted.
class TransformBatchWriter {
public:
    // Writes the header. Stream and table must outlive the writer.
    TransformBatchWriter(std::ostream& out, const RuleTable& table, const std::vector<std::string>& columns);

    // Makes an event of the row, applies all rules to it and writes what they did. Throws what a rule throws.
    void write(const csv::Row& row);

private:
    using Cells = std::vector<std::string>;

    void writeMatch(const Cells& input, const service::ingest::Rule& rule, const JsonDocument& document);
    void writeCells(const Cells& cells);

    std::ostream& out_;
    const RuleTable& table_;
    const Cells columns_;
    size_t width_ = 0;
};

// The event that a row stands for: a string member per column.
void eventOfRow(const csv::Row& row, JsonDocument& event);

}  // namespace velmora
