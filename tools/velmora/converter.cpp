#include "tools/velmora/converter.h"

#include <ostream>
#include <sstream>

#include "core/json/jsontext.h"
#include "ingest/event/conversion/batchwriter.h"
#include "service/ingest/csvparser.h"

namespace velmora::tool {
namespace {

class Conversion {
public:
    Conversion(const RuleTable& table, bool explain, std::ostream& out, std::ostream& notes)
        : table_(table), explain_(explain), out_(out), notes_(notes) {}

    void convertText(const std::string& text, size_t line) {
        JsonDocument event;
        const rapidjson::ParseResult result = parseValue(event, text);
        if (!result.IsError() && event.IsObject()) return convert(event, line);
        ++report_.failed;
        notes_ << "line " << line << ": no JSON object";
        if (result.IsError()) notes_ << ", at byte " << result.Offset() << " of the line";
        notes_ << '\n';
    }

    void convert(JsonDocument& event, size_t line) {
        if (explain_) notes_ << "line " << line << ":\n";
        size_t rule = 0;
        try {
            bool matched = false;
            for (; rule < table_.size(); ++rule) matched = apply(rule, event) || matched;
            finish(event, matched, line);
        } catch (const std::exception& error) {
            ++report_.failed;
            notes_ << "line " << line << ": failed in the rule of line " << table_.mapping().rules[rule].line << ": "
                   << error.what() << '\n';
        }
    }

    [[nodiscard]] const ConvertReport& report() const { return report_; }

private:
    bool apply(size_t rule, JsonDocument& event) {
        const bool matched = table_.apply(rule, event, run_);
        if (!explain_) return matched;
        notes_ << "  rule of line " << table_.mapping().rules[rule].line << ": ";
        if (matched) {
            notes_ << "matched\n";
        } else if (run_.failure == RuleRun::Failure::none) {
            notes_ << "found nothing to do\n";
        } else {
            const bool isMissing = run_.failure == RuleRun::Failure::missing;
            notes_ << "failed on key \"" << run_.failedKey << "\", "
                   << (isMissing ? "which is missing" : "whose value does not match") << '\n';
        }
        return matched;
    }

    void finish(const JsonDocument& event, bool matched, size_t line) {
        if (matched) {
            ++report_.converted;
            out_ << serialize(event) << '\n';
        } else {
            ++report_.unmatched;
            notes_ << "line " << line << ": no rule matched\n";
        }
    }

    const RuleTable& table_;
    const bool explain_;
    std::ostream& out_;
    std::ostream& notes_;
    RuleRun run_;
    ConvertReport report_;
};

void convertJson(const std::string& input, Conversion& conversion) {
    JsonDocument event;
    if (!parseValue(event, input).IsError() && event.IsObject()) return conversion.convert(event, 1);
    std::istringstream lines(input);
    std::string line;
    for (size_t number = 1; std::getline(lines, line); ++number) {
        if (line.find_first_not_of(" \t\r") != std::string::npos) conversion.convertText(line, number);
    }
}

void convertCsv(const std::string& input, Conversion& conversion) {
    const csv::Parser events = csv::Parser::fromText(input, "the input", ',');
    for (const csv::Row& row : events.rows()) {
        JsonDocument event;
        eventOfRow(row, event);
        conversion.convert(event, row.line());
    }
}

}  // namespace

ConvertReport convertEvents(const RuleTable& table, const std::string& input, EventFormat format, bool explain,
                            std::ostream& out, std::ostream& notes) {
    Conversion conversion(table, explain, out, notes);
    if (format == EventFormat::csv) {
        convertCsv(input, conversion);
    } else {
        convertJson(input, conversion);
    }
    return conversion.report();
}

}  // namespace velmora::tool
