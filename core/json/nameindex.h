// Finds names in a list that somebody else holds, in constant time however long the list is.
//
// The index knows positions and hashes only, never the texts, so that it stays good when the list moves in memory; who
// asks hands in `nameAt`, which gives the name at a position. A short list takes no memory from the heap.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string_view>
#include <vector>

namespace velmora {

class NameIndex {
public:
    static constexpr size_t kNone = static_cast<size_t>(-1);

    // The position of a name, kNone if it has not been added.
    template <typename NameAt>
    [[nodiscard]] size_t find(std::string_view name, const NameAt& nameAt) const {
        const uint32_t hash = hashOf(name);
        for (size_t at = hash & mask_;; at = (at + 1) & mask_) {
            const Slot& slot = slots()[at];
            if (slot.number == 0) return kNone;
            if (slot.hash == hash && nameAt(slot.number - 1) == name) return slot.number - 1;
        }
    }

    // Notes that a name stands at a position. One that is there already keeps its own, which is returned.
    template <typename NameAt>
    size_t findOrAdd(std::string_view name, size_t position, const NameAt& nameAt) {
        const size_t present = find(name, nameAt);
        if (present != kNone) return present;
        if (2 * (count_ + 1) > mask_ + 1) grow();
        put({hashOf(name), static_cast<uint32_t>(position + 1)});
        ++count_;
        return position;
    }

private:
    struct Slot {
        uint32_t hash = 0;
        uint32_t number = 0;  // the position and 1, or 0 for a free slot
    };

    static constexpr size_t kSmall = 64;

    [[nodiscard]] static uint32_t hashOf(std::string_view name) noexcept {
        const size_t hash = std::hash<std::string_view>()(name);
        return static_cast<uint32_t>(hash ^ (hash >> 32));
    }
    [[nodiscard]] const Slot* slots() const { return large_.empty() ? small_.data() : large_.data(); }
    [[nodiscard]] Slot* slots() { return large_.empty() ? small_.data() : large_.data(); }

    void put(Slot slot) {
        size_t at = slot.hash & mask_;
        while (slots()[at].number != 0) at = (at + 1) & mask_;
        slots()[at] = slot;
    }
    void grow() {
        std::vector<Slot> old(slots(), slots() + mask_ + 1);
        large_.assign(4 * old.size(), Slot());
        mask_ = large_.size() - 1;
        for (const Slot& slot : old) {
            if (slot.number != 0) put(slot);
        }
    }

    std::array<Slot, kSmall> small_{};
    std::vector<Slot> large_;  // in use once it is not empty
    size_t mask_ = kSmall - 1;
    size_t count_ = 0;
};

}  // namespace velmora
