#include "service/ingest/csvparser.h"

#include <array>
#include <fstream>
#include <string_view>

#include "core/filesystem/filesystem.h"

namespace velmora::csv {
namespace {

constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";
constexpr std::string_view kWhiteSpace = " \t\n\v\f\r";

std::string readFile(const Path& file) {
    std::ifstream stream;
    if (!Filesystem::open(stream, file, std::ios::in | std::ios::binary)) {
        throw Error(Error::kNotOpened, "failed to open " + file.string());
    }
    std::string text;
    std::array<char, 65536> block;
    while (stream.read(block.data(), block.size()), stream.gcount() > 0) {
        text.append(block.data(), static_cast<size_t>(stream.gcount()));
    }
    if (stream.bad()) throw Error(Error::kNotOpened, "failed to open " + file.string());
    return text;
}

// The next line of the rest, which is shortened by it.
std::string_view takeLine(std::string_view& rest) {
    const size_t end = rest.find('\n');
    std::string_view line = rest.substr(0, end);
    rest.remove_prefix(end == std::string_view::npos ? rest.size() : end + 1);
    if (end != std::string_view::npos && !line.empty() && line.back() == '\r') line.remove_suffix(1);
    return line;
}

std::vector<std::string_view> split(std::string_view line, char separator) {
    std::vector<std::string_view> cells;
    bool inQuotes = false;
    size_t start = 0;
    for (size_t i = 0; i < line.size(); ++i) {
        if (line[i] == '"') inQuotes = !inQuotes;
        if (line[i] != separator || inQuotes) continue;
        cells.push_back(line.substr(start, i - start));
        start = i + 1;
    }
    cells.push_back(line.substr(start));
    return cells;
}

std::string_view trim(std::string_view text) {
    const size_t first = text.find_first_not_of(kWhiteSpace);
    if (first == std::string_view::npos) return {};
    return text.substr(first, text.find_last_not_of(kWhiteSpace) - first + 1);
}

std::string undoubleQuotes(std::string_view text) {
    std::string result;
    result.reserve(text.size());
    for (size_t i = 0; i < text.size(); ++i) {
        if (text.substr(i, 2) == "\"\"") ++i;
        result += text[i];
    }
    return result;
}

std::string clean(std::string_view raw, size_t line) {
    const std::string_view cell = trim(raw);
    const bool isOpened = !cell.empty() && cell.front() == '"';
    const bool isClosed = cell.size() >= 2 && cell.back() == '"';
    if (cell.size() >= 3 && isOpened && cell[1] != '"' && !isClosed) {
        throw Error(Error::kCorrupted, "invalid quotation: " + std::string(cell), line);
    }
    return isOpened && isClosed ? undoubleQuotes(cell.substr(1, cell.size() - 2)) : std::string(cell);
}

}  // namespace

std::pair<std::string, std::string> Row::operator[](size_t index) const {
    if (index >= cells_.size()) throw Error(Error::kNoSuchValue, "can't return this value (doesn't exist)", line_);
    return {(*names_)[index], cells_[index]};
}

Parser::Parser(const Path& file, char separator) { parse(readFile(file), file.string(), separator); }

Parser Parser::fromText(const std::string& text, const std::string& name, char separator) {
    Parser parser;
    parser.parse(text, name, separator);
    return parser;
}

void Parser::parse(const std::string& text, const std::string& name, char separator) {
    std::string_view rest = text;
    if (rest.starts_with(kByteOrderMark)) rest.remove_prefix(kByteOrderMark.size());
    for (size_t number = 1; !rest.empty(); ++number) {
        const std::string_view line = takeLine(rest);
        if (line.empty()) continue;
        const std::vector<std::string_view> raw = split(line, separator);
        if (!names_) {
            names_ = std::make_shared<const std::vector<std::string>>(raw.begin(), raw.end());
            headerLine_ = number;
            continue;
        }
        std::vector<std::string> cells;
        cells.reserve(raw.size());
        for (const std::string_view cell : raw) cells.push_back(clean(cell, number));
        if (cells.size() != names_->size()) throw Error(Error::kCorrupted, "corrupted data.", number);
        rows_.emplace_back(names_, std::move(cells), number);
    }
    if (!names_) throw Error(Error::kNoData, "no data in " + name);
}

}  // namespace velmora::csv
