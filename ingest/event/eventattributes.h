// The attributes of one event while it is put together: those held ready for every event, and those of its own, laid
// over them. Nothing is copied or rendered twice; what stays as it was held ready goes out as ready-made text.
#pragma once

#include "core/json/jsontext.h"
#include "core/json/nameindex.h"

#include <string>
#include <string_view>
#include <vector>

#include "ingest/event/eventvalidator.h"

namespace velmora {

// The members of a JSON object, parsed and rendered once. Immutable, so threads may share it.
class ReadyAttributes {
public:
    struct Member {
        std::string_view name;
        const JsonValue* value;
        std::string_view text;  // name and value as they stand in an object's text
    };

    // A text that is no JSON object gives no members.
    explicit ReadyAttributes(const std::string& object);
    ReadyAttributes(const ReadyAttributes&) = delete;
    ReadyAttributes& operator=(const ReadyAttributes&) = delete;

    [[nodiscard]] const std::vector<Member>& members() const { return members_; }

private:
    JsonDocument document_;
    std::string text_;  // all members, joined by commas
    std::vector<Member> members_;
};

// Refers to what it is given: the ready attributes, the allocator and merged values have to outlive it.
class EventAttributes final : public AttributeView {
public:
    using Allocator = JsonPool;

    // `expected` is how many members will be added.
    EventAttributes(const ReadyAttributes& ready, Allocator& allocator, size_t expected);

    // Appends without looking for the name.
    void append(std::string_view name, JsonValue value);

    // Lays a value over the first attribute of the name: two objects are merged, anything else is replaced in its
    // place, a new name is appended.
    void merge(std::string_view name, const JsonValue& value);
    void mergeMembers(const JsonValue& object);

    [[nodiscard]] const JsonValue* find(std::string_view name) const override;
    void add(std::string_view name, std::string_view value) override;

    // Appends the object's text.
    void write(JsonBuffer& out) const;

private:
    struct Slot {
        std::string_view name;
        const JsonValue* value;
        std::string_view text;  // ready-made, or empty
    };

    [[nodiscard]] auto names() const {
        return [this](size_t at) { return slots_[at].name; };
    }
    [[nodiscard]] const JsonValue* keep(JsonValue value);
    void push(std::string_view name, const JsonValue* value, std::string_view text);

    Allocator& allocator_;
    std::vector<Slot> slots_;
    NameIndex index_;  // of equal names the first
};

}  // namespace velmora
