#include "ingest/event/conversion/formattemplate.h"

#include <algorithm>
#include <charconv>
#include <limits>

namespace velmora {
namespace {

constexpr std::string_view kDigits = "0123456789";

// 0 is the whole match for the formatter and no group at all for the check.
size_t toNumber(std::string_view digits) {
    int number = 0;
    const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), number);
    return error == std::errc() && number > 0 ? static_cast<size_t>(number) : FormatTemplate::kNoSuchNumber;
}

}  // namespace

FormatTemplate::FormatTemplate(std::string text) : text_(std::move(text)) {
    findReferences();
    plain_ = split();
}

void FormatTemplate::findReferences() {
    static const boost::regex kNumbered(R"((?<!\$)(?:\$\$)*\$(\d+))");
    static const boost::regex kNamed(R"((?<!\$)(?:\$\$)*\$\+\{([^\}]+)\})");
    const boost::sregex_iterator end;
    for (boost::sregex_iterator it(text_.begin(), text_.end(), kNumbered); it != end; ++it) {
        const size_t number = toNumber((*it)[1].str());
        highestNumber_ = std::max(highestNumber_, number);
        references_.push_back({number, {}});
    }
    for (boost::sregex_iterator it(text_.begin(), text_.end(), kNamed); it != end; ++it) {
        references_.push_back({0, (*it)[1].str()});
    }
}

bool FormatTemplate::split() {
    for (size_t position = 0; position < text_.size();) {
        const size_t next = std::min(text_.find_first_of("$\\", position), text_.size());
        addText(std::string_view(text_).substr(position, next - position));
        position = next;
        if (position < text_.size() && !takeReference(position)) return false;
    }
    return true;
}

// Takes what begins with a dollar; false for anything that is not plain.
bool FormatTemplate::takeReference(size_t& position) {
    const std::string_view rest = std::string_view(text_).substr(position);
    if (rest.starts_with("$$")) {
        addText("$");
        position += 2;
        return true;
    }
    if (rest.starts_with("$+{")) {
        const size_t close = rest.find('}');
        if (close == std::string_view::npos || close == 3) return false;
        pieces_.push_back({Piece::Kind::name, std::string(rest.substr(3, close - 3)), 0});
        position += close + 1;
        return true;
    }
    const size_t end = std::min(rest.find_first_not_of(kDigits, 1), rest.size());
    if (rest.front() != '$' || end == 1) return false;
    const size_t number = toNumber(rest.substr(1, end - 1));
    if (number == kNoSuchNumber) return false;
    pieces_.push_back({Piece::Kind::number, {}, number});
    position += end;
    return true;
}

void FormatTemplate::addText(std::string_view text) {
    if (text.empty()) return;
    if (pieces_.empty() || pieces_.back().kind != Piece::Kind::text) pieces_.push_back({Piece::Kind::text, {}, 0});
    pieces_.back().text += text;
}

}  // namespace velmora
