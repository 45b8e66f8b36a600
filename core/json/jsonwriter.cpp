#include "core/json/jsonwriter.h"

#include <rapidjson/document.h>

#include <stdexcept>

#include "core/json/jsontext.h"

namespace velmora {
namespace {

constexpr size_t kChunkSize = 1024;

}  // namespace

struct JsonWriterBase::Document {
    // A container that is still open.
    struct ObjectWrapper {
        std::string name;
        rapidjson::Value value;
    };

    rapidjson::Document::AllocatorType allocator{kChunkSize};
    rapidjson::Document root{rapidjson::kObjectType, &allocator};
    std::deque<ObjectWrapper> open;

    rapidjson::Value& top() { return open.empty() ? root : open.back().value; }

    rapidjson::Value text(const std::string& value) { return rapidjson::Value(value, allocator); }

    void addElement(rapidjson::Value value) {
        if (!top().IsArray()) throw std::logic_error("JSON element outside of an array");
        top().PushBack(value, allocator);
    }

    void addMember(const std::string& name, rapidjson::Value value) {
        if (!top().IsObject()) throw std::logic_error("JSON member outside of an object: " + name);
        top().AddMember(text(name), value, allocator);
    }

    void start(const std::string& name, rapidjson::Type type) { open.push_back({name, rapidjson::Value(type)}); }

    void end(bool keep) {
        if (open.empty()) throw std::logic_error("no JSON container to close");
        ObjectWrapper closed = std::move(open.back());
        open.pop_back();
        if (!keep) return;
        if (closed.name.empty()) return addElement(std::move(closed.value));
        addMember(closed.name, std::move(closed.value));
    }
};

JsonWriterBase::JsonWriterBase() : document_(std::make_unique<Document>()) {}
JsonWriterBase::~JsonWriterBase() = default;

void JsonWriterBase::startObject(const std::string& name) { document_->start(name, rapidjson::kObjectType); }
void JsonWriterBase::startArray(const std::string& name) { document_->start(name, rapidjson::kArrayType); }
void JsonWriterBase::endObject(bool keep) { document_->end(keep); }
void JsonWriterBase::endArray(bool keep) { document_->end(keep); }

void JsonWriterBase::addString(const std::string& value) { document_->addElement(document_->text(value)); }
void JsonWriterBase::addString(const std::string& name, const std::string& value) {
    document_->addMember(name, document_->text(value));
}
void JsonWriterBase::addBool(bool value) { document_->addElement(rapidjson::Value(value)); }
void JsonWriterBase::addBool(const std::string& name, bool value) {
    document_->addMember(name, rapidjson::Value(value));
}
void JsonWriterBase::addInt(int64_t value) { document_->addElement(rapidjson::Value(value)); }
void JsonWriterBase::addInt(const std::string& name, int64_t value) {
    document_->addMember(name, rapidjson::Value(value));
}
void JsonWriterBase::addUint(uint64_t value) { document_->addElement(rapidjson::Value(value)); }
void JsonWriterBase::addUint(const std::string& name, uint64_t value) {
    document_->addMember(name, rapidjson::Value(value));
}

JsonStringWriter::JsonStringWriter(std::string* target, bool pretty) : target_(target), pretty_(pretty) {
    rapidjson::Document& root = document_->root;
    if (parseValue(root, *target_).IsError() || !root.IsObject()) root.SetObject();
}

void JsonStringWriter::finish() { *target_ = pretty_ ? serializePretty(document_->root) : serialize(document_->root); }

}  // namespace velmora
