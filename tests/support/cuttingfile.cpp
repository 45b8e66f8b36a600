#include "tests/support/cuttingfile.h"

#include <utility>

namespace velmora::test {

struct CuttingFiles::Plan {
    enum class Fault { none, cut, failure, writeFailure } fault = Fault::none;
    uint64_t remaining = 0;
    uint64_t failures = 0;
    bool half = false;
    bool hit = false;
    bool growthRefused = false;
    uint64_t writes = 0;
    uint64_t reads = 0;

    void arm(Fault chosen, uint64_t before, uint64_t times) {
        fault = chosen;
        remaining = before;
        failures = times;
        hit = false;
    }

    // Whether this operation is one of those that do not work.
    bool strikes() {
        if (remaining > 0) {
            --remaining;
            return false;
        }
        if (failures == 0) return false;
        --failures;
        hit = true;
        return true;
    }
};

class CuttingFiles::File final : public platform::RandomAccessFile {
public:
    File(std::unique_ptr<platform::RandomAccessFile> real, std::shared_ptr<Plan> plan)
        : real_(std::move(real)), plan_(std::move(plan)) {}

    bool read(uint64_t offset, void* buffer, size_t size) noexcept override {
        ++plan_->reads;
        if (plan_->fault == Plan::Fault::failure && plan_->strikes()) return false;
        return real_->read(offset, buffer, size);
    }

    bool write(uint64_t offset, const void* data, size_t size) noexcept override {
        ++plan_->writes;
        if (plan_->fault == Plan::Fault::none || !plan_->strikes()) return real_->write(offset, data, size);
        if (plan_->fault != Plan::Fault::cut) return false;
        const bool half = std::exchange(plan_->half, false);
        return !half || real_->write(offset, data, size / 2);
    }

    bool resize(uint64_t bytes) noexcept override { return !plan_->growthRefused && real_->resize(bytes); }

    bool size(uint64_t& bytes) noexcept override { return real_->size(bytes); }

private:
    const std::unique_ptr<platform::RandomAccessFile> real_;
    const std::shared_ptr<Plan> plan_;
};

CuttingFiles::CuttingFiles() : plan_(std::make_shared<Plan>()) {}

platform::RandomAccessFileOpener CuttingFiles::opener() const {
    return [plan = plan_](const boost::filesystem::path& path,
                          bool create) -> std::unique_ptr<platform::RandomAccessFile> {
        auto real = platform::openSystemFile(path, create);
        if (!real) return nullptr;
        return std::make_unique<File>(std::move(real), plan);
    };
}

void CuttingFiles::cutAfter(uint64_t writes, bool half) {
    plan_->arm(Plan::Fault::cut, writes, std::numeric_limits<uint64_t>::max());
    plan_->half = half;
}

void CuttingFiles::failAfter(uint64_t operations, uint64_t failures) {
    plan_->arm(Plan::Fault::failure, operations, failures);
}

void CuttingFiles::failWritesAfter(uint64_t writes, uint64_t failures) {
    plan_->arm(Plan::Fault::writeFailure, writes, failures);
}

void CuttingFiles::refuseGrowth(bool refuse) { plan_->growthRefused = refuse; }

bool CuttingFiles::wasHit() const { return plan_->hit; }
uint64_t CuttingFiles::writes() const { return plan_->writes; }
uint64_t CuttingFiles::reads() const { return plan_->reads; }

}  // namespace velmora::test
