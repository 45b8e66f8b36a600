#include "tools/velmora/inspectionreport.h"

#include <array>
#include <ostream>

#include "core/json/jsontext.h"
#include "core/utils/timestamps.h"

namespace velmora::tool {
namespace {

using platform::HoldState;
using JsonOut = JsonTextWriter;

constexpr int64_t kTicksPerSecond = 10'000'000;

struct Names {
    const char* text;
    const char* json;
};

Names namesOf(InspectedKind kind) {
    switch (kind) {
        case InspectedKind::dataRoot:
            return {"data root", "dataRoot"};
        case InspectedKind::configuration:
            return {"configuration", "configuration"};
        case InspectedKind::instance:
            return {"instance", "instance"};
        case InspectedKind::store:
            return {"store", "store"};
        case InspectedKind::manifest:
            return {"manifest", "manifest"};
        case InspectedKind::part:
            return {"part", "part"};
    }
    return {"", ""};
}

Names namesOf(HoldState hold) {
    switch (hold) {
        case HoldState::free:
            return {"held by nobody", "free"};
        case HoldState::held:
            return {"held by a process", "held"};
        case HoldState::unknown:
            return {"the hold is not known", "unknown"};
    }
    return {"", ""};
}

const char* nameOf(RecordForm form) {
    switch (form) {
        case RecordForm::plain:
            return "plain";
        case RecordForm::deciphered:
            return "deciphered";
        case RecordForm::undecipherable:
            return "undecipherable";
        case RecordForm::enciphered:
            return "enciphered";
        case RecordForm::other:
            return "other";
    }
    return "";
}

const char* nameOf(QueueReader::Region region) { return region == QueueReader::Region::ring ? "ring" : "overflow"; }

std::array<std::pair<const char*, uint64_t>, 8> fieldsOf(const CircularQueueHeader& header) {
    return {{{"headCount", header.headCount},
             {"ringCount", header.ringCount},
             {"overflowCount", header.overflowCount},
             {"readOffset", header.readOffset},
             {"writeOffset", header.writeOffset},
             {"ringEnd", header.ringEnd},
             {"overflowWriteOffset", header.overflowWriteOffset},
             {"capacity", header.capacity}}};
}

std::string counted(uint64_t count, const std::string& one) {
    return std::to_string(count) + ' ' + one + (count == 1 ? "" : "s");
}

std::string timeText(int64_t seconds) { return formatTimeUtc(seconds * kTicksPerSecond); }

// In the largest unit of which there are two.
std::string ageText(int64_t seconds) {
    constexpr std::pair<int64_t, const char*> kUnits[] = {{86400, " days"}, {3600, " hours"}, {60, " minutes"}};
    for (const auto& [unit, name] : kUnits) {
        if (seconds >= 2 * unit) return std::to_string(seconds / unit) + name;
    }
    return std::to_string(seconds) + " s";
}

// -- text -------------------------------------------------------------------------------------------------------------

class TextReport {
public:
    TextReport(int64_t now, std::ostream& out) : now_(now), out_(out) {}

    void write(const Inspected& node, int depth) {
        line(depth) << titleOf(node, depth == 0) << ": " << factsOf(node) << '\n';
        if (node.hasHeader) writeHeader(node, depth + 1);
        for (const std::string& text : node.damage) line(depth + 1) << "! " << text << '\n';
        for (const std::string& text : node.notes) line(depth + 1) << text << '\n';
        for (const InspectedRecord& record : node.records) writeRecord(record, depth + 1);
        for (const Inspected& child : node.children) write(child, depth + 1);
    }

private:
    std::ostream& line(int depth) { return out_ << std::string(static_cast<size_t>(depth) * 2, ' '); }

    static std::string titleOf(const Inspected& node, bool isRoot) {
        std::string title = namesOf(node.kind).text;
        if (isRoot || node.kind != InspectedKind::manifest)
            title += ' ' + printable(isRoot ? node.path.string() : node.name);
        if (node.kind == InspectedKind::instance) title += std::string(", ") + namesOf(node.hold).text;
        return title;
    }

