#include "ingest/event/conversion/batchwriter.h"

#include <ostream>

#include "core/json/jsontext.h"

namespace velmora {
namespace {

using Cells = std::vector<std::string>;
using Pairs = std::vector<std::pair<std::string, std::string>>;

void append(Cells& cells, const Cells& more) { cells.insert(cells.end(), more.begin(), more.end()); }

std::string joined(const std::map<std::string, std::string>& options) {
    std::string text;
    for (const auto& [key, value] : options) text.append(text.empty() ? "" : ";").append(key).append("=").append(value);
    return text;
}

// The second of each pair under its key's column; the pairs stand in column order.
void appendUnderColumns(Cells& cells, const Cells& columns, const Pairs& pairs) {
    auto next = pairs.begin();
    for (const std::string& column : columns) {
        const bool isHere = next != pairs.end() && next->first == column;
        cells.push_back(isHere ? (next++)->second : std::string());
    }
}

void appendValues(Cells& cells, const Cells& keys, const JsonDocument& document) {
    for (const std::string& key : keys) {
        const auto member = document.FindMember(key);
        cells.push_back(member == document.MemberEnd() ? std::string() : toText(member->value));
    }
}

std::string quotedIfNeeded(const std::string& cell) {
    if (cell.find(',') == std::string::npos) return cell;
    std::string quoted = "\"";
    for (const char c : cell) quoted.append(c == '"' ? 2 : 1, c);
    return quoted + '"';
}

}  // namespace

TransformBatchWriter::TransformBatchWriter(std::ostream& out, const RuleTable& table, const Cells& columns)
    : out_(out), table_(table), columns_(columns) {
    Cells header = columns_;
    append(header, {"", "CONFIG"});
    for (const std::string& key : table_.mapping().inKeys) header.push_back("IN_" + key);
    for (const std::string& key : table_.mapping().outKeys) header.push_back("OUT_" + key);
    header.emplace_back();
    append(header, table_.mapping().outKeys);
    append(header, columns_);
    width_ = header.size();
    writeCells(header);
}

void TransformBatchWriter::write(const csv::Row& row) {
    Cells input;
    for (size_t i = 0; i < row.size(); ++i) input.push_back(row[i].second);
    JsonDocument event;
    eventOfRow(row, event);
    RuleRun run;
    bool matched = false;
    for (size_t rule = 0; rule < table_.size(); ++rule) {
        if (!table_.apply(rule, event, run)) continue;
        matched = true;
        writeMatch(input, table_.mapping().rules[rule], event);
    }
    if (matched) return;
    input.resize(width_);
    writeCells(input);
}

void TransformBatchWriter::writeMatch(const Cells& input, const service::ingest::Rule& rule,
                                      const JsonDocument& document) {
    Cells cells = input;
    append(cells, {"", joined(rule.options)});
    appendUnderColumns(cells, table_.mapping().inKeys, rule.in);
    appendUnderColumns(cells, table_.mapping().outKeys, rule.out);
    cells.emplace_back();
    appendValues(cells, table_.mapping().outKeys, document);
    appendValues(cells, columns_, document);
    writeCells(cells);
}

void TransformBatchWriter::writeCells(const Cells& cells) {
    for (size_t i = 0; i < cells.size(); ++i) out_ << (i == 0 ? "" : ",") << quotedIfNeeded(cells[i]);
    out_ << '\n';
}

void eventOfRow(const csv::Row& row, JsonDocument& event) {
    event.SetObject();
    for (size_t i = 0; i < row.size(); ++i) {
        const auto [column, cell] = row[i];
        addText(event, column, cell, event.GetAllocator());
    }
}

}  // namespace velmora
