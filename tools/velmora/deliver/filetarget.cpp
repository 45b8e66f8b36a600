#include "tools/velmora/deliver/filetarget.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string_view>

#include "core/types/function.h"

namespace velmora::tool {
namespace {

constexpr int kPrivate = 0600;

std::string failure(const std::string& what, const std::string& path) {
    return "can't " + what + " " + path + ": " + std::strerror(errno);
}

void require(bool done, const char* what, const std::string& path) {
    if (!done) throw TargetAway(failure(what, path));
}

void writeAll(int descriptor, std::string_view text, const std::string& path) {
    while (!text.empty()) {
        const ssize_t count = ::write(descriptor, text.data(), text.size());
        if (count < 0 && errno == EINTR) continue;
        require(count > 0, "write", path);
        text.remove_prefix(static_cast<size_t>(count));
    }
}

}  // namespace

FileTarget::Descriptor::~Descriptor() {
    if (number >= 0) ::close(number);
}

FileTarget::FileTarget(std::string path)
    : path_(std::move(path)), file_{::open(path_.c_str(), O_RDWR | O_CREAT | O_APPEND | O_CLOEXEC, kPrivate)} {
    if (file_.number < 0) throw std::runtime_error(failure("open", path_));
    lock();
    readPosition();
}

void FileTarget::lock() const {
    if (::flock(file_.number, LOCK_EX | LOCK_NB) == 0) return;
    throw std::runtime_error(errno == EWOULDBLOCK ? path_ + " is written by another deliverer"
                                                  : failure("lock", path_));
}

void FileTarget::readPosition() {
    const off_t size = ::lseek(file_.number, 0, SEEK_END);
    if (size < 0) throw std::runtime_error(failure("measure", path_));
    const std::string name = path_ + ".position";
    std::ifstream position(name);
    if (position.is_open() && !(position >> length_ >> sequence_))
        throw std::runtime_error(name + " is damaged: write the length of " + path_ +
                                 " and the sequence of its last message into it, or remove both files");
    if (!position.is_open()) length_ = static_cast<uint64_t>(size);
    if (static_cast<uint64_t>(size) < length_)
        throw std::runtime_error(path_ + " is shorter than " + name +
                                 " says: somebody else has changed it; move both away");
    if (::ftruncate(file_.number, static_cast<off_t>(length_)) != 0) throw std::runtime_error(failure("cut", path_));
    if (!position.is_open()) writePosition(length_, sequence_);
}

void FileTarget::writePosition(uint64_t length, uint64_t sequence) const {
    const std::string name = path_ + ".position";
    const std::string part = name + ".part";
    const int descriptor = ::open(part.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, kPrivate);
    require(descriptor >= 0, "open", part);
    const ScopeExit close([descriptor] { ::close(descriptor); });
    writeAll(descriptor, std::to_string(length) + " " + std::to_string(sequence) + "\n", part);
    require(::fsync(descriptor) == 0, "sync", part);
    require(std::rename(part.c_str(), name.c_str()) == 0, "rename", part);
}

void FileTarget::begin(const Delivery& delivery) { delivery_ = &delivery; }

DeliveryCounts FileTarget::finish() {
    DeliveryCounts counts;
    std::string lines;
    uint64_t sequence = sequence_;
    for (const LogMessage& message : delivery_->messages) {
        if (message.sequence <= sequence) {
            ++counts.repeated;
            continue;
        }
        sequence = message.sequence;
        const size_t begin = lines.size();
        lines += message.text();
        // Line ends stand only between the tokens of a JSON text.
        std::replace_if(
            lines.begin() + static_cast<std::ptrdiff_t>(begin), lines.end(),
            [](char c) { return c == '\n' || c == '\r'; }, ' ');
        lines += '\n';
        ++counts.stored;
    }
    if (lines.empty()) return counts;
    // What an earlier attempt left behind the known end goes first.
    require(::ftruncate(file_.number, static_cast<off_t>(length_)) == 0, "cut", path_);
    writeAll(file_.number, lines, path_);
    require(::fdatasync(file_.number) == 0, "sync", path_);
    writePosition(length_ + lines.size(), sequence);
    length_ += lines.size();
    sequence_ = sequence;
    return counts;
}

}  // namespace velmora::tool
