#include "ingest/event/eventattributes.h"

#include <cstring>
#include <new>

#include "core/json/jsontext.h"
#include "core/json/mergejson.h"
#include "core/json/textwriter.h"

namespace velmora {
namespace {

std::string_view viewOf(const rapidjson::Value& text) { return {text.GetString(), text.GetStringLength()}; }

void append(rapidjson::StringBuffer& out, std::string_view text) {
    std::memcpy(out.Push(text.size()), text.data(), text.size());
}

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

void EventAttributes::push(std::string_view name, const rapidjson::Value* value, std::string_view text) {
    slots_.push_back({name, value, text});
}

// The pool frees its values as a whole.
const rapidjson::Value* EventAttributes::keep(rapidjson::Value value) {
    return new (allocator_.Malloc(sizeof(rapidjson::Value))) rapidjson::Value(std::move(value));
}

size_t EventAttributes::indexOf(std::string_view name) const {
    size_t index = 0;
    while (index < slots_.size() && slots_[index].name != name) ++index;
    return index;
}

void EventAttributes::append(std::string_view name, rapidjson::Value value) { push(name, keep(std::move(value)), {}); }

void EventAttributes::merge(std::string_view name, const rapidjson::Value& value) {
    const size_t index = indexOf(name);
    if (index == slots_.size()) return push(name, &value, {});
    Slot& slot = slots_[index];
    slot.text = {};
    if (!slot.value->IsObject() || !value.IsObject()) {
        slot.value = &value;
        return;
    }
    rapidjson::Value merged(*slot.value, allocator_);
    mergeObjects(merged, value, allocator_);
    slot.value = keep(std::move(merged));
}

void EventAttributes::mergeMembers(const rapidjson::Value& object) {
    for (const auto& [name, value] : object.GetObject()) merge(viewOf(name), value);
}

const rapidjson::Value* EventAttributes::find(std::string_view name) const {
    const size_t index = indexOf(name);
    return index == slots_.size() ? nullptr : slots_[index].value;
}

void EventAttributes::add(std::string_view name, std::string_view value) {
    const auto copy = [this](std::string_view text) {
        return keep({text.data(), static_cast<rapidjson::SizeType>(text.size()), allocator_});
    };
    push(viewOf(*copy(name)), copy(value), {});
}

void EventAttributes::write(rapidjson::StringBuffer& out) const {
    const size_t begin = out.GetSize();
    writeWith<rapidjson::Writer<rapidjson::StringBuffer>>(out);
    const size_t written = out.GetSize() - begin;
    if (!holdsLateControls(out.GetString() + begin, written)) return;
    out.Pop(written);
    writeWith<TextWriter>(out);
}

template <typename Writer>
void EventAttributes::writeWith(rapidjson::StringBuffer& out) const {
    Writer writer(out);
    out.Put('{');
    for (size_t index = 0; index < slots_.size(); ++index) {
        const Slot& slot = slots_[index];
        if (index != 0) out.Put(',');
        if (!slot.text.empty()) {
            velmora::append(out, slot.text);
            continue;
        }
        writer.Reset(out);
        writer.String(slot.name.data(), static_cast<rapidjson::SizeType>(slot.name.size()));
        out.Put(':');
        writer.Reset(out);
        slot.value->Accept(writer);
    }
    out.Put('}');
}

}  // namespace velmora
