// A queue file of any content: the reader ends and stays inside the file; the queue either keeps it or begins anew, and
// works afterwards.
#include <unistd.h>

#include <fstream>
#include <vector>

#include "core/queue/queuereader.h"
#include "core/queue/queuestorage.h"
#include "core/types/errors.h"
#include "fuzz/fuzzinput.h"

namespace {

using velmora::fuzz::require;

std::string scratchFile() {
    static const std::string path = "/tmp/velmora-fuzz-" + std::to_string(getpid());
    return path;
}

void readAll() {
    velmora::QueueReader reader{velmora::Path(scratchFile())};
    std::string bytes;
    while (const auto record = reader.next()) {
        require(record->position + record->length <= reader.fileSize());
        require(reader.read(*record, bytes) && bytes.size() == record->length);
    }
}

void useAsQueue() {
    constexpr uint64_t kMaximumSize = 4096;
    velmora::QueueStorage queue(velmora::Path(scratchFile()), kMaximumSize, velmora::platform::openSystemFile);
    try {
        std::vector<std::string> records;
        queue.peekRecords(queue.header(), queue.recordCount(), records);
        queue.popRecords(records.size());
        require(queue.pushRecord("one more"));
    } catch (const velmora::FQException&) {
        queue.recreate();
        require(queue.pushRecord("the first"));
        require(queue.recordCount() == 1);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::ofstream(scratchFile(), std::ios::binary)
        .write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
    readAll();
    useAsQueue();
    return 0;
}
