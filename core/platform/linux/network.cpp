#include <ifaddrs.h>
#include <net/if.h>
#include <net/if_arp.h>
#include <netpacket/packet.h>
#include <sys/socket.h>

#include <algorithm>
#include <boost/filesystem/operations.hpp>
#include <cerrno>
#include <memory>
#include <string>

#include "core/platform/netstate.h"
#include "core/platform/sysfacts.h"

namespace velmora::platform {
namespace {

namespace fs = boost::filesystem;

using Interfaces = std::unique_ptr<ifaddrs, decltype(&::freeifaddrs)>;

// Empty if the system refuses; `code` then holds its number.
Interfaces queryInterfaces(int& code) noexcept {
    ifaddrs* list = nullptr;
    if (::getifaddrs(&list) != 0) code = errno;
    return {list, &::freeifaddrs};
}

const sockaddr_ll* hardwareAddress(const ifaddrs& interface) {
    if (interface.ifa_addr == nullptr || interface.ifa_addr->sa_family != AF_PACKET) return nullptr;
    return reinterpret_cast<const sockaddr_ll*>(interface.ifa_addr);
}

bool isEthernet(const sockaddr_ll& address) {
    const auto* const end = address.sll_addr + std::min<size_t>(address.sll_halen, sizeof address.sll_addr);
    return address.sll_hatype == ARPHRD_ETHER && std::any_of(address.sll_addr, end, [](uint8_t b) { return b != 0; });
}

// Bridges, tunnels and container links look like Ethernet as well, and their addresses change from run to run.
bool isPhysical(const std::string& name) {
    boost::system::error_code ignored;
    const fs::path facts = fs::path("/sys/class/net") / name;
    return fs::exists(facts / "device", ignored) && !fs::exists(facts / "wireless", ignored);
}

}  // namespace

bool isNetworkAlive() noexcept {
    int code = 0;
    const Interfaces interfaces = queryInterfaces(code);
    bool anyAdapter = false;
    for (const ifaddrs* each = interfaces.get(); each != nullptr; each = each->ifa_next) {
        if ((each->ifa_flags & IFF_LOOPBACK) != 0) continue;
        if ((each->ifa_flags & IFF_UP) != 0 && (each->ifa_flags & IFF_RUNNING) != 0) return true;
        anyAdapter = true;
    }
    return !anyAdapter;
}

AdapterAddress firstEthernetAddress() {
    AdapterAddress result;
    const Interfaces interfaces = queryInterfaces(result.code);
    if (result.code != 0) {
        result.outcome = result.code == ENOMEM ? AdapterOutcome::outOfMemory : AdapterOutcome::failed;
        return result;
    }
    for (const ifaddrs* each = interfaces.get(); each != nullptr; each = each->ifa_next) {
        const sockaddr_ll* const address = hardwareAddress(*each);
        if (address == nullptr || !isEthernet(*address)) continue;
        const bool physical = isPhysical(each->ifa_name);
        if (result.outcome == AdapterOutcome::found && !physical) continue;
        result.outcome = AdapterOutcome::found;
        result.bytes.assign(address->sll_addr, address->sll_addr + address->sll_halen);
        if (physical) break;
    }
    return result;
}

}  // namespace velmora::platform
