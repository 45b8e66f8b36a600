// The whole road of an event through the C interface: what a submit costs on the host's thread, and what the drain of a
// batch costs per event, each beside the same work by hand on the same libraries. Percentiles are taken over single
// calls, in microseconds.
#include <benchmark/benchmark.h>
#include <rapidjson/document.h>
#include <sqlite3.h>
#include <velmora/velmora.h>
#include <zlib.h>

#include <algorithm>
#include <boost/filesystem/operations.hpp>
#include <chrono>
#include <cstring>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "bench/byhand.h"
#include "core/crypt/crypt.h"
#include "core/filesystem/filesystem.h"
#include "core/platform/randomaccessfile.h"
#include "core/utils/strings.h"
#include "core/utils/timestamps.h"
#include "ingest/event/store/eventstore.h"

namespace velmora {
namespace {

namespace fs = boost::filesystem;
using Clock = std::chrono::steady_clock;

constexpr char kGuid[] = "bench";
constexpr uint64_t kPartSize = 10485760;
constexpr int kBatch = 50;

constexpr char kHostEvent[] =
    R"({"event.workflow":"Export","event.category":"DESKTOP","event.subcategory":"Document","event.type":"click",)"
    R"("event.subtype":"save-as","event.value":"1048576","event.count":"3","event.url":"https://host.example/a/b",)"
    R"("context.guid":"0d1f8a52-6a0e-4b6e-9b8e-3f1c2d4e5f60","context.params":"format=pdf;pages=12;quality=high"})";

std::atomic<uint32_t> answers = 0;

// A host that answers 200 from within its send callback.
int32_t answerAtOnce(void* session, int32_t, const char*, int32_t, void* context, uint32_t* requestId) {
    *requestId = ++answers;
    static thread_local std::vector<velmora_http_header> headers(8);
    static thread_local std::vector<char> body(1 << 20);
    uint32_t count = 0;
    uint64_t written = 0;
    velmora_http_onRequestHeaders(session, headers.data(), 8, &count, context);
    velmora_http_onRequestBody(session, 0, body.data(), &written, body.size(), context);
    velmora_http_onResponseStatus(session, "HTTP/1.1", 200, "OK", context);
    velmora_http_onCompletion(session, 0, "", context);
    return 0;
}

// The library, once per process, below a scratch folder.
class Library {
public:
    static Library& get() {
        static auto& library = *new Library;
        return library;
    }

    velmora_ingest_instance start(bool online, const char* guid = kGuid) {
        velmora_ingest_instance instance = nullptr;
        online ? velmora_online() : velmora_offline();
        velmora_ingest_start(guid, commonData_.c_str(), nullptr, &instance);
        return instance;
    }

    void clear() { fs::remove_all(root_ / "com.orvane.velmora"); }

    const std::string& stored() const { return stored_; }
    Path store(const char* guid = kGuid) const {
        return Filesystem::getDataFolder(false) / guid / "v1" / "0" / "anon_events";
    }

private:
    Library() : root_(fs::temp_directory_path() / fs::unique_path("velmora-bench-%%%%-%%%%")) {
        fs::create_directories(root_);
        Filesystem::setRootPath(Path(root_));
        velmora_setLogLevel(VELMORA_LOG_WARN);
        velmora_http_setNewSessionCallback([]() -> void* { return new int(0); });
        velmora_http_setDeleteSessionCallback([](void* session) { delete static_cast<int*>(session); });
        velmora_http_setSendRequestCallback(answerAtOnce);
        velmora_http_setCancelRequestCallback([](void*, uint32_t) -> int32_t { return 2; });
        velmora_setIngestConfig(kGuid, 0, "bench-project", "key", 0, 0, VELMORA_CONSENT_GRANTED);
        // Attributes until a stored event has about 2 KB.
        commonData_ = "{";
        for (int i = 0; i < 9; ++i) {
            commonData_ += (i == 0 ? "\"" : ",\"") + ("source.attribute_" + std::to_string(i)) + "\":\"" +
                           std::string(70, 'x') + "\"";
        }
        commonData_ += "}";
        const auto instance = start(false);
        velmora_ingest_submitAnonEvent(instance, kHostEvent, 1);
        velmora_ingest_stop(instance);
        stored_ = Crypt("cobalt").decrypt(
            EventStore(store(), nullptr, {"", kPartSize, kPartSize * 10, kPartSize}).peek(1).records.at(0));
        clear();
    }

