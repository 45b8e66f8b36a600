#include "ingest/event/conversion/captureset.h"

#include <stdexcept>

namespace velmora {
namespace {

std::vector<std::string> declaredNames(const std::string& pattern) {
    static const boost::regex kDeclaration(R"(\?<(.*?)>)");
    std::vector<std::string> names;
    for (boost::sregex_iterator it(pattern.begin(), pattern.end(), kDeclaration), end; it != end; ++it) {
        names.push_back((*it)[1].str());
    }
    return names;
}

std::string escaped(std::string_view text) {
    constexpr std::string_view kSpecial = "-[]{}()*+?.,\\^$|# \t\n\v\f\r";
    std::string result;
    result.reserve(text.size() + text.size() / 4);
    for (const char c : text) {
        if (kSpecial.find(c) != std::string_view::npos) result += '\\';
        result += c;
    }
    return result;
}

std::string_view viewOf(const boost::csub_match& group) {
    return group.matched ? std::string_view(group.first, static_cast<size_t>(group.length())) : std::string_view();
}

}  // namespace

CapturePattern::CapturePattern(const std::string& text, bool ignoreCase)
    : expression(text, ignoreCase ? boost::regex::perl | boost::regex::icase : boost::regex::perl),
      names(declaredNames(text)) {}

void CaptureSet::clear() {
    values_.clear();
    named_.clear();
    texts_.clear();
    compiled_ = false;
}

bool CaptureSet::match(const CapturePattern& pattern, std::string_view value, bool hasValue) {
    const char* const begin = value.empty() ? "" : value.data();
    if (!boost::regex_match(begin, begin + value.size(), scratch_, pattern.expression)) return false;
    for (size_t i = 1; i < scratch_.size(); ++i) values_.push_back({viewOf(scratch_[static_cast<int>(i)]), hasValue});
    for (const std::string& name : pattern.names) named_[name] = {viewOf(scratch_[name]), hasValue};
    return true;
}

void CaptureSet::add(std::string_view name, std::string_view text) {
    values_.push_back({text, true});
    named_[std::string(name)] = {text, true};
}

std::string_view CaptureSet::keep(std::string text) { return texts_.emplace_back(std::move(text)); }

const CaptureSet::Capture* CaptureSet::numbered(size_t number) const {
    return number >= 1 && number <= values_.size() ? &values_[number - 1] : nullptr;
}

const CaptureSet::Capture* CaptureSet::named(const std::string& name) const {
    const auto it = named_.find(name);
    return it == named_.end() ? nullptr : &it->second;
}

void CaptureSet::prepare() {
    if (!compiled_) combine();
}

std::string CaptureSet::format(const std::string& format) {
    prepare();
    return combined_.format(format, boost::format_perl);
}

void CaptureSet::combine() {
    subject_.clear();
    std::string pattern;
    for (const Capture& value : values_) {
        if (subject_.size() + value.text.size() > kMaxSubject) throw std::length_error("captures too long");
        subject_ += value.text;
        pattern.append("(").append(escaped(value.text)).append(")");
    }
    for (const auto& [name, value] : named_) {
        if (subject_.size() + value.text.size() > kMaxSubject) throw std::length_error("captures too long");
        subject_ += value.text;
        pattern.append("(?<").append(name).append(">").append(escaped(value.text)).append(")");
    }
    expression_.assign(pattern);
    combined_ = boost::smatch();  // a match that fails leaves what it is given as it was
    boost::regex_match(subject_, combined_, expression_);
    compiled_ = true;
}

}  // namespace velmora
