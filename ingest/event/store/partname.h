// The name of a part file, as a manifest lists it.
#pragma once

#include <algorithm>
#include <string>
#include <string_view>
#include <utility>

namespace velmora {

class PartName {
public:
    PartName() = default;
    explicit PartName(std::string name) : name_(std::move(name)) {}

    [[nodiscard]] const std::string& string() const noexcept { return name_; }

    // Whether it can only mean a file in the manifest's own folder. A name out of a damaged manifest may not.
    [[nodiscard]] bool isPlain() const noexcept {
        return !name_.empty() && name_.front() != '.' && std::all_of(name_.begin(), name_.end(), isNameCharacter);
    }

    friend bool operator==(const PartName&, const PartName&) = default;

private:
    static bool isNameCharacter(char c) noexcept {
        return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '-' || c == '_' ||
               c == '.';
    }

    std::string name_;
};

// What the queue writes for a value.
[[nodiscard]] inline std::string_view recordBytes(const PartName& name) noexcept { return name.string(); }

}  // namespace velmora
