#include "core/json/textwriter.h"

namespace velmora {
namespace {

// Of a type of its own, so that the writer does without its vector code.
struct PlainBuffer : rapidjson::StringBuffer {};

}  // namespace

std::string quotedWithEscapes(const char* text, size_t length) {
    PlainBuffer buffer;
    rapidjson::Writer<PlainBuffer>(buffer).String(text, static_cast<rapidjson::SizeType>(length));
    return {buffer.GetString(), buffer.GetSize()};
}

}  // namespace velmora
