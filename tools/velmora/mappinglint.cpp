#include "tools/velmora/mappinglint.h"

#include <algorithm>
#include <map>
#include <optional>
#include <set>

#include "core/utils/strings.h"
#include "ingest/event/conversion/formattemplate.h"
#include "ingest/event/conversion/rewriterule.h"
#include "service/ingest/csvparser.h"
#include "service/ingest/mapping.h"

namespace velmora::tool {
namespace {

using service::ingest::Column;
using service::ingest::ColumnKind;
using service::ingest::Mapping;
using service::ingest::Rule;

std::string optionOf(const Rule& rule, const std::string& name) {
    const std::string* const value = findOption(rule, name);
    return value ? *value : std::string();
}

bool isFilter(const Rule& rule) { return findOption(rule, "non-standard-keys") != nullptr; }
bool isRewrite(const Rule& rule) { return !isFilter(rule) && optionOf(rule, "search-replace-substrings") == "true"; }
bool isPattern(const Rule& rule) { return !isFilter(rule) && !isRewrite(rule); }
bool ignoresCase(const Rule& rule) { return optionOf(rule, "case-sensitive-values") == "false"; }

bool names(const std::vector<std::pair<std::string, std::string>>& pairs, const std::string& key) {
    return std::any_of(pairs.begin(), pairs.end(), [&](const auto& pair) { return pair.first == key; });
}

std::string joined(const std::vector<std::string>& texts) {
    std::string list;
    for (const std::string& text : texts) list += (list.empty() ? "\"" : ", \"") + text + "\"";
    return list;
}

std::string withoutEffect(const std::string& option, const std::string& value, const std::vector<std::string>& known) {
    return "option \"" + option + "\" has no effect with \"" + value + "\"; known are " + joined(known);
}

std::optional<CapturePattern> compile(const Rule& rule, const std::string& text) {
    try {
        return CapturePattern(text, ignoresCase(rule));
    } catch (const std::exception&) {
        return std::nullopt;
    }
}

class Linter {
public:
    Linter(const std::string& csv, const std::string& name) : parser_(csv::Parser::fromText(csv, name, ',')) {
        service::ingest::loadFromText(csv, name, mapping_);
        for (const std::string& header : parser_.header()) {
            columns_.push_back(service::ingest::classifyColumn(header));
        }
    }

    std::vector<LintFinding> run() {
        checkHeader();
        for (size_t row = 0; row < parser_.rows().size(); ++row) checkRow(parser_.rows()[row], mapping_.rules[row]);
        checkLostValues();
        for (size_t rule = 1; rule < mapping_.rules.size(); ++rule) checkReach(rule);
        std::stable_sort(findings_.begin(), findings_.end(), [](const auto& a, const auto& b) {
            return std::pair(a.line, a.column) < std::pair(b.line, b.column);
        });
        return std::move(findings_);
    }

private:
    // `column` counts from 0 here.
    void report(size_t line, size_t column, std::string text) {
        findings_.push_back({line, column + 1, parser_.header()[column], std::move(text)});
    }

    void checkHeader() {
        std::set<std::string> seen;
        for (size_t i = 0; i < columns_.size(); ++i) {
            const std::string& header = parser_.header()[i];
            if (columns_[i].kind == ColumnKind::ignored) {
                report(parser_.headerLine(), i, "neither CONFIG nor IN_... nor OUT_...: the column is ignored");
            } else if (!seen.insert(header).second) {
                report(parser_.headerLine(), i, "the column is there already");
            } else if (columns_[i].kind == ColumnKind::output && isEmptyColumn(i)) {
                report(parser_.headerLine(), i, "no rule writes this key");
            }
        }
    }

    [[nodiscard]] bool isEmptyColumn(size_t column) const {
        const auto& rows = parser_.rows();
        return std::all_of(rows.begin(), rows.end(), [&](const csv::Row& row) { return row[column].second.empty(); });
    }

