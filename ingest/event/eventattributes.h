// The attributes of one event while it is put together: those held ready for every event, and those of its own, laid
// over them. Nothing is copied or rendered twice; what stays as it was held ready goes out as ready-made text.
#pragma once

#include <rapidjson/document.h>
#include <rapidjson/stringbuffer.h>

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
        const rapidjson::Value* value;
        std::string_view text;  // name and value as they stand in an object's text
    };

    // A text that is no JSON object gives no members.
    explicit ReadyAttributes(const std::string& object);
    ReadyAttributes(const ReadyAttributes&) = delete;
    ReadyAttributes& operator=(const ReadyAttributes&) = delete;

    [[nodiscard]] const std::vector<Member>& members() const { return members_; }

private:
    rapidjson::Document document_;
    std::string text_;  // all members, joined by commas
    std::vector<Member> members_;
};

// Refers to what it is given: the ready attributes, the allocator and merged values have to outlive it.
class EventAttributes final : public AttributeView {
public:
    using Allocator = rapidjson::Document::AllocatorType;

    // `expected` is how many members will be added.
    EventAttributes(const ReadyAttributes& ready, Allocator& allocator, size_t expected);

    // Appends without looking for the name.
    void append(std::string_view name, rapidjson::Value value);

    // Lays a value over the first attribute of the name: two objects are merged, anything else is replaced in its
    // place, a new name is appended.
    void merge(std::string_view name, const rapidjson::Value& value);
    void mergeMembers(const rapidjson::Value& object);

    [[nodiscard]] const rapidjson::Value* find(std::string_view name) const override;
    void add(std::string_view name, std::string_view value) override;

    // Appends the object's text.
    void write(rapidjson::StringBuffer& out) const;

private:
    struct Slot {
        std::string_view name;
        const rapidjson::Value* value;
        std::string_view text;  // ready-made, or empty
    };

    [[nodiscard]] size_t indexOf(std::string_view name) const;
    [[nodiscard]] const rapidjson::Value* keep(rapidjson::Value value);
    void push(std::string_view name, const rapidjson::Value* value, std::string_view text);
    template <typename Writer>
    void writeWith(rapidjson::StringBuffer& out) const;

    Allocator& allocator_;
    std::vector<Slot> slots_;
};

}  // namespace velmora
