// What the expressions of one rule captured across all of an event's keys, for the time of one application of the rule.
//
// Captures are numbered through over all expressions, in order, and named captures stand beside them. Formats that use
// nothing but plain references read them from here. For any other format the set builds one expression that captures
// the same texts under one numbering, and leaves the format to the regular expression library.
#pragma once

#include <boost/regex.hpp>
#include <cstddef>
#include <deque>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace velmora {

// An expression of a rule with the names that its text declares.
struct CapturePattern {
    // Throws boost::regex_error for a bad expression.
    CapturePattern(const std::string& text, bool ignoreCase);

    boost::regex expression;
    std::vector<std::string> names;
};

// One set may serve many applications, one after the other; clear() in between keeps its memory. The texts are views
// of what was matched, which must stay until the next clear().
class CaptureSet {
public:
    struct Capture {
        std::string_view text;
        bool defined = false;
    };

    void clear();

    // Matches the whole value; on success appends all groups of the pattern and stores its names. `hasValue` false
    // stands for a key that is missing: its captures are then not defined. Throws for an expression that explodes.
    [[nodiscard]] bool match(const CapturePattern& pattern, std::string_view value, bool hasValue);

    // Appends a capture by number, and stores it under the name; a name stored before is replaced.
    void add(std::string_view name, std::string_view text);

    // Keeps a text until the next clear().
    [[nodiscard]] std::string_view keep(std::string text);

    // By number, from 1, and by name. Null if there is no such capture.
    [[nodiscard]] const Capture* numbered(size_t number) const;
    [[nodiscard]] const Capture* named(const std::string& name) const;
    [[nodiscard]] size_t size() const noexcept { return values_.size(); }

    // Builds the joint expression of the captures so far. Throws std::length_error for captures of more than
    // kMaxSubject bytes, and what the regular expression library throws.
    void prepare();

    // The format's text by Perl's syntax over all captures. Throws what prepare() throws, and std::logic_error if names
    // with a meaning of their own have kept the joint expression from matching.
    [[nodiscard]] std::string format(const std::string& format);

    static constexpr size_t kMaxSubject = size_t{4} << 20;

private:
    void combine();

    std::vector<Capture> values_;
    std::map<std::string, Capture, std::less<>> named_;
    std::deque<std::string> texts_;
    boost::cmatch scratch_;
    bool compiled_ = false;  // `expression_`, `subject_` and `combined_` belong to the captures
    boost::regex expression_;
    std::string subject_;
    boost::smatch combined_;
};

}  // namespace velmora