    void checkRow(const csv::Row& row, const Rule& rule) {
        size_t groups = 0;
        bool isCounted = isPattern(rule);  // false if an expression is wrong, so that its groups are unknown
        for (size_t i = 0; i < row.size(); ++i) {
            const std::string cell = row[i].second;
            if (cell.empty()) continue;
            if (columns_[i].kind == ColumnKind::options) checkOptions(row.line(), i, cell);
            if (columns_[i].kind != ColumnKind::input || isFilter(rule)) continue;
            const auto mark = isRewrite(rule) ? checkCommand(row.line(), i, cell)
                                              : checkExpression(row.line(), i, cell, ignoresCase(rule));
            isCounted = isCounted && mark.has_value();
            groups += mark.value_or(0);
        }
        for (size_t i = 0; i < row.size(); ++i) {
            if (columns_[i].kind != ColumnKind::output || row[i].second.empty()) continue;
            checkFormat(row.line(), i, row[i].second, rule, isCounted ? groups : FormatTemplate::kNoSuchNumber);
        }
    }

    // The number of groups, or nothing if the expression is wrong.
    std::optional<size_t> checkExpression(size_t line, size_t column, const std::string& text, bool ignoreCase) {
        try {
            return CapturePattern(text, ignoreCase).expression.mark_count();
        } catch (const std::exception& error) {
            report(line, column, std::string("bad expression: ") + error.what());
            return std::nullopt;
        }
    }

    std::optional<size_t> checkCommand(size_t line, size_t column, const std::string& text) {
        try {
            if (!Substitution::parse(text)) {
                report(line, column, "no substitution of the form s/expression/replacement/flags");
                return std::nullopt;
            }
            const auto parts = tokenize(text, '/', '\\');
            if (parts.size() == 4 && parts[3].find_first_not_of("gi") != std::string::npos) {
                report(line, column, "unknown flag in \"" + parts[3] + "\"; known are g and i");
            }
            return 0;
        } catch (const std::exception& error) {
            report(line, column, std::string("bad expression: ") + error.what());
            return std::nullopt;
        }
    }

    void checkFormat(size_t line, size_t column, const std::string& text, const Rule& rule, size_t groups) {
        if (isRewrite(rule)) report(line, column, "a rewriting rule has no outputs: the cell is ignored");
        if (!isPattern(rule)) return;
        const FormatTemplate format(text);
        const size_t opened = text.find("$+{");
        if (opened != std::string::npos && text.find('}', opened) == std::string::npos) {
            report(line, column, "$+{ without a closing brace");
        }
        if (format.highestNumber() == FormatTemplate::kNoSuchNumber) {
            report(line, column, "no group has this number: the key is never written");
        } else if (format.highestNumber() > groups) {
            report(line, column,
                   "$" + std::to_string(format.highestNumber()) + " is beyond the " + std::to_string(groups) +
                       " groups of this row: it depends on the event's keys");
        }
    }

    void checkOptions(size_t line, size_t column, const std::string& cell) {
        static const std::map<std::string, std::vector<std::string>> kKnown = {
            {"non-standard-keys", {"include", "exclude"}},
            {"search-replace-substrings", {"true", "false"}},
            {"case-sensitive-values", {"true", "false"}},
            {"missing-key-action", {"skip"}},
            {"missing-key-value", {}},
        };
        std::set<std::string> seen;
        for (const std::string& piece : tokenize(cell, ';', '\\')) {
            const size_t equals = piece.find('=');
            const std::string key = piece.substr(0, equals);
            if (piece.empty()) continue;
            if (equals == std::string::npos || equals == 0) {
                report(line, column, "\"" + piece + "\" is no option=value: it is ignored");
                continue;
            }
            if (!seen.insert(key).second) report(line, column, "option \"" + key + "\" is given twice");
            const auto known = kKnown.find(key);
            const std::string value = piece.substr(equals + 1);
            if (known == kKnown.end()) {
                report(line, column, "unknown option \"" + key + "\"");
            } else if (!known->second.empty() && std::count(known->second.begin(), known->second.end(), value) == 0) {
                report(line, column, withoutEffect(key, value, known->second));
            }
        }
    }

    // Values that a rule takes out of an event although no output names their key or anything that they captured.
    void checkLostValues() {
        for (size_t i = 0; i < columns_.size(); ++i) {
            if (columns_[i].kind != ColumnKind::input || names(columns_[i].key)) continue;
            for (size_t row = 0; row < mapping_.rules.size(); ++row) {
                const Rule& rule = mapping_.rules[row];
                if (!isPattern(rule) || parser_.rows()[row][i].second.empty() || usesGroups(rule, i, row)) continue;
                report(parser_.rows()[row].line(), i, "no output names this key: its value is lost");
            }
        }
    }

