#include <CLI/CLI.hpp>
#include <fstream>
#include <iostream>
#include <map>
#include <memory>
#include <stdexcept>

#include "tools/velmora/command.h"
#include "tools/velmora/configkeys.h"
#include "tools/velmora/files.h"
#include "tools/velmora/sender.h"
#include "tools/velmora/stopsignal.h"
#include "velmora/types.h"

namespace velmora::tool {
namespace {

struct SendArguments {
    SendOptions options;
    std::string file = "-";
    std::vector<std::string> config;
    int64_t timeoutSeconds = 30;
};

std::pair<int32_t, std::string> readConfig(const std::string& argument) {
    const size_t equals = argument.find('=');
    const auto key = configKeyOf(argument.substr(0, equals));
    if (!key || equals == std::string::npos) {
        std::string names;
        for (const std::string& name : configKeyNames()) names += " " + name;
        throw CLI::ValidationError("--config", argument + " is not NAME=VALUE with a name of:" + names);
    }
    return {*key, argument.substr(equals + 1)};
}

void printReport(const SendReport& report) {
    for (const RejectedLine& rejected : report.firstRejected)
        std::cerr << "line " << rejected.line << ": " << resultName(rejected.result) << '\n';
    if (report.rejected > report.firstRejected.size())
        std::cerr << "and " << report.rejected - report.firstRejected.size() << " more rejected lines\n";
    std::cout << "accepted=" << report.accepted << " rejected=" << report.rejected << " found=" << report.foundOnDisk
              << " delivered=" << report.delivered << " left=" << report.leftOnDisk << std::endl;
}

int runSend(SendArguments& arguments) {
    SendOptions& options = arguments.options;
    for (const std::string& argument : arguments.config) options.config.push_back(readConfig(argument));
    options.timeout = std::chrono::seconds(arguments.timeoutSeconds);
    std::ifstream file;
    if (arguments.file != "-") openToRead(file, arguments.file);
    catchStopSignals();
    const SendReport report = sendEvents(options, arguments.file == "-" ? std::cin : file);
    printReport(report);
    return report.isComplete() ? kExitOk : kExitIncomplete;
}

void addEventOptions(CLI::App& command, SendArguments& arguments) {
    SendOptions& options = arguments.options;
    command.add_option("file", arguments.file, "Events as JSON objects, one a line; - for the standard input");
    command.add_option("--lines", options.workflow, "The input is text: send each line in an event of this workflow");
    const auto auth = command.add_flag("--auth", options.auth, "Events of the signed-in user; needs --token");
    command.add_flag("--anon")->description("Anonymous events (default)")->excludes(auth);
    const auto direct = command.add_flag("!--direct", options.batch, "Send each event at once");
    command.add_flag("--batch")->description("Send events in batches (default)")->excludes(direct);
    command.add_option("--validate", options.validate, "-1 as configured, 0 not, 1 always")
        ->check(CLI::Range(-1, 1))
        ->capture_default_str();
    command.add_option("--rate", options.rate, "Events per second; 0 for as fast as possible")
        ->check(CLI::NonNegativeNumber);
    command.add_option("--journal", options.journal, "Append the event.guid of each accepted event to this file");
}

void addDeliveryOptions(CLI::App& command, SendArguments& arguments) {
    SendOptions& options = arguments.options;
    const std::map<std::string, int32_t> environments{{"prod", VELMORA_ENVIRONMENT_PROD},
                                                      {"stage", VELMORA_ENVIRONMENT_STAGE}};
    command.add_option("--endpoint", options.endpoint, "Base URL for all services, as printed by collect");
    command.add_option("--config-guid", options.configGuid, "Name of the configuration")->capture_default_str();
    command.add_option("--project", options.project)->capture_default_str();
    command.add_option("--api-key", options.apiKey)->capture_default_str();
    command.add_option("--environment", options.environment)->transform(CLI::CheckedTransformer(environments));
    command.add_option("--token", options.token, "Access token of the signed-in user");
    command.add_option("--config", arguments.config, "NAME=VALUE, for example batchSize=10; repeatable")
        ->allow_extra_args(false);
    command.add_option("--data-root", options.dataRoot, "Folder for queues and logs instead of the user's");
    command.add_option("--ca-bundle", options.caBundle, "File of trusted certificates");
    command.add_option("--proxy", options.proxy, "URL of a proxy; none if --endpoint is given without it");
    command.add_flag("!--no-flush", options.flush, "Do not wait for the delivery");
    command.add_option("--timeout", arguments.timeoutSeconds, "Seconds to wait for the delivery")
        ->check(CLI::Range(0, 86400))
        ->capture_default_str();
    command.add_flag("--progress", options.progress, "Report progress on the standard error");
}

}  // namespace

void registerSend(CLI::App& program, int& exitCode) {
    CLI::App* const command = program.add_subcommand("send", "Submit events through the library and deliver them");
    const auto arguments = std::make_shared<SendArguments>();
    addEventOptions(*command, *arguments);
    addDeliveryOptions(*command, *arguments);
    command->callback([arguments, &exitCode] { exitCode = runSend(*arguments); });
}

}  // namespace velmora::tool
