// What events want to know about the machine. Each function asks the system anew; those that may fail return whether
// they filled `out`, and the caller then leaves the attribute out. Nothing throws. Messages go to channel "sysinfo".
#pragma once

#include <cstdint>
#include <string>

namespace velmora::sysinfo {

bool getOSVersion(std::string& out);  // major.minor.build; always true
bool getProcessorName(std::string& out);
bool getProcessorSpeed(uint64_t& out);  // hertz
bool getNumCores(uint64_t& out);        // always true
void getProcessorArchitecture(std::string& out);
void getProcessBitness(std::string& out);
bool getPlatform(std::string& out);  // for example Win-x64:64; asked once per process; always true
bool getDeviceGuid(std::string& out);
bool getDeviceName(std::string& out);         // manufacturer_family_product
bool getDisplayResolution(std::string& out);  // 1920x1080; always true
bool getDiskSize(uint64_t& out);              // bytes of the system's volume
bool getRAMSize(uint64_t& out);               // bytes
bool getPrimaryMACAddress(std::string& out);
bool getLocale(std::string& out);           // en-US
bool getPenTouchSupport(std::string& out);  // always true
bool getUserAgent(std::string& out);        // "unknown" on failure
bool getConnectionType(std::string& out);   // always false
std::string getEnvironmentVariable(const char* name);

}  // namespace velmora::sysinfo
