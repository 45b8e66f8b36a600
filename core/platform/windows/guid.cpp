#include "core/platform/guid.h"

#include <objbase.h>

#include <algorithm>
#include <system_error>

namespace velmora::platform {

std::array<uint8_t, 16> newGuid() {
    GUID guid{};
    const HRESULT result = ::CoCreateGuid(&guid);
    if (FAILED(result)) throw std::system_error(result, std::system_category(), "CoCreateGuid");
    std::array<uint8_t, 16> bytes{
        static_cast<uint8_t>(guid.Data1 >> 24), static_cast<uint8_t>(guid.Data1 >> 16),
        static_cast<uint8_t>(guid.Data1 >> 8),  static_cast<uint8_t>(guid.Data1),
        static_cast<uint8_t>(guid.Data2 >> 8),  static_cast<uint8_t>(guid.Data2),
        static_cast<uint8_t>(guid.Data3 >> 8),  static_cast<uint8_t>(guid.Data3),
    };
    std::copy_n(guid.Data4, 8, bytes.begin() + 8);
    return bytes;
}

}  // namespace velmora::platform
