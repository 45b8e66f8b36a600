#include "tools/velmora/inspection.h"

#include <algorithm>
#include <boost/filesystem/operations.hpp>
#include <chrono>
#include <functional>
#include <set>
#include <stdexcept>
#include <system_error>
#include <thread>

#include "core/filesystem/filesystem.h"
#include "ingest/event/eventmodel.h"
#include "ingest/event/store/partfilequeue.h"
#include "tools/velmora/recordview.h"

namespace velmora::tool {
namespace {

using platform::HoldState;

constexpr const char* kManifest = "manifest";
constexpr const char* kVersionFolder = "v1";
constexpr const char* kMappingFile = "iaas.csv";
constexpr int kLooks = 10;
constexpr std::chrono::milliseconds kBetweenLooks{50};

Inspected makeNode(InspectedKind kind, const Path& path) {
    Inspected node;
    node.kind = kind;
    node.path = path;
    node.name = path.filename().string();
    return node;
}

void adopt(Inspected& parent, Inspected child) {
    parent.bytes += child.bytes;
    if (child.lastWrite) parent.lastWrite = std::max(parent.lastWrite.value_or(*child.lastWrite), *child.lastWrite);
    if (child.kind != InspectedKind::manifest) parent.events += child.events;
    parent.children.push_back(std::move(child));
}

// Sorted: short names first, so that numbers stand in their order. Nothing, with damage, if the folder can't be read.
std::vector<std::string> childrenOf(Inspected& node, const Path& folder) {
    std::vector<std::string> names;
    const auto collect = [&](const std::string& name) {
        names.push_back(name);
        return true;
    };
    try {
        if (!Filesystem::listDirectory(folder, collect) && folder.exists())
            node.damage.emplace_back("the folder can't be read");
    } catch (const std::range_error&) {
        node.damage.emplace_back("a name in the folder is no text");
    }
    std::sort(names.begin(), names.end(),
              [](const auto& a, const auto& b) { return std::pair(a.size(), a) < std::pair(b.size(), b); });
    return names;
}

bool isStoreName(const std::string& name) {
    for (int kind = 0; kind < kPipelineKinds; ++kind) {
        if (name == storeFolderName(static_cast<PipelineKind>(kind))) return true;
    }
    return false;
}

// -- files ------------------------------------------------------------------------------------------------------------

void readFacts(Inspected& node) {
    try {
        node.lastWrite = node.path.lastWriteTime();
    } catch (const std::exception&) {  // it has just been deleted
    }
}

// The records of a queue file; each one goes to `onRecord`. The damage of the file, if any, is in the node then.
void readQueue(Inspected& node, const std::function<void(QueueReader&, const QueueReader::Record&)>& onRecord) {
    readFacts(node);
    try {
        QueueReader reader(node.path);
        node.bytes = reader.fileSize();
        node.hasHeader = reader.isValid();
        node.selector = reader.selector();
        node.header = reader.header();
        while (const auto record = reader.next()) {
            ++node.events;
            onRecord(reader, *record);
        }
        if (!reader.damage().empty()) node.damage.push_back(reader.damage());
    } catch (const std::system_error&) {
        node.damage.emplace_back(node.path.exists() ? "the file can't be opened" : "the file is missing");
    }
}

// An alien thing in the place of a file may block whoever opens it.
bool isOpenable(Inspected& node) {
    if (node.path.isFile()) return true;
    node.damage.emplace_back(node.path.exists() ? "this is no file" : "the file is missing");
    return false;
}

Inspected lookAtPart(const Path& path, const RecordView& view, uint64_t records) {
    Inspected node = makeNode(InspectedKind::part, path);
    if (!isOpenable(node)) return node;
    readQueue(node, [&](QueueReader& reader, const QueueReader::Record& record) {
        if (record.index >= records) return;
        std::string bytes;
        if (reader.read(record, bytes)) node.records.push_back(view.look(record, bytes));
    });
    return node;
}

// `names` receives what can be the names of parts.
Inspected lookAtManifest(const Path& path, std::vector<std::string>& names) {
    Inspected node = makeNode(InspectedKind::manifest, path);
    if (!isOpenable(node)) return node;
    readQueue(node, [&](QueueReader& reader, const QueueReader::Record& record) {
        std::string name;
        if (!reader.read(record, name)) return;
        const bool isRepeated = std::find(names.begin(), names.end(), name) != names.end();
        if (isRepeated || !PartName::isPlain(name) || name == kManifest) {
            node.damage.push_back("record " + std::to_string(record.index) + (isRepeated ? " repeats" : " can't be") +
                                  " the name of a part: " + printable(name.substr(0, 64)));
        } else if (node.damage.empty()) {
            names.push_back(name);
        }
    });
    return node;
}

// -- folders ----------------------------------------------------------------------------------------------------------

class Inspector {
public:
    explicit Inspector(const InspectOptions& options) : view_(options.passphrase), records_(options.records) {}

