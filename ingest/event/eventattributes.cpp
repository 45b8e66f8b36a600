#include "ingest/event/eventattributes.h"

#include <cstring>
#include <new>
#include <stdexcept>

#include "core/json/jsontext.h"
#include "core/json/mergejson.h"

namespace velmora {
namespace {

void append(JsonBuffer& out, std::string_view text) { std::memcpy(out.Push(text.size()), text.data(), text.size()); }

}  // namespace

ReadyAttributes::ReadyAttributes(const std::string& object) {
    if (parseValue(document_, object).IsError() || !document_.IsObject()) document_.SetObject();
    std::vector<size_t> ends;
    for (const auto& [name, value] : document_.GetObject()) {
        if (!text_.empty()) text_ += ',';
        text_ += serialize(name) + ':' + serialize(value);
        ends.push_back(text_.size());
    }
    size_t begin = 0;
    for (const auto& [name, value] : document_.GetObject()) {
        const size_t end = ends[members_.size()];
        members_.push_back({viewOf(name), &value, std::string_view(text_).substr(begin, end - begin)});
        begin = end + 1;
    }
}

EventAttributes::EventAttributes(const ReadyAttributes& ready, Allocator& allocator, size_t expected)
    : allocator_(allocator) {
    slots_.reserve(ready.members().size() + expected);
    for (const auto& [name, value, text] : ready.members()) push(name, value, text);
}

void EventAttributes::push(std::string_view name, const JsonValue* value, std::string_view text) {
    slots_.push_back({name, value, text});
    index_.findOrAdd(name, slots_.size() - 1, names());
}

// The pool frees its values as a whole.
const JsonValue* EventAttributes::keep(JsonValue value) {
    return new (allocator_.Malloc(sizeof(JsonValue))) JsonValue(std::move(value));
}

void EventAttributes::append(std::string_view name, JsonValue value) { push(name, keep(std::move(value)), {}); }

void EventAttributes::merge(std::string_view name, const JsonValue& value) {
    const size_t index = index_.find(name, names());
    if (index == NameIndex::kNone) return push(name, &value, {});
    Slot& slot = slots_[index];
    slot.text = {};
    if (!slot.value->IsObject() || !value.IsObject()) {
        slot.value = &value;
        return;
    }
    JsonValue merged(*slot.value, allocator_);
    mergeObjects(merged, value, allocator_);
    slot.value = keep(std::move(merged));
}

void EventAttributes::mergeMembers(const JsonValue& object) {
    for (const auto& [name, value] : object.GetObject()) merge(viewOf(name), value);
}

const JsonValue* EventAttributes::find(std::string_view name) const {
    const size_t index = index_.find(name, names());
    return index == NameIndex::kNone ? nullptr : slots_[index].value;
}

void EventAttributes::add(std::string_view name, std::string_view value) {
    const auto copy = [this](std::string_view text) {
        return keep({text.data(), static_cast<rapidjson::SizeType>(text.size()), allocator_});
    };
    push(viewOf(*copy(name)), copy(value), {});
}

void EventAttributes::write(JsonBuffer& out) const {
    JsonTextWriter writer(out);
    out.Put('{');
    for (size_t index = 0; index < slots_.size(); ++index) {
        const Slot& slot = slots_[index];
        if (index != 0) out.Put(',');
        if (!slot.text.empty()) {
            velmora::append(out, slot.text);
            continue;
        }
        appendQuoted(out, slot.name);
        out.Put(':');
        writer.Reset(out);
        if (!slot.value->Accept(writer)) throw std::invalid_argument("a number that JSON has no text for");
    }
    out.Put('}');
}

}  // namespace velmora
