#include <CLI/CLI.hpp>
#include <boost/filesystem/operations.hpp>
#include <chrono>
#include <fstream>
#include <iostream>
#include <memory>
#include <stdexcept>
#include <thread>

#include "core/filesystem/path.h"
#include "tools/velmora/collector.h"
#include "tools/velmora/command.h"
#include "tools/velmora/files.h"
#include "tools/velmora/stopsignal.h"

namespace velmora::tool {
namespace {

constexpr auto kSignalPoll = std::chrono::milliseconds(50);

struct CollectArguments {
    CollectorOptions collector;
    std::string portFile;
    std::string script;
};

// A file's content, or the argument itself if it is JSON.
std::string readProfile(const std::string& argument) {
    if (argument.empty() || argument.front() == '{') return argument;
    return readWhole(argument);
}

// Written beside and renamed, so that a reader never sees half a number.
void writePortFile(const std::string& path, int port) {
    const std::string part = path + ".part";
    {
        std::ofstream file;
        openToWrite(file, part);
        file << port << '\n';
        if (!file.flush()) throw std::runtime_error("can't write " + part);
    }
    boost::filesystem::rename(Path(part).native(), Path(path).native());
}

void runCollect(CollectArguments arguments) {
    arguments.collector.profile = readProfile(arguments.collector.profile);
    catchStopSignals();
    Collector collector(arguments.collector);
    if (!arguments.script.empty()) collector.playScript(arguments.script);
    collector.start();
    if (!arguments.portFile.empty()) writePortFile(arguments.portFile, collector.port());
    std::cout << "listening on " << collector.url() << std::endl;
    while (!stopWanted()) std::this_thread::sleep_for(kSignalPoll);
    collector.stop();
}

}  // namespace

void registerCollect(CLI::App& program, int& exitCode) {
    CLI::App* const command = program.add_subcommand("collect", "Run a local ingest, identity and tracking service");
    const auto arguments = std::make_shared<CollectArguments>();
    CollectorOptions& options = arguments->collector;
    options.store = "velmora-events.db";
    command->add_option("--host", options.host, "Address to listen on")->capture_default_str();
    command->add_option("--port", options.port, "Port to listen on; 0 picks a free one")
        ->check(CLI::Range(0, 65535))
        ->capture_default_str();
    command->add_option("--port-file", arguments->portFile, "File that receives the port");
    command->add_option("--store", options.store, "SQLite file for what arrives")->capture_default_str();
    command->add_option("--api-key", options.apiKey, "Accept this x-api-key only");
    command->add_option("--max-body", options.maxBodyBytes, "Bytes of a request body as sent")->capture_default_str();
    command->add_option("--max-batch", options.maxBatchBytes, "Bytes of a batch after decompression")
        ->capture_default_str();
    command->add_option("--profile", options.profile, "Answer of the identity service: JSON, or a file of it");
    command->add_option("--tracking-flag", options.trackingFlag, "Answer of the tracking service")
        ->capture_default_str();
    command->add_option("--identity-status", options.identityStatus, "HTTP status of the identity service")
        ->check(CLI::Range(200, 599))
        ->capture_default_str();
    command->add_option("--script", arguments->script,
                        "Misbehave: JSON of fail, status, retryAfter, delayMs, drop, lateAnswer");
    command->add_flag("--quiet", options.quiet, "No log lines");
    command->callback([arguments, &exitCode] {
        runCollect(*arguments);
        exitCode = kExitOk;
    });
}

}  // namespace velmora::tool
