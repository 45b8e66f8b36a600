// What instances have left on disk, read without the code that they load it with.
#pragma once

#include <string>
#include <vector>

#include "tests/crash/ledger.h"

namespace velmora::test {

struct StoredEvents {
    std::vector<StoredLine> lines;    // those of the auth and anon lines, folder by folder
    std::vector<std::string> faults;  // damaged files, torn records, and whatever lies in a line for broken records
};

// The numbers of the instance folders of a configuration.
[[nodiscard]] std::vector<std::string> instanceFolders(const std::string& root, const std::string& configGuid);

// Only while no process writes below the root.
[[nodiscard]] StoredEvents readStoredEvents(const std::string& root, const std::string& configGuid);

}  // namespace velmora::test
