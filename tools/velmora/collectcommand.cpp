#include <CLI/CLI.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/signal_set.hpp>
#include <boost/filesystem/operations.hpp>
#include <csignal>
#include <fstream>
#include <iostream>
#include <memory>
#include <stdexcept>

#include "core/filesystem/path.h"
#include "tools/velmora/collector.h"
#include "tools/velmora/command.h"
#include "tools/velmora/files.h"

namespace velmora::tool {
namespace {

struct CollectArguments {
    CollectorOptions collector;
    std::string portFile;
    std::string script;
    std::string configuration;
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

// Options that the command line leaves open, from "name = value" lines.
void readConfiguration(CLI::App& command, const std::string& file) {
    if (file.empty()) return;
    for (const CLI::ConfigItem& item : CLI::ConfigTOML().from_file(file)) {
        CLI::Option* const option = command.get_option_no_throw("--" + item.name);
        if (!option || item.name == "config")
            throw std::runtime_error("--config: " + file + ": collect has no option " + item.name);
        if (option->count() > 0) continue;
        option->add_result(option->get_expected_min() == 0 ? std::vector<std::string>{CLI::ConfigTOML().to_flag(item)}
                                                           : item.inputs);
        option->run_callback();
    }
}

void warnIfOpen(const Collector& collector) {
    if (collector.token().empty()) return;
    std::cerr << "warning: other machines can reach this collector and read what has arrived\n"
              << "token for changes: " << collector.token() << std::endl;
}

void runCollect(CollectArguments arguments) {
    arguments.collector.profile = readProfile(arguments.collector.profile);
    boost::asio::io_context signals;
    boost::asio::signal_set wanted(signals, SIGINT, SIGTERM);
    wanted.async_wait([](boost::system::error_code, int) {});
    Collector collector(arguments.collector);
    if (!arguments.script.empty()) {
        try {
            collector.playScript(arguments.script);
        } catch (const std::invalid_argument& error) {
            throw std::invalid_argument(std::string("--script: ") + error.what());
        }
    }
    collector.start();
    if (!arguments.portFile.empty()) writePortFile(arguments.portFile, collector.port());
    std::cout << "listening on " << collector.url() << std::endl;
    warnIfOpen(collector);
    signals.run();
    collector.stop();
}

void addServiceOptions(CLI::App& command, CollectorOptions& options) {
    command.add_option("--keys", options.keysFile, "JSON file of keys, projects, rates; read again when it changes");
    command.add_option("--tls-certificate", options.server.tlsCertificate, "PEM file; read again when it changes");
    command.add_option("--tls-key", options.server.tlsKey, "PEM file of its key");
    command.add_option("--max-connections", options.server.maxConnections)->capture_default_str();
    command.add_option("--max-memory", options.server.maxMemory, "Bytes of bodies held at a time")
        ->capture_default_str();
    command.add_option("--threads", options.server.threads)->check(CLI::Range(1, 256))->capture_default_str();
    command.add_option("--access-log", options.accessLog, "File for a JSON line per request; - for standard output");
    command.add_option("--token", options.token, "For changes from other machines; by default a random one");
    command.add_option("--name", options.names, "Host name under which a browser may look; repeatable")
        ->allow_extra_args(false);
    command.add_option("--retry-after", options.retryAfter, "Seconds that refused clients wait at least")
        ->check(CLI::Range(0, 86400))
        ->capture_default_str();
    command.add_option("--retry-spread", options.retrySpread, "And at most so many more, at random")
        ->check(CLI::Range(0, 86400))
        ->capture_default_str();
}

void addStorageOptions(CLI::App& command, StoreOptions& storage) {
    const auto addSeconds = [&](const char* name, const char* text, std::optional<std::chrono::seconds>& value) {
        command
            .add_option_function<int64_t>(
                name, [&value](const int64_t& seconds) { value = std::chrono::seconds(seconds); }, text)
            ->check(CLI::NonNegativeNumber);
    };
    command
        .add_option_function<int64_t>(
            "--store-timeout", [&storage](const int64_t& given) { storage.timeout = std::chrono::milliseconds(given); },
            "Milliseconds that a stream may take to acknowledge a batch; 5000 by default")
        ->check(CLI::PositiveNumber);
    command
        .add_option("--max-pending", storage.maxPendingBytes, "Bytes of batches that the store has not acknowledged")
        ->capture_default_str();
    command.add_option("--nats-credentials", storage.credentials, "File of credentials for a stream");
    command.add_option("--replicas", storage.replicas, "Of a stream, as are the following");
    addSeconds("--retention", "Seconds; 0 until delivered", storage.retention);
    addSeconds("--duplicate-window", "Seconds in which a repeated event is recognised", storage.duplicateWindow);
    command.add_option("--max-stream-bytes", storage.maxStreamBytes);
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
    command->add_option("--store", options.store, "SQLite file for what arrives, or jetstream:nats://HOST:PORT/STREAM")
        ->capture_default_str();
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
    addServiceOptions(*command, options);
    addStorageOptions(*command, options.storage);
    command->add_option("--config", arguments->configuration, "File of lines NAME = VALUE with the options' names");
    command->callback([command, arguments, &exitCode] {
        readConfiguration(*command, arguments->configuration);
        runCollect(*arguments);
        exitCode = kExitOk;
    });
}

}  // namespace velmora::tool