    Inspected inspectFile(const Path& path) const {
        return settled(path.parent().parent(), [&] {
            std::vector<std::string> names;
            if (path.filename().string() != kManifest) return lookAtPart(path, view_, records_);
            Inspected node = lookAtManifest(path, names);
            for (const std::string& name : names) node.notes.push_back("names " + name);
            return node;
        });
    }

    Inspected inspectStore(const Path& folder) const {
        return settled(folder.parent(), [&] { return lookAtStore(folder); });
    }

    Inspected inspectInstance(const Path& folder) const {
        Inspected node = makeNode(InspectedKind::instance, folder);
        node.hold = platform::probeHold(folder.native());
        for (const std::string& name : childrenOf(node, folder)) {
            if (isStoreName(name) && (folder / name).isDirectory()) {
                adopt(node, inspectStore(folder / name));
            } else {
                node.notes.push_back("foreign: " + printable(name));
            }
        }
        return node;
    }

    Inspected inspectConfiguration(const Path& folder) const {
        Inspected node = makeNode(InspectedKind::configuration, folder);
        for (const std::string& name : childrenOf(node, folder)) {
            if (name == kVersionFolder) continue;
            node.notes.push_back((name == kMappingFile ? "mapping table: " : "foreign: ") + printable(name));
        }
        const Path instances = folder / kVersionFolder;
        if (!instances.exists()) return node;
        for (const std::string& name : childrenOf(node, instances)) {
            if (isInstanceName(name) && (instances / name).isDirectory()) {
                adopt(node, inspectInstance(instances / name));
            } else {
                node.damage.push_back("foreign, keeps abandoned folders from being found: " +
                                      printable(std::string(kVersionFolder) + "/" + name));
            }
        }
        return node;
    }

    Inspected inspectDataRoot(const Path& folder) const {
        Inspected node = makeNode(InspectedKind::dataRoot, folder);
        for (const std::string& name : childrenOf(node, folder)) {
            const Path child = folder / name;
            if ((child / kVersionFolder).isDirectory() || (child / kMappingFile).isFile()) {
                adopt(node, inspectConfiguration(child));
            } else {
                node.notes.push_back("foreign: " + printable(name));
            }
        }
        return node;
    }

private:
    static bool isInstanceName(const std::string& name) {
        return !name.empty() && name.size() < 10 && name.find_first_not_of("0123456789") == std::string::npos;
    }

    // Drops from `node` what `before`, the same tree a moment earlier, did not have.
    static void keepCommonDamage(Inspected& node, const std::set<std::string>& before) {
        std::erase_if(node.damage, [&](const std::string& text) { return before.count(keyOf(node, text)) == 0; });
        for (Inspected& child : node.children) keepCommonDamage(child, before);
    }

    static std::string keyOf(const Inspected& node, const std::string& damage) {
        return node.path.string() + '\n' + damage;
    }

    static void collectDamage(const Inspected& node, std::set<std::string>& keys) {
        for (const std::string& text : node.damage) keys.insert(keyOf(node, text));
        for (const Inspected& child : node.children) collectDamage(child, keys);
    }

