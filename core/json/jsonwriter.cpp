#include "core/json/jsonwriter.h"

#include <stdexcept>
#include <vector>

#include "core/json/jsontext.h"

namespace velmora {

struct JsonWriter::Document {
    // A container that is still open.
    struct ObjectWrapper {
        std::string name;
        JsonValue value;
    };

    static constexpr size_t kChunkSize = 1024;

    JsonPool pool{kChunkSize};
    JsonDocument root{rapidjson::kObjectType, &pool};
    std::vector<ObjectWrapper> open;

    JsonValue& top() { return open.empty() ? root : open.back().value; }

    JsonValue text(const std::string& value) { return JsonValue(value, pool); }

    void addElement(JsonValue value) {
        if (!top().IsArray()) throw std::logic_error("JSON element outside of an array");
        top().PushBack(value, pool);
    }

    void addMember(const std::string& name, JsonValue value) {
        if (!top().IsObject()) throw std::logic_error("JSON member outside of an object: " + name);
        top().AddMember(text(name), value, pool);
    }

    void start(const std::string& name, rapidjson::Type type) { open.push_back({name, JsonValue(type)}); }

    void end(bool keep) {
        if (open.empty()) throw std::logic_error("no JSON container to close");
        ObjectWrapper closed = std::move(open.back());
        open.pop_back();
        if (!keep) return;
        if (closed.name.empty()) return addElement(std::move(closed.value));
        addMember(closed.name, std::move(closed.value));
    }
};

JsonWriter::JsonWriter(std::string* target, bool pretty)
    : target_(target), pretty_(pretty), document_(std::make_unique<Document>()) {
    JsonDocument& root = document_->root;
    if (parseValue(root, *target_).IsError() || !root.IsObject()) root.SetObject();
}

JsonWriter::~JsonWriter() = default;

void JsonWriter::startObject(const std::string& name) { document_->start(name, rapidjson::kObjectType); }
void JsonWriter::startArray(const std::string& name) { document_->start(name, rapidjson::kArrayType); }
void JsonWriter::endObject(bool keep) { document_->end(keep); }
void JsonWriter::endArray(bool keep) { document_->end(keep); }

void JsonWriter::addString(const std::string& value) { document_->addElement(document_->text(value)); }
void JsonWriter::addString(const std::string& name, const std::string& value) {
    document_->addMember(name, document_->text(value));
}
void JsonWriter::addBool(bool value) { document_->addElement(JsonValue(value)); }
void JsonWriter::addBool(const std::string& name, bool value) { document_->addMember(name, JsonValue(value)); }
void JsonWriter::addInt(int64_t value) { document_->addElement(JsonValue(value)); }
void JsonWriter::addInt(const std::string& name, int64_t value) { document_->addMember(name, JsonValue(value)); }
void JsonWriter::addUint(uint64_t value) { document_->addElement(JsonValue(value)); }
void JsonWriter::addUint(const std::string& name, uint64_t value) { document_->addMember(name, JsonValue(value)); }

void JsonWriter::finish() { *target_ = pretty_ ? serializePretty(document_->root) : serialize(document_->root); }

}  // namespace velmora
