// A small reader of comma separated values, for mapping tables and files of events.
//
// One record is one line; the first line that is not empty is the header. A cell may stand in double quotes, which keep
// a separator inside it; a doubled quote inside such a cell stands for one quote. A quoted cell can't span lines.
#pragma once

#include <cstddef>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "core/filesystem/path.h"

namespace velmora::csv {

// what() is "CSVParser: " and the text. `line` is the line of the file, counted from 1, or 0 if none is to blame.
class Error : public std::runtime_error {
public:
    enum Number { kNotOpened = 1, kNoData = 2, kCorrupted = 3, kNoSuchValue = 4 };

    Error(int number, const std::string& text, size_t line = 0)
        : std::runtime_error("CSVParser: " + text), number_(number), line_(line) {}

    [[nodiscard]] int number() const noexcept { return number_; }
    [[nodiscard]] size_t line() const noexcept { return line_; }

private:
    int number_;
    size_t line_;
};

// A row knows its column names and may outlive the parser.
class Row {
public:
    using Names = std::shared_ptr<const std::vector<std::string>>;

    Row(Names names, std::vector<std::string> cells, size_t line)
        : names_(std::move(names)), cells_(std::move(cells)), line_(line) {}

    [[nodiscard]] size_t size() const noexcept { return cells_.size(); }

    // Column name and cell. Throws Error 4 for an index out of range.
    [[nodiscard]] std::pair<std::string, std::string> operator[](size_t index) const;

    // The line of the file, counted from 1.
    [[nodiscard]] size_t line() const noexcept { return line_; }

private:
    Names names_;
    std::vector<std::string> cells_;
    size_t line_;
};

class Parser {
public:
    // Reads and parses the whole file. Throws Error.
    Parser(const Path& file, char separator);

    // Parses a text; `name` stands for the path in messages. A byte order mark at the start is skipped, and a carriage
    // return before a line feed belongs to the line end.
    [[nodiscard]] static Parser fromText(const std::string& text, const std::string& name, char separator);

    // The cells of the header as read, neither trimmed nor unquoted.
    [[nodiscard]] const std::vector<std::string>& header() const noexcept { return *names_; }
    [[nodiscard]] size_t headerLine() const noexcept { return headerLine_; }

    // Every row has as many cells as the header; white space around cells and the quotes are gone.
    [[nodiscard]] const std::vector<Row>& rows() const noexcept { return rows_; }

private:
    Parser() = default;
    void parse(const std::string& text, const std::string& name, char separator);

    Row::Names names_;
    size_t headerLine_ = 0;
    std::vector<Row> rows_;
};

}  // namespace velmora::csv
