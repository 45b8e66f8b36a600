#include "service/ingest/mapping.h"

#include "core/types/logger.h"
#include "core/utils/strings.h"
#include "service/ingest/csvparser.h"

namespace velmora::service::ingest {
namespace {

constexpr char kSeparator = ',';

std::map<std::string, std::string> parseOptions(const std::string& cell) {
    std::map<std::string, std::string> options;
    for (const std::string& piece : tokenize(cell, ';', '\\')) {
        const size_t equals = piece.find('=');
        if (equals == std::string::npos || equals == 0) continue;
        options[piece.substr(0, equals)] = piece.substr(equals + 1);
    }
    return options;
}

void addCell(Rule& rule, const Column& column, std::string cell) {
    switch (column.kind) {
        case ColumnKind::ignored:
            return;
        case ColumnKind::options:
            for (auto& [key, value] : parseOptions(cell)) rule.options[key] = std::move(value);
            return;
        case ColumnKind::input:
            rule.in.emplace_back(column.key, std::move(cell));
            return;
        case ColumnKind::output:
            rule.out.emplace_back(column.key, std::move(cell));
            return;
    }
}

Rule makeRule(const csv::Row& row, const std::vector<Column>& columns) {
    Rule rule;
    rule.line = row.line();
    for (size_t i = 0; i < row.size(); ++i) {
        std::string cell = row[i].second;
        if (!cell.empty()) addCell(rule, columns[i], std::move(cell));
    }
    rule.inCount = static_cast<unsigned>(rule.in.size());
    return rule;
}

Mapping makeMapping(const csv::Parser& parser) {
    Mapping mapping;
    std::vector<Column> columns;
    for (const std::string& name : parser.header()) {
        const Column& column = columns.emplace_back(classifyColumn(name));
        if (column.kind == ColumnKind::input) mapping.inKeys.push_back(column.key);
        if (column.kind == ColumnKind::output) mapping.outKeys.push_back(column.key);
    }
    mapping.rules.reserve(parser.rows().size());
    for (const csv::Row& row : parser.rows()) mapping.rules.push_back(makeRule(row, columns));
    return mapping;
}

}  // namespace

Column classifyColumn(const std::string& name) {
    if (name == "CONFIG") return {ColumnKind::options, {}};
    const size_t end = name.find('_');
    if (end == std::string::npos) return {};
    const std::string prefix = name.substr(0, end);
    if (prefix == "IN") return {ColumnKind::input, name.substr(end + 1)};
    if (prefix == "OUT") return {ColumnKind::output, name.substr(end + 1)};
    return {};
}

void loadFrom(const Path& file, Mapping& out) {
    out = {};
    VELMORA_LOG(info, "mapping") << "loading mapping from " << file.string();
    out = makeMapping(csv::Parser(file, kSeparator));
}

void loadFromText(const std::string& csv, const std::string& nameForMessages, Mapping& out) {
    out = {};
    out = makeMapping(csv::Parser::fromText(csv, nameForMessages, kSeparator));
}

}  // namespace velmora::service::ingest
