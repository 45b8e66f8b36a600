#include "tests/crash/storedevents.h"

#include <boost/filesystem/operations.hpp>

#include "core/crypt/crypt.h"
#include "core/json/jsontext.h"
#include "core/queue/queuereader.h"

namespace velmora::test {
namespace {

namespace fs = boost::filesystem;

constexpr const char* kDefaultPassphrase = "cobalt";

fs::path instancesOf(const std::string& root, const std::string& configGuid) {
    return fs::path(root) / "com.orvane.velmora" / configGuid / "v1";
}

class Reader {
public:
    StoredEvents read(const std::string& root, const std::string& configGuid) {
        for (const std::string& number : instanceFolders(root, configGuid)) {
            const fs::path folder = instancesOf(root, configGuid) / number;
            for (const char* line : {"auth_events", "anon_events"}) readLine(folder / line);
            for (const std::string& record : recordsOfLine(folder / "meta_events")) checkRecord(record, folder);
            for (const char* line : {"auth_invalid_events", "anon_invalid_events"}) {
                if (!recordsOfLine(folder / line).empty()) fault(folder / line, "holds records");
            }
        }
        return std::move(found_);
    }

private:
    void fault(const fs::path& path, const std::string& what) { found_.faults.push_back(path.string() + ": " + what); }

    void readLine(const fs::path& folder) {
        StoredLine line{folder.string(), {}};
        for (const std::string& record : recordsOfLine(folder)) {
            const std::vector<EventId> names = namesIn(checkRecord(record, folder));
            if (names.size() != 1) fault(folder, "a record holds " + std::to_string(names.size()) + " events");
            line.events.insert(line.events.end(), names.begin(), names.end());
        }
        if (!line.events.empty()) found_.lines.push_back(std::move(line));
    }

    std::string checkRecord(const std::string& record, const fs::path& folder) {
        std::string text = crypt_.decrypt(record);
        if (!validJSON(text)) fault(folder, "a record is torn: " + text);
        return text;
    }

    std::vector<std::string> recordsOfLine(const fs::path& folder) {
        std::vector<std::string> records;
        for (const std::string& part : recordsOfFile(folder / "manifest")) {
            for (std::string& record : recordsOfFile(folder / part)) records.push_back(std::move(record));
        }
        return records;
    }

    // A file that was killed in the making holds nothing, as one that is not there.
    std::vector<std::string> recordsOfFile(const fs::path& path) {
        std::vector<std::string> records;
        if (!fs::exists(path)) return records;
        QueueReader reader{Path(path)};
        if (!reader.isValid()) return records;
        std::string bytes;
        while (const auto record = reader.next()) {
            if (!reader.read(*record, bytes)) fault(path, "a record can't be read");
            records.push_back(bytes);
        }
        if (!reader.damage().empty()) fault(path, reader.damage());
        return records;
    }

    const Crypt crypt_{kDefaultPassphrase};
    StoredEvents found_;
};

}  // namespace

std::vector<std::string> instanceFolders(const std::string& root, const std::string& configGuid) {
    std::vector<std::string> numbers;
    boost::system::error_code error;
    for (fs::directory_iterator it(instancesOf(root, configGuid), error), end; !error && it != end; it.increment(error))
        numbers.push_back(it->path().filename().string());
    return numbers;
}

StoredEvents readStoredEvents(const std::string& root, const std::string& configGuid) {
    return Reader().read(root, configGuid);
}

}  // namespace velmora::test
