// Answers of the identity and tracking services.
#include <memory>
#include <system_error>

#include "core/json/jsonparser.h"
#include "fuzz/fuzzinput.h"
#include "service/oswin/profile.h"
#include "service/selby/trackingflag.h"

namespace {

template <typename Parser, typename Record>
void parseInto(const std::string& text) {
    Record record;
    [[maybe_unused]] const std::error_code result = velmora::JsonParser::parse(text, std::make_shared<Parser>(record));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace velmora::service;
    const std::string text = velmora::fuzz::toText(data, size);
    parseInto<oswin::ProfileParser, oswin::Profile>(text);
    parseInto<selby::TrackingFlagParser, selby::TrackingFlag>(text);
    return 0;
}