    fs::path root_;
    std::string commonData_;
    std::string stored_;
};

class Percentiles {
public:
    template <typename Call>
    void time(Call call) {
        const auto begin = Clock::now();
        call();
        micros_.push_back(std::chrono::duration<double, std::micro>(Clock::now() - begin).count());
    }

    void report(benchmark::State& state) {
        std::sort(micros_.begin(), micros_.end());
        state.counters["p50_us"] = micros_[micros_.size() / 2];
        state.counters["p99_us"] = micros_[micros_.size() * 99 / 100];
    }

private:
    std::vector<double> micros_;
};

// The stored envelope without the host's own attributes.
void readyEnvelope(rapidjson::Document& ready) {
    ready.Parse(Library::get().stored().c_str());
    rapidjson::Document host;
    host.Parse(kHostEvent);
    for (const auto& member : host.GetObject()) ready["data"].RemoveMember(member.name);
}

// Writes records one behind the other into a preallocated file, as a push does: length, payload, slot, selector.
class FloorFile {
public:
    FloorFile() : path_(fs::temp_directory_path() / fs::unique_path("velmora-bench-%%%%")) {
        file_ = platform::openSystemFile(path_, true);
        fs::resize_file(path_, kPartSize);
        if (!file_->resize(kPartSize)) throw std::runtime_error("no space for the floor's file");
    }
    ~FloorFile() {
        file_.reset();
        fs::remove(path_);
    }

    bool push(const std::string& record) {
        const auto length = static_cast<uint32_t>(record.size());
        if (position_ + sizeof length + record.size() > kPartSize) position_ = 144;
        const char slot[64] = {};
        bool done = file_->write(position_, &length, sizeof length);
        done = file_->write(position_ + sizeof length, record.data(), record.size()) && done;
        done = file_->write(16, slot, sizeof slot) && done;
        done = file_->write(8, slot, 1) && done;
        position_ += sizeof length + record.size();
        return done;
    }

