// Builds a JSON document: containers are opened and closed, values go into the one opened last, or into the root.
#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <string>

namespace velmora {

class JsonWriter {
public:
    virtual ~JsonWriter() = default;

    // The name is empty for an array element.
    virtual void startObject(const std::string& name) = 0;
    virtual void startArray(const std::string& name) = 0;

    // Close the container opened last. With `keep` false it is discarded: how a section that turned out empty is left
    // out.
    virtual void endObject(bool keep) = 0;
    virtual void endArray(bool keep) = 0;

    // One argument: an array element; two: a member. A member of that name that is already there is not looked for.
    virtual void addString(const std::string& value) = 0;
    virtual void addString(const std::string& name, const std::string& value) = 0;
    virtual void addBool(bool value) = 0;
    virtual void addBool(const std::string& name, bool value) = 0;
    virtual void addInt(int64_t value) = 0;
    virtual void addInt(const std::string& name, int64_t value) = 0;
    virtual void addUint(uint64_t value) = 0;
    virtual void addUint(const std::string& name, uint64_t value) = 0;

    // Renders the document.
    virtual void finish() = 0;
};

// On a RapidJSON document. The implementation is out of sight so that RapidJSON stays out of this header.
class JsonWriterBase : public JsonWriter {
public:
    JsonWriterBase();
    ~JsonWriterBase() override;

    void startObject(const std::string& name) override;
    void startArray(const std::string& name) override;
    void endObject(bool keep) override;
    void endArray(bool keep) override;
    void addString(const std::string& value) override;
    void addString(const std::string& name, const std::string& value) override;
    void addBool(bool value) override;
    void addBool(const std::string& name, bool value) override;
    void addInt(int64_t value) override;
    void addInt(const std::string& name, int64_t value) override;
    void addUint(uint64_t value) override;
    void addUint(const std::string& name, uint64_t value) override;

protected:
    struct Document;
    const std::unique_ptr<Document> document_;
};

// Writes into a string. If the string holds a JSON object already, the document begins with its members, so that
// further ones are appended; any other text, the empty one included, begins an empty object. finish() replaces the
// string by the document, compact or, if `pretty`, indented by 4 blanks. The string has to outlive the writer.
class JsonStringWriter : public JsonWriterBase {
public:
    explicit JsonStringWriter(std::string* target, bool pretty = false);
    void finish() override;

private:
    std::string* target_;
    bool pretty_;
};

}  // namespace velmora
