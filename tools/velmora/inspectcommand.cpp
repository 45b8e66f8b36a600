#include <CLI/CLI.hpp>
#include <iostream>
#include <memory>
#include <optional>

#include "core/utils/timestamps.h"
#include "tools/velmora/command.h"
#include "tools/velmora/inspection.h"
#include "tools/velmora/inspectionreport.h"

namespace velmora::tool {
namespace {

constexpr uint64_t kRecordsWithPassphrase = 10;

struct InspectArguments {
    std::string path;
    std::optional<std::string> passphrase;
    std::optional<uint64_t> records;
    bool json = false;
};

int runInspect(const InspectArguments& arguments) {
    InspectOptions options;
    options.passphrase = arguments.passphrase;
    options.records = arguments.records.value_or(arguments.passphrase ? kRecordsWithPassphrase : 0);
    const Inspected root = inspect(Path(arguments.path), options);
    (arguments.json ? writeJson : writeText)(root, currentSeconds(), std::cout);
    if (!std::cout.flush()) throw std::runtime_error("can't write the report");
    return countDamage(root) == 0 ? kExitOk : kExitIncomplete;
}

}  // namespace

void registerInspect(CLI::App& program, int& exitCode) {
    CLI::App* const command =
        program.add_subcommand("inspect", "Look at queues on disk, also while a process uses them; changes nothing");
    const auto arguments = std::make_shared<InspectArguments>();
    command
        ->add_option("path", arguments->path,
                     "A data root, a configuration's folder, an instance's, a store, a manifest or a part file")
        ->required();
    command->add_option("--records", arguments->records,
                        "Show that many events of each part file, the oldest first; 10 with --passphrase, else none");
    command->add_option("--passphrase", arguments->passphrase, "Decipher the events that are shown");
    command->add_flag("--json", arguments->json, "One JSON document on one line, for scripts");
    command->footer("Exit status: 0 healthy, 1 something is damaged, 2 wrong usage or nothing there.");
    command->callback([arguments, &exitCode] { exitCode = runInspect(*arguments); });
}

}  // namespace velmora::tool
