// Builds a JSON document: containers are opened and closed, values go into the one opened last, or into the root, which
// is an object. The document is written into a string at finish().
//
// If the string holds a JSON object already, the document begins with its members, so that further ones are appended;
// any other text, the empty one included, begins an empty object. A member of a name that is there already is not
// looked for. One thread at a time. Every operation but finish() throws std::logic_error for a call that does not fit
// what is open, and leaves the document as it was.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

namespace velmora {

class JsonWriter {
public:
    // The string has to outlive the writer; it is not touched before finish(). `pretty` indents by 4 blanks.
    explicit JsonWriter(std::string* target, bool pretty = false);
    ~JsonWriter();

    // The name is empty for an array element.
    void startObject(const std::string& name);
    void startArray(const std::string& name);

    // Closes the container opened last. Without `keep` it is discarded: how a section that turned out empty is left
    // out.
    void endObject(bool keep);
    void endArray(bool keep);

    // With a name members of an object, without one elements of an array.
    void addString(const std::string& value);
    void addString(const std::string& name, const std::string& value);
    void addBool(bool value);
    void addBool(const std::string& name, bool value);
    void addInt(int64_t value);
    void addInt(const std::string& name, int64_t value);
    void addUint(uint64_t value);
    void addUint(const std::string& name, uint64_t value);

    // Replaces the string by the document; containers that are still open are not part of it.
    void finish();

private:
    struct Document;

    std::string* const target_;
    const bool pretty_;
    const std::unique_ptr<Document> document_;
};

}  // namespace velmora
