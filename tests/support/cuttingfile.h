// A file of the disk queue that stops working at a chosen operation, as a process or a disk does.
#pragma once

#include <cstdint>
#include <limits>
#include <memory>

#include "core/platform/randomaccessfile.h"

namespace velmora::test {

// What happens to the files opened by opener(), all counted together. Copies share the count.
class CuttingFiles {
public:
    CuttingFiles();

    // Opens real files; give it to whatever opens its files by an opener.
    [[nodiscard]] platform::RandomAccessFileOpener opener() const;

    // The process dies: that many more writes are taken, the next one half or not at all, and the rest are swallowed.
    void cutAfter(uint64_t writes, bool half);

    // That many more reads and writes work, then `failures` of them fail, and then all work again.
    void failAfter(uint64_t operations, uint64_t failures);
    void failWritesAfter(uint64_t writes, uint64_t failures);

    // The disk is full: no file gets a new size.
    void refuseGrowth(bool refuse);

    [[nodiscard]] bool wasHit() const;  // whether the chosen operation has come
    [[nodiscard]] uint64_t writes() const;
    [[nodiscard]] uint64_t reads() const;

private:
    struct Plan;
    class File;
    std::shared_ptr<Plan> plan_;
};

}  // namespace velmora::test