    std::string read(uint64_t index, size_t size) {
        std::string record(size, '\0');
        if (!file_->read(144 + index * (size + 4) + 4, record.data(), size)) record.clear();
        return record;
    }

private:
    fs::path path_;
    std::unique_ptr<platform::RandomAccessFile> file_;
    uint64_t position_ = 144;
};

void BM_SubmitFloor(benchmark::State& state) {
    rapidjson::Document ready;
    readyEnvelope(ready);
    const Crypt crypt("cobalt");
    FloorFile file;
    Percentiles latency;
    for (auto _ : state) {
        latency.time([&] {
            rapidjson::Document host;
            host.Parse(kHostEvent);
            rapidjson::Document event;
            event.CopyFrom(ready, event.GetAllocator());
            bench::mergeByHand(event["data"], host, event.GetAllocator());
            benchmark::DoNotOptimize(makeGuid());
            benchmark::DoNotOptimize(currentTimeLocalMillis());
            benchmark::DoNotOptimize(file.push(crypt.encrypt(bench::renderByHand(event))));
        });
    }
    latency.report(state);
}
BENCHMARK(BM_SubmitFloor)->Iterations(40000);

void BM_SubmitSqlite(benchmark::State& state) {
    const fs::path path = fs::temp_directory_path() / fs::unique_path("velmora-bench-%%%%.db");
    sqlite3* db = nullptr;
    sqlite3_open(path.string().c_str(), &db);
    sqlite3_exec(db, "PRAGMA journal_mode=WAL; PRAGMA synchronous=NORMAL; CREATE TABLE e(t TEXT)", nullptr, nullptr,
                 nullptr);
    sqlite3_stmt* insert = nullptr;
    sqlite3_prepare_v2(db, "INSERT INTO e VALUES(?)", -1, &insert, nullptr);
    const std::string& text = Library::get().stored();
    Percentiles latency;
    for (auto _ : state) {
        latency.time([&] {
            sqlite3_bind_text(insert, 1, text.data(), static_cast<int>(text.size()), SQLITE_STATIC);
            sqlite3_step(insert);
            sqlite3_reset(insert);
        });
    }
    latency.report(state);
    sqlite3_finalize(insert);
    sqlite3_close(db);
    for (const char* suffix : {"", "-wal", "-shm"}) fs::remove(path.string() + suffix);
}
BENCHMARK(BM_SubmitSqlite)->Iterations(40000);

void BM_SubmitEvent(benchmark::State& state) {
    const auto instance = Library::get().start(false);
    Percentiles latency;
    for (auto _ : state) {
        latency.time([&] { velmora_ingest_submitEvent(instance, kHostEvent, 1, 0, VELMORA_VALIDATE_CONFIGURED); });
    }
    latency.report(state);
    state.counters["bytes"] = static_cast<double>(Library::get().stored().size());
    velmora_ingest_stop(instance);
    Library::get().clear();
}
BENCHMARK(BM_SubmitEvent)->Iterations(40000);

// With batches going out beside it, to a host that answers at once. The pause keeps the drain from falling behind.
void BM_SubmitWhileDraining(benchmark::State& state) {
    const auto instance = Library::get().start(true);
    Percentiles latency;
    for (auto _ : state) {
        latency.time([&] { velmora_ingest_submitEvent(instance, kHostEvent, 1, 0, VELMORA_VALIDATE_CONFIGURED); });
        std::this_thread::sleep_for(std::chrono::microseconds(30));
    }
    latency.report(state);
    velmora_ingest_stop(instance);
    Library::get().clear();
}
BENCHMARK(BM_SubmitWhileDraining)->Iterations(20000);

// One iteration is one event.
void BM_DrainFloor(benchmark::State& state) {
    const Crypt crypt("cobalt");
    const std::string record = crypt.encrypt(Library::get().stored());
    FloorFile file;
    for (int i = 0; i < kBatch; ++i) file.push(record);
    rapidjson::Document attributes;
    attributes.Parse(R"({"entity.env":{"user_agent":"bench"},"event.user_agent":"bench"})");
    while (state.KeepRunningBatch(kBatch)) {
        std::string body = "{\"events\":[";
        for (uint64_t i = 0; i < kBatch; ++i) {
            rapidjson::Document event;
            event.Parse(crypt.decrypt(file.read(i, record.size())).c_str());
            bench::mergeByHand(event["data"], attributes, event.GetAllocator());
            body += (i == 0 ? "\n" : ",\n") + bench::renderByHand(event);
        }
        body += "\n]}";
        z_stream stream{};
        deflateInit2(&stream, -1, Z_DEFLATED, 31, 8, Z_DEFAULT_STRATEGY);
        std::string zipped(body.size(), '\0');
        stream.next_in = reinterpret_cast<Bytef*>(body.data());
        stream.avail_in = static_cast<uInt>(body.size());
        stream.next_out = reinterpret_cast<Bytef*>(zipped.data());
        stream.avail_out = static_cast<uInt>(zipped.size());
        deflate(&stream, Z_FINISH);
        deflateEnd(&stream);
        benchmark::DoNotOptimize(zipped.data());
    }
}
BENCHMARK(BM_DrainFloor)->Iterations(kBatch * 200)->UseRealTime();

void BM_Drain(benchmark::State& state) {
    const auto instance = Library::get().start(false);
    while (state.KeepRunningBatch(kBatch * 400)) {
        state.PauseTiming();
        velmora_offline();
        for (int i = 0; i < kBatch * 400; ++i) velmora_ingest_submitAnonEvent(instance, kHostEvent, 1);
        state.ResumeTiming();
        const uint32_t last = answers + 400;  // a flush would round the time up to the step in which it waits
        velmora_online();
        while (answers < last) std::this_thread::sleep_for(std::chrono::microseconds(100));
    }
    velmora_ingest_stop(instance);
    Library::get().clear();
}
BENCHMARK(BM_Drain)->Iterations(kBatch * 400)->UseRealTime();

// Start and stop of an instance whose line holds that many full part files.
void BM_Start(benchmark::State& state) {
    Library& library = Library::get();
    {
        EventStore store(library.store(), nullptr, {"main", kPartSize, kPartSize * 200, ~0ULL});
        const std::string record(1 << 20, 'x');
        const auto perPart = kPartSize / (record.size() + 4);
        for (int64_t i = 0; i < state.range(0) * static_cast<int64_t>(perPart); ++i) store.push(record);
    }
    for (auto _ : state) velmora_ingest_stop(library.start(false));
    library.clear();
}
BENCHMARK(BM_Start)->ArgName("parts")->Arg(1)->Arg(10)->Arg(100)->Iterations(20)->UseRealTime()->Unit(
    benchmark::kMicrosecond);

}  // namespace
}  // namespace velmora