    // Whether the key is an output of the table, or a format asks for it by name.
    [[nodiscard]] bool names(const std::string& key) const {
        for (const Rule& rule : mapping_.rules) {
            for (const auto& [out, text] : rule.out) {
                if (out == key || text.find("$+{" + key + "}") != std::string::npos) return true;
            }
        }
        return false;
    }

    // Whether a format of the row asks for a group of the expression in that column, or can't be told.
    [[nodiscard]] bool usesGroups(const Rule& rule, size_t column, size_t row) const {
        size_t first = 1;
        std::optional<CapturePattern> pattern;
        for (size_t i = 0; i <= column; ++i) {
            const std::string cell = parser_.rows()[row][i].second;
            if (columns_[i].kind != ColumnKind::input || cell.empty()) continue;
            if (pattern) first += pattern->expression.mark_count();
            pattern = compile(rule, cell);
            if (!pattern) return true;
        }
        // An expression without wildcards says itself what the value is, so nothing is lost with it.
        const bool isFixed = parser_.rows()[row][column].second.find_first_of("\\.[]()*+?{}|^$") == std::string::npos;
        return isFixed || std::any_of(rule.out.begin(), rule.out.end(), [&](const auto& out) {
                   return asksFor(FormatTemplate(out.second), *pattern, first);
               });
    }

    [[nodiscard]] static bool asksFor(const FormatTemplate& format, const CapturePattern& pattern, size_t first) {
        if (!format.isPlain()) return true;
        const auto& references = format.references();
        return std::any_of(references.begin(), references.end(), [&](const FormatTemplate::Reference& reference) {
            const bool byName =
                std::count(pattern.names.begin(), pattern.names.end(), reference.name) != 0 && reference.number == 0;
            return byName || (reference.number >= first && reference.number < first + pattern.expression.mark_count());
        });
    }

    void checkReach(size_t later) {
        for (size_t earlier = 0; earlier < later; ++earlier) {
            if (!shadows(earlier, later)) continue;
            findings_.push_back({mapping_.rules[later].line, 0, "",
                                 "the rule can never match: the one in line " +
                                     std::to_string(mapping_.rules[earlier].line) + " has always taken its keys"});
            return;
        }
    }

    // Whenever the later rule could match, the earlier one has matched before and taken a key that the later one needs.
    // Only told for expressions that are literally the same and keys that nothing in between touches.
    [[nodiscard]] bool shadows(size_t earlier, size_t later) const {
        const Rule& first = mapping_.rules[earlier];
        const Rule& second = mapping_.rules[later];
        if (!isPattern(first) || !isPattern(second) || first.options != second.options || first.in.empty())
            return false;
        bool takesNeeded = false;
        for (const auto& pair : first.in) {
            if (std::count(second.in.begin(), second.in.end(), pair) == 0) return false;
            for (size_t between = earlier + 1; between < later; ++between) {
                if (touches(mapping_.rules[between], pair.first)) return false;
            }
            takesNeeded = takesNeeded || (!tool::names(first.out, pair.first) && needs(second, pair.second));
        }
        return takesNeeded;
    }

    [[nodiscard]] static bool touches(const Rule& rule, const std::string& key) {
        return isFilter(rule) || tool::names(rule.in, key) || tool::names(rule.out, key);
    }

    // Whether the rule fails if the key of this expression is missing.
    [[nodiscard]] static bool needs(const Rule& rule, const std::string& expression) {
        const std::string* const instead = findOption(rule, "missing-key-value");
        if (!instead && optionOf(rule, "missing-key-action") == "skip") return true;
        const auto pattern = compile(rule, expression);
        if (!pattern) return false;
        try {
            return !boost::regex_match(instead ? *instead : std::string(), pattern->expression);
        } catch (const std::exception&) {
            return false;
        }
    }

    csv::Parser parser_;
    Mapping mapping_;
    std::vector<Column> columns_;
    std::vector<LintFinding> findings_;
};

}  // namespace

std::vector<LintFinding> lintMapping(const std::string& csv, const std::string& name) {
    return Linter(csv, name).run();
}

}  // namespace velmora::tool
