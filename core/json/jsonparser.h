// Push parsing: a tree of small objects, one per nesting level, each of which picks out the keys that it knows.
// Whatever no parser knows is skipped.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <system_error>
#include <unordered_map>
#include <vector>

namespace velmora {

// Takes up the values of one container. `name` is the member's name, empty for an array element. Callbacks may throw;
// the parse then ends with code 18. Parsers are made and used on the thread that parses.
class JsonParser {
public:
    virtual ~JsonParser() = default;

    virtual void onNull(const std::string& name) = 0;
    virtual void onBool(const std::string& name, bool value) = 0;
    virtual void onInt(const std::string& name, int64_t value) = 0;    // a negative integer
    virtual void onUint(const std::string& name, uint64_t value) = 0;  // a non-negative integer
    virtual void onDouble(const std::string& name, double value) = 0;
    virtual void onString(const std::string& name, const std::string& value) = 0;
    virtual std::shared_ptr<JsonParser> onObject(const std::string& name) = 0;  // the result handles its content
    virtual std::shared_ptr<JsonParser> onArray(const std::string& name) = 0;   // the result handles its elements
    virtual void onEnd() = 0;
    [[nodiscard]] virtual bool isObject() const = 0;

    // Parses a document whose root is an object, behind a byte order mark if there is one. Returns a "json_error" code,
    // 0 for success; what was taken up before a fault stays. A string that is not UTF-8, or whose name is not, is left
    // out; text nested deeper than kMaxNesting is refused. Failures are logged at debug on channel "json".
    [[nodiscard]] static std::error_code parse(const std::string& text, std::shared_ptr<JsonParser> root);
};

// Ignores everything; the base of every real parser, which overrides what it knows.
class JsonDefaultParser : public JsonParser {
public:
    explicit JsonDefaultParser(bool isArray = false) : isArray_(isArray) {}

    void onNull(const std::string&) override {}
    void onBool(const std::string&, bool) override {}
    void onInt(const std::string&, int64_t) override {}
    void onUint(const std::string&, uint64_t) override {}
    void onDouble(const std::string&, double) override {}
    void onString(const std::string&, const std::string&) override {}
    std::shared_ptr<JsonParser> onObject(const std::string&) override {
        return std::make_shared<JsonDefaultParser>(false);
    }
    std::shared_ptr<JsonParser> onArray(const std::string&) override {
        return std::make_shared<JsonDefaultParser>(true);
    }
    void onEnd() override {}
    [[nodiscard]] bool isObject() const override { return !isArray_; }

private:
    bool isArray_;
};

// Keeps the string members of an object; drops every other kind of value without a message.
class StringMapParser : public JsonDefaultParser {
public:
    explicit StringMapParser(std::unordered_map<std::string, std::string>& target) : target_(target) {}
    void onString(const std::string& name, const std::string& value) override { target_[name] = value; }

private:
    std::unordered_map<std::string, std::string>& target_;
};

// Appends the elements of an array to a vector: records through a parser P that is constructed with a T&.
template <typename T, typename P>
class ArrayParser : public JsonDefaultParser {
public:
    explicit ArrayParser(std::vector<T>& target) : JsonDefaultParser(true), target_(target) {}
    std::shared_ptr<JsonParser> onObject(const std::string&) override {
        return std::make_shared<P>(target_.emplace_back());
    }

private:
    std::vector<T>& target_;
};

// Strings. An object inside the array has no parser and ends the parse.
template <>
class ArrayParser<std::string, void> : public JsonDefaultParser {
public:
    explicit ArrayParser(std::vector<std::string>& target) : JsonDefaultParser(true), target_(target) {}
    void onString(const std::string&, const std::string& value) override { target_.push_back(value); }
    std::shared_ptr<JsonParser> onObject(const std::string&) override { return nullptr; }

private:
    std::vector<std::string>& target_;
};

}  // namespace velmora
