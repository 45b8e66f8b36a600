#include <CLI/CLI.hpp>
#include <fstream>
#include <iostream>
#include <memory>
#include <stdexcept>

#include "ingest/event/conversion/batchwriter.h"
#include "service/ingest/csvparser.h"
#include "tools/velmora/command.h"
#include "tools/velmora/converter.h"
#include "tools/velmora/files.h"
#include "tools/velmora/mappinglint.h"

namespace velmora::tool {
namespace {

struct ConvertArguments {
    std::string mapping;
    std::string file = "-";
    std::string format = "auto";
    std::string output = "-";
    std::string sheet;
    bool explain = false;
    bool check = false;
};

// Runs the reading of a CSV file; its faults are told with file and line.
template <typename Callable>
auto withPlace(const std::string& file, Callable&& callable) {
    try {
        return callable();
    } catch (const csv::Error& error) {
        const std::string line = error.line() == 0 ? "" : ":" + std::to_string(error.line());
        throw std::runtime_error(file + line + ": " + error.what());
    }
}

int runCheck(const ConvertArguments& arguments, const std::string& csv) {
    const auto findings = withPlace(arguments.mapping, [&] { return lintMapping(csv, arguments.mapping); });
    for (const LintFinding& finding : findings) {
        std::cout << arguments.mapping << ':' << finding.line << ':';
        if (finding.column != 0) std::cout << finding.column << ": " << finding.name << ':';
        std::cout << ' ' << finding.text << '\n';
    }
    return findings.empty() ? kExitOk : kExitIncomplete;
}

void writeSheet(const ConvertArguments& arguments, const RuleTable& table, const std::string& input) {
    std::ofstream sheet;
    openToWrite(sheet, arguments.sheet);
    const csv::Parser events = csv::Parser::fromText(input, arguments.file, ',');
    TransformBatchWriter writer(sheet, table, events.header());
    for (const csv::Row& row : events.rows()) writer.write(row);
    if (!sheet.flush()) throw std::runtime_error("can't write " + arguments.sheet);
}

int runConvert(const ConvertArguments& arguments) {
    const std::string csv = readWhole(arguments.mapping);
    if (arguments.check) return runCheck(arguments, csv);
    service::ingest::Mapping mapping;
    withPlace(arguments.mapping, [&] { service::ingest::loadFromText(csv, arguments.mapping, mapping); });
    const RuleTable table(std::move(mapping));
    const std::string input = readWhole(arguments.file);
    const bool isCsv = arguments.format == "csv" || (arguments.format == "auto" && arguments.file.ends_with(".csv"));
    if (!arguments.sheet.empty() && !isCsv) throw std::runtime_error("--sheet needs events as CSV");
    std::ofstream file;
    if (arguments.output != "-") openToWrite(file, arguments.output);
    std::ostream& out = arguments.output == "-" ? std::cout : file;
    return withPlace(arguments.file, [&] {
        const ConvertReport report = convertEvents(table, input, isCsv ? EventFormat::csv : EventFormat::json,
                                                   arguments.explain, out, std::cerr);
        if (!out.flush()) throw std::runtime_error("can't write " + arguments.output);
        if (!arguments.sheet.empty()) writeSheet(arguments, table, input);
        std::cerr << "converted=" << report.converted << " unmatched=" << report.unmatched
                  << " failed=" << report.failed << std::endl;
        return report.isComplete() ? kExitOk : kExitIncomplete;
    });
}

}  // namespace

void registerConvert(CLI::App& program, int& exitCode) {
    CLI::App* const command = program.add_subcommand("convert", "Convert legacy events with a mapping table");
    const auto arguments = std::make_shared<ConvertArguments>();
    command->add_option("--mapping", arguments->mapping, "The mapping table, a CSV file")->required();
    command->add_option("file", arguments->file, "An event, events as one JSON object a line, or CSV; - for stdin");
    command->add_option("--format", arguments->format, "auto takes a file named *.csv for CSV, else JSON")
        ->check(CLI::IsMember({"auto", "json", "csv"}))
        ->capture_default_str();
    command->add_option("--output", arguments->output, "File for the converted events; - for stdout")
        ->capture_default_str();
    command->add_option("--sheet", arguments->sheet, "Also write a CSV file that shows each rule beside its result");
    command->add_flag("--explain", arguments->explain, "Tell on stderr what each rule did with each event");
    command->add_flag("--check", arguments->check, "Only look for faults in the mapping table");
    command->callback([arguments, &exitCode] { exitCode = runConvert(*arguments); });
}

}  // namespace velmora::tool