    // Looks again at what seems damaged as long as somebody may be writing there.
    static Inspected settled(const Path& instance, const std::function<Inspected()>& look) {
        Inspected node = look();
        for (int looks = 1; looks < kLooks && countDamage(node) > 0 && mayBeHeld(instance); ++looks) {
            std::set<std::string> before;
            collectDamage(node, before);
            std::this_thread::sleep_for(kBetweenLooks);
            node = look();
            keepCommonDamage(node, before);
        }
        return node;
    }

    static bool mayBeHeld(const Path& instance) {
        return !instance.empty() && platform::probeHold(instance.native()) != HoldState::free;
    }

    Inspected lookAtStore(const Path& folder) const {
        Inspected node = makeNode(InspectedKind::store, folder);
        std::vector<std::string> names;
        if ((folder / kManifest).exists()) adopt(node, lookAtManifest(folder / kManifest, names));
        for (const std::string& name : names) adopt(node, lookAtPart(folder / name, view_, records_));
        for (const std::string& name : childrenOf(node, folder)) {
            const bool isListed = name == kManifest || std::find(names.begin(), names.end(), name) != names.end();
            if (!isListed) lookAtForeign(node, folder / name);
        }
        return node;
    }

    // What the manifest does not list is never read. That is a loss if it holds events.
    void lookAtForeign(Inspected& store, const Path& path) const {
        const std::string name = printable(path.filename().string());
        const uint64_t events = path.isFile() ? lookAtPart(path, view_, 0).events : 0;
        if (events == 0) {
            store.notes.push_back("foreign: " + name);
        } else {
            store.damage.push_back("the manifest does not list a part with " + std::to_string(events) +
                                   " events: " + name);
        }
    }

    const RecordView view_;
    const uint64_t records_;
};

// -- what a path is ---------------------------------------------------------------------------------------------------

Path wholePath(const Path& path) {
    auto whole = boost::filesystem::absolute(path.native()).lexically_normal();
    while (whole.has_parent_path() && (whole.filename_is_dot() || whole.filename().empty()))
        whole = whole.parent_path();
    return Path(whole);
}

bool hasChild(const Path& folder, const std::function<bool(const std::string&)>& isWanted) {
    bool isFound = false;
    Filesystem::listDirectory(folder, [&](const std::string& name) {
        isFound = isWanted(name);
        return !isFound;
    });
    return isFound;
}

Inspected inspectFolder(const Path& path, const Inspector& inspector) {
    const std::string name = path.filename().string();
    const std::string dataFolder = Filesystem::getDataFolder(false).filename().string();
    if ((path / dataFolder).isDirectory()) return inspector.inspectDataRoot(path / dataFolder);
    if ((path / kManifest).isFile() || isStoreName(name)) return inspector.inspectStore(path);
    if (path.parent().filename().string() == kVersionFolder || hasChild(path, isStoreName))
        return inspector.inspectInstance(path);
    if ((path / kVersionFolder).isDirectory()) return inspector.inspectConfiguration(path);
    if (name == kVersionFolder) return inspector.inspectConfiguration(path.parent());
    const auto isConfiguration = [&](const std::string& child) {
        return (path / child / kVersionFolder).isDirectory() || (path / child / kMappingFile).isFile();
    };
    if (name == dataFolder || hasChild(path, isConfiguration)) return inspector.inspectDataRoot(path);
    throw std::runtime_error("nothing of the library in " + path.string());
}

}  // namespace

Inspected inspect(const Path& path, const InspectOptions& options) {
    const Path whole = wholePath(path);
    if (!whole.exists()) throw std::runtime_error("there is no " + whole.string());
    const Inspector inspector(options);
    if (whole.isDirectory()) return inspectFolder(whole, inspector);
    if (!whole.isFile()) throw std::runtime_error("neither a file nor a folder: " + whole.string());
    return inspector.inspectFile(whole);
}

uint64_t countDamage(const Inspected& node) {
    uint64_t count = node.damage.size();
    for (const Inspected& child : node.children) count += countDamage(child);
    return count;
}

}  // namespace velmora::tool
