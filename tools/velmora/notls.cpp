#include <stdexcept>

#include "tools/velmora/httpconnection.h"

namespace velmora::tool {

std::unique_ptr<TlsPort> openTlsPort(const std::string&, const std::string&) {
    throw std::runtime_error("this build of velmora serves no TLS; put a proxy in front of it");
}

}  // namespace velmora::tool
