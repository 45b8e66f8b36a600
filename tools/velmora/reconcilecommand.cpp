#include <CLI/CLI.hpp>
#include <fstream>
#include <iostream>
#include <memory>
#include <stdexcept>
#include <unordered_set>

#include "tools/velmora/command.h"
#include "tools/velmora/files.h"
#include "tools/velmora/sqlitestore.h"

namespace velmora::tool {
namespace {

struct ReconcileArguments {
    std::string journal;
    std::string store;
};

struct Reconciliation {
    size_t submitted = 0;
    size_t delivered = 0;
    int64_t duplicates = 0;
    size_t lost = 0;
    std::string firstLost;
};

// The journal's identifiers. A last line without its line end was cut off by the end of the writer and does not count.
std::unordered_set<std::string> readJournal(const std::string& path) {
    std::ifstream file;
    openToRead(file, path);
    std::unordered_set<std::string> guids;
    for (std::string guid; std::getline(file, guid) && !file.eof();) guids.insert(guid);
    return guids;
}

Reconciliation reconcile(const ReconcileArguments& arguments) {
    std::ifstream present;
    openToRead(present, arguments.store);
    const auto arrivals = SqliteStore(arguments.store, 0).arrivals();
    Reconciliation result;
    for (const std::string& guid : readJournal(arguments.journal)) {
        ++result.submitted;
        const auto found = arrivals.find(guid);
        if (found == arrivals.end()) {
            if (result.lost++ == 0) result.firstLost = guid;
        } else {
            ++result.delivered;
            result.duplicates += found->second - 1;
        }
    }
    return result;
}

int runReconcile(const ReconcileArguments& arguments) {
    const Reconciliation result = reconcile(arguments);
    std::cout << "submitted=" << result.submitted << " delivered=" << result.delivered
              << " duplicates=" << result.duplicates << " lost=" << result.lost << std::endl;
    if (result.lost == 0) return kExitOk;
    std::cerr << "the first one lost is " << result.firstLost << std::endl;
    return kExitIncomplete;
}

}  // namespace

void registerReconcile(CLI::App& program, int& exitCode) {
    CLI::App* const command =
        program.add_subcommand("reconcile", "Compare a journal of send with the store of collect");
    const auto arguments = std::make_shared<ReconcileArguments>();
    command->add_option("--journal", arguments->journal, "File written by send --journal")->required();
    command->add_option("--store", arguments->store, "File written by collect --store")->required();
    command->callback([arguments, &exitCode] { exitCode = runReconcile(*arguments); });
}

}  // namespace velmora::tool
