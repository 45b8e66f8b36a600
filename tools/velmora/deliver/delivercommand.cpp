#include <CLI/CLI.hpp>
#include <chrono>
#include <iostream>
#include <memory>
#include <optional>

#include "core/utils/timestamps.h"
#include "tools/velmora/command.h"
#include "tools/velmora/deliver/deliverer.h"
#include "tools/velmora/deliver/postgrestarget.h"
#include "tools/velmora/jetstream/eventaddress.h"
#include "tools/velmora/stopsignal.h"

namespace velmora::tool {
namespace {

constexpr std::chrono::seconds kStartPatience(30);
constexpr size_t kHashInName = 12;

struct DeliverArguments {
    std::string from;
    std::string to;
    std::string consumer;
    std::string credentials;
    StreamSettings settings;
    std::optional<int64_t> retentionHours;
    std::optional<int64_t> windowSeconds;
    DelivererOptions options;
};

struct ForgetArguments {
    std::string user;
    std::string database;
};

void logLine(const std::string& text) { std::cerr << currentTimeUtcMicros() << " deliver: " << text << std::endl; }

// A file has one deliverer, and each file a consumer of its own.
std::string consumerName(const DeliverArguments& arguments, bool wantsOrder) {
    if (!arguments.consumer.empty()) return arguments.consumer;
    return wantsOrder ? "velmora-file-" + sha256Hex(arguments.to).substr(0, kHashInName) : "velmora-deliver";
}

int runDeliver(DeliverArguments& arguments) {
    StreamAddress address = StreamAddress::parse(arguments.from);
    if (arguments.retentionHours) arguments.settings.keep = std::chrono::hours(*arguments.retentionHours);
    if (arguments.windowSeconds) arguments.settings.window = std::chrono::seconds(*arguments.windowSeconds);
    address.settings = arguments.settings;
    address.credentialsFile = arguments.credentials;
    catchStopSignals();
    const std::unique_ptr<Target> target = openTarget(arguments.to, kStartPatience);
    Stream stream(std::move(address), "velmora deliver", kStartPatience);
    const bool wantsOrder = target->wantsOrder();
    Consumer consumer(stream, consumerName(arguments, wantsOrder),
                      wantsOrder ? Consumer::Begin::inOrder : Consumer::Begin::shared, target->lastSequence());
    logLine("from " + stream.address().display());
    const DeliveryCounts counts = Deliverer(consumer, *target, arguments.options, stopWanted, logLine).run();
    std::cout << "stored=" << counts.stored << " repeated=" << counts.repeated << " aside=" << counts.setAside
              << std::endl;
    return counts.setAside == 0 ? kExitOk : kExitIncomplete;
}

int runForget(const ForgetArguments& arguments) {
    PostgresTarget target(arguments.database, kStartPatience);
    std::cout << "deleted=" << target.forget(arguments.user) << std::endl;
    return kExitOk;
}

void registerDeliver(CLI::App& program, int& exitCode) {
    CLI::App* const command =
        program.add_subcommand("deliver", "Move events from a NATS JetStream log to where they stay");
    const auto arguments = std::make_shared<DeliverArguments>();
    DeliverArguments& options = *arguments;
    command->add_option("--from", options.from, "jetstream:nats://HOST:PORT[,HOST:PORT...]/STREAM")->required();
    command->add_option("--to", options.to, "postgresql://USER@HOST/DATABASE or ndjson:FILE")->required();
    command->add_option("--consumer", options.consumer, "Name of the place in the stream; deliverers share it");
    command->add_option("--batch", options.options.batch, "Events of one transaction, at most")
        ->check(CLI::Range(1, 10000))
        ->capture_default_str();
    command->add_flag("--until-empty", options.options.untilEmpty, "End when the stream is empty");
    command->add_option("--nats-credentials", options.credentials, "File of the user's credentials");
    command->add_option("--replicas", options.settings.replicas, "Nodes that keep each event")->check(CLI::Range(1, 5));
    command->add_option("--duplicate-window", options.windowSeconds, "Seconds in which the log drops repeats")
        ->check(CLI::Range(1, 86400));
    command->add_option("--retention-hours", options.retentionHours, "How long the log keeps events; 0 until delivery")
        ->check(CLI::Range(0, 87600));
    command->add_option("--stream-bytes", options.settings.maxBytes, "Bytes of the log, beyond which it refuses");
    command->callback([arguments, &exitCode] { exitCode = runDeliver(*arguments); });
}

void registerForget(CLI::App& program, int& exitCode) {
    CLI::App* const command =
        program.add_subcommand("forget", "Delete a user's events from the database, and those still on their way");
    const auto arguments = std::make_shared<ForgetArguments>();
    command->add_option("user", arguments->user, "The value of event.user_guid")->required();
    command->add_option("--from", arguments->database, "postgresql://USER@HOST/DATABASE")->required();
    command->callback([arguments, &exitCode] { exitCode = runForget(*arguments); });
}

}  // namespace

void registerServiceSide(CLI::App& program, int& exitCode) {
    registerDeliver(program, exitCode);
    registerForget(program, exitCode);
}

}  // namespace velmora::tool