    [[nodiscard]] std::string factsOf(const Inspected& node) const {
        std::string facts = counted(node.events, node.kind == InspectedKind::manifest ? "name" : "event") + ", " +
                            counted(node.bytes, "byte");
        if (node.lastWrite)
            facts += ", last write " + timeText(*node.lastWrite) + " (" + ageText(now_ - *node.lastWrite) + " ago)";
        return facts;
    }

    void writeHeader(const Inspected& node, int depth) {
        line(depth) << "selector " << static_cast<int>(node.selector);
        for (const auto& [name, value] : fieldsOf(node.header)) out_ << ", " << name << ' ' << value;
        out_ << '\n';
    }

    void writeRecord(const InspectedRecord& record, int depth) {
        line(depth) << "record " << record.place.index << ": position " << record.place.position << ", length "
                    << record.place.length << ", " << nameOf(record.place.region) << ", " << nameOf(record.form);
        if (!record.json.empty()) out_ << ": " << record.json;
        out_ << '\n';
    }

    const int64_t now_;
    std::ostream& out_;
};

// -- JSON -------------------------------------------------------------------------------------------------------------

class JsonReport {
public:
    JsonReport(int64_t now, JsonOut& out) : now_(now), out_(out) {}

    void write(const Inspected& root) {
        out_.StartObject();
        member("healthy").Bool(countDamage(root) == 0);
        member("damaged").Uint64(countDamage(root));
        member("events").Uint64(root.events);
        member("root");
        writeNode(root);
        out_.EndObject();
    }

private:
    JsonOut& member(const char* name) {
        out_.Key(name);
        return out_;
    }

    void writeNode(const Inspected& node) {
        out_.StartObject();
        member("kind").String(namesOf(node.kind).json);
        member("name").String(printable(node.name));
        member("path").String(printable(node.path.string()));
        if (node.kind == InspectedKind::instance) member("hold").String(namesOf(node.hold).json);
        member("bytes").Uint64(node.bytes);
        member(node.kind == InspectedKind::manifest ? "names" : "events").Uint64(node.events);
        if (node.lastWrite) {
            member("lastWrite").String(timeText(*node.lastWrite));
            member("ageSeconds").Int64(now_ - *node.lastWrite);
        }
        if (node.hasHeader) writeHeader(node);
        list("records", node.records, [&](const InspectedRecord& record) { writeRecord(record); });
        list("damage", node.damage, [&](const std::string& text) { out_.String(text); });
        list("notes", node.notes, [&](const std::string& text) { out_.String(text); });
        list("children", node.children, [&](const Inspected& child) { writeNode(child); });
        out_.EndObject();
    }

    template <typename Item, typename Write>
    void list(const char* name, const std::vector<Item>& items, Write writeItem) {
        if (items.empty()) return;
        member(name).StartArray();
        for (const Item& item : items) writeItem(item);
        out_.EndArray();
    }

    void writeHeader(const Inspected& node) {
        member("header").StartObject();
        member("selector").Uint(node.selector);
        for (const auto& [name, value] : fieldsOf(node.header)) member(name).Uint64(value);
        out_.EndObject();
    }

    void writeRecord(const InspectedRecord& record) {
        out_.StartObject();
        member("index").Uint64(record.place.index);
        member("position").Uint64(record.place.position);
        member("length").Uint64(record.place.length);
        member("region").String(nameOf(record.place.region));
        member("form").String(nameOf(record.form));
        if (!record.json.empty())
            member("event").RawValue(record.json.data(), record.json.size(), rapidjson::kObjectType);
        out_.EndObject();
    }

    const int64_t now_;
    JsonOut& out_;
};

}  // namespace

void writeText(const Inspected& root, int64_t now, std::ostream& out) {
    TextReport(now, out).write(root, 0);
    const uint64_t damaged = countDamage(root);
    out << (damaged == 0 ? "healthy" : counted(damaged, "damaged place")) << '\n';
}

void writeJson(const Inspected& root, int64_t now, std::ostream& out) {
    JsonBuffer buffer;
    JsonOut writer(buffer);
    JsonReport(now, writer).write(root);
    out.write(buffer.GetString(), static_cast<std::streamsize>(buffer.GetSize())) << '\n';
}

}  // namespace velmora::tool
