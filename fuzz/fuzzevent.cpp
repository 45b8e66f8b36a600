// Event texts of hosts: whatever two texts are merged, the result is an object, and merging it again adds nothing.
#include <algorithm>

#include "core/json/jsontext.h"
#include "core/json/mergejson.h"
#include "fuzz/fuzzinput.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace velmora;
    auto [text, extra] = fuzz::splitInTwo(fuzz::toText(data, size));
    const bool bothValid = validJSON(text) && validJSON(extra);
    mergeJSON(text, extra);
    if (bothValid) {
        fuzz::require(validJSON(text));
        std::string again = text;
        mergeJSON(again, text);
        fuzz::require(validJSON(again));
        // A name that stands twice is merged into its first. The last digits of a fraction may change at each reading.
        fuzz::require(std::count(again.begin(), again.end(), '"') <= std::count(text.begin(), text.end(), '"'));
    }
    [[maybe_unused]] const std::string pretty = prettyPrint(extra);
    return 0;
}
