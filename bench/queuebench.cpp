// The disk queue beside the system calls it can't do without.
#include <benchmark/benchmark.h>

#include <boost/filesystem/operations.hpp>
#include <string>
#include <vector>

#include "core/queue/queuestorage.h"

namespace {

namespace fs = boost::filesystem;
using velmora::Path;
using velmora::QueueStorage;

constexpr uint64_t kFileSize = 10485760 + velmora::kQueueHeaderSize;
constexpr size_t kRecordSize = 2048;
constexpr uint64_t kBatch = 50;

struct ScratchFile {
    fs::path path = fs::temp_directory_path() / fs::unique_path("velmora-bench-%%%%-%%%%");
    ~ScratchFile() {
        boost::system::error_code ignored;
        fs::remove(path, ignored);
    }
};

void pushFloor(benchmark::State& state) {
    const ScratchFile scratch;
    auto file = velmora::platform::openSystemFile(scratch.path, true);
    if (!file->resize(kFileSize)) state.SkipWithError("no space");
    const std::string record(kRecordSize, 'x');
    const auto length = static_cast<uint32_t>(record.size());
    const char slot[velmora::kQueueSlotSize] = {};
    uint8_t selector = 0;
    uint64_t position = velmora::kQueueHeaderSize;
    for (auto _ : state) {
        bool done = file->write(position, &length, sizeof length);
        done = done && file->write(position + sizeof length, record.data(), record.size());
        selector ^= 1U;
        done = done && file->write(velmora::queueSlotPosition(selector), slot, sizeof slot);
        done = done && file->write(velmora::kQueueSelectorPosition, &selector, sizeof selector);
        if (!done) state.SkipWithError("write failed");
        position += kRecordSize + sizeof length;
        if (position + kRecordSize + sizeof length > kFileSize) position = velmora::kQueueHeaderSize;
    }
}
BENCHMARK(pushFloor);

// Pops are made between the measured pushes, so that the ring never fills: both benchmarks write a warm file.
void push(benchmark::State& state) {
    const ScratchFile scratch;
    QueueStorage queue(Path(scratch.path), kFileSize, velmora::platform::openSystemFile);
    const std::string record(kRecordSize, 'x');
    for (auto _ : state) {
        if (!queue.pushRecord(record)) state.SkipWithError("write failed");
        if (queue.recordCount() < 4000) continue;
        state.PauseTiming();
        queue.popRecords(4000);
        state.ResumeTiming();
    }
}
BENCHMARK(push);

void fill(QueueStorage& queue) {
    const std::string record(kRecordSize, 'x');
    while (queue.recordCount() < 4000 && queue.pushRecord(record)) {
    }
}

void batchFloor(benchmark::State& state) {
    const ScratchFile scratch;
    QueueStorage queue(Path(scratch.path), kFileSize, velmora::platform::openSystemFile);
    fill(queue);
    auto file = velmora::platform::openSystemFile(scratch.path, false);
    const char slot[velmora::kQueueSlotSize] = {};
    uint8_t selector = 0;
    uint64_t position = velmora::kQueueHeaderSize;
    for (auto _ : state) {
        std::vector<std::string> records;
        bool done = true;
        for (uint64_t i = 0; i < kBatch; ++i) {
            uint32_t length = 0;
            done = done && file->read(position, &length, sizeof length);
            std::string& record = records.emplace_back(kRecordSize, '\0');
            done = done && file->read(position + sizeof length, record.data(), record.size());
            position += kRecordSize + sizeof length;
        }
        selector ^= 1U;
        done = done && file->write(velmora::queueSlotPosition(selector), slot, sizeof slot);
        done = done && file->write(velmora::kQueueSelectorPosition, &selector, sizeof selector);
        if (!done) state.SkipWithError("input or output failed");
        benchmark::DoNotOptimize(records);
        if (position > kFileSize - kBatch * (kRecordSize + sizeof(uint32_t))) position = velmora::kQueueHeaderSize;
    }
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(kBatch));
}
BENCHMARK(batchFloor);

void peekAndPopBatch(benchmark::State& state) {
    const ScratchFile scratch;
    QueueStorage queue(Path(scratch.path), kFileSize, velmora::platform::openSystemFile);
    fill(queue);
    for (auto _ : state) {
        std::vector<std::string> records;
        queue.peekRecords(queue.header(), kBatch, records);
        queue.popRecords(kBatch);
        benchmark::DoNotOptimize(records);
        if (queue.recordCount() >= kBatch) continue;
        state.PauseTiming();
        fill(queue);
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(kBatch));
}
BENCHMARK(peekAndPopBatch);

}  // namespace
