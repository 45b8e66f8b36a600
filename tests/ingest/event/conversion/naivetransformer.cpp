#include "tests/ingest/event/conversion/naivetransformer.h"

#include <rapidjson/document.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <boost/regex.hpp>
#include <map>
#include <vector>

#include "core/json/jsontext.h"
#include "core/json/mergejson.h"
#include "core/utils/strings.h"

namespace velmora::test {
namespace {

using Document = JsonDocument;
using Value = JsonValue;
using service::ingest::Mapping;
using service::ingest::Rule;

std::string render(const Value& value) {
    JsonBuffer buffer;
    JsonTextWriter writer(buffer);
    value.Accept(writer);
    return buffer.GetString();
}

std::string option(const Rule& rule, const std::string& name) {
    const auto it = rule.options.find(name);
    return it == rule.options.end() ? "" : it->second;
}

bool valueOf(const Document& doc, const std::string& key, const Rule& rule, std::string& value) {
    if (doc.HasMember(key)) {
        value = doc[key].IsString() ? doc[key].GetString() : render(doc[key]);
        return true;
    }
    value = option(rule, "missing-key-value");
    return rule.options.count("missing-key-value") != 0;
}

void put(Document& doc, const std::string& key, const std::string& text) {
    doc.AddMember(Value(key, doc.GetAllocator()), Value(text, doc.GetAllocator()), doc.GetAllocator());
}

void erase(Document& doc, const std::string& key) {
    if (doc.HasMember(key)) doc.EraseMember(doc.FindMember(key));
}

std::string escape(const std::string& text) {
    return boost::regex_replace(text, boost::regex(R"([-[\]{}()*+?.,\\^$|#\s])"), "\\\\$&");
}

struct Captures {
    std::vector<std::string> values;
    std::vector<bool> defined;
    std::map<std::string, std::string> named;
    std::map<std::string, bool> namedDefined;

    bool take(const std::string& pattern, bool ignoreCase, const std::string& value, bool hasValue) {
        const boost::regex expression(pattern, ignoreCase ? boost::regex::icase : boost::regex::normal);
        boost::smatch match;
        if (!boost::regex_match(value, match, expression)) return false;
        for (size_t i = 1; i < match.size(); ++i) {
            values.push_back(match[static_cast<int>(i)]);
            defined.push_back(hasValue);
        }
        const boost::regex declaration(R"(\?<(.*?)>)");
        for (boost::sregex_iterator it(pattern.begin(), pattern.end(), declaration), end; it != end; ++it) {
            named[(*it)[1]] = match[(*it)[1].str()];
            namedDefined[(*it)[1]] = hasValue;
        }
        return true;
    }

    bool defines(const std::string& format) const {
        const boost::regex number(R"((?<!\$)(?:\$\$)*\$(\d+))");
        for (boost::sregex_iterator it(format.begin(), format.end(), number), end; it != end; ++it) {
            const int i = velmora::stoi((*it)[1].str());
            if (i < 1 || static_cast<size_t>(i) > values.size() || !defined[static_cast<size_t>(i) - 1]) return false;
        }
        const boost::regex name(R"((?<!\$)(?:\$\$)*\$\+\{([^\}]+)\})");
        for (boost::sregex_iterator it(format.begin(), format.end(), name), end; it != end; ++it) {
            const auto found = namedDefined.find((*it)[1]);
            if (found == namedDefined.end() || !found->second) return false;
        }
        return true;
    }
};

bool applyPatterns(Document& doc, Rule rule) {
    const bool ignoreCase = option(rule, "case-sensitive-values") == "false";
    for (const auto& member : doc.GetObject()) {
        const std::string key = member.name.GetString();
        rule.in.emplace_back(key, "(?<" + key + ">.*)");
    }
    Captures captures;
    for (const auto& [key, pattern] : rule.in) {
        std::string value;
        const bool hasValue = valueOf(doc, key, rule, value);
        if (!hasValue && option(rule, "missing-key-action") == "skip") return false;
        if (!captures.take(pattern, ignoreCase, value, hasValue)) return false;
    }
    std::string subject;
    std::string joint;
    for (const auto& text : captures.values) subject += text, joint += "(" + escape(text) + ")";
    for (const auto& [name, text] : captures.named) subject += text, joint += "(?<" + name + ">" + escape(text) + ")";
    const boost::regex combined(joint);
    boost::smatch match;
    boost::regex_match(subject, match, combined);
    rule.in.resize(rule.inCount);
    for (const auto& [key, pattern] : rule.in) erase(doc, key);
    for (const auto& [key, format] : rule.out) {
        if (captures.defines(format)) put(doc, key, match.format(format, boost::format_perl));
    }
    return true;
}

bool applyRewrites(Document& doc, const Rule& rule) {
    for (const auto& [key, command] : rule.in) {
        std::string value;
        const auto parts = tokenize(command, '/', '\\');
        if (!valueOf(doc, key, rule, value) || (parts.size() != 3 && parts.size() != 4)) continue;
        const std::string flags = parts.size() == 4 ? parts[3] : "";
        const bool ignoreCase = flags.find('i') != std::string::npos;
        const boost::regex expression(parts[1], ignoreCase ? boost::regex::icase : boost::regex::normal);
        const auto all = flags.find('g') == std::string::npos ? boost::format_first_only : boost::format_perl;
        value = boost::regex_replace(value, expression, parts[2], boost::format_perl | all);
        erase(doc, key);
        put(doc, key, value);
    }
    return true;
}

bool isStandard(const std::string& key, const Mapping& mapping) {
    for (const auto& out : mapping.outKeys) {
        if (key == out) return true;
    }
    for (const char* prefix : {"context.", "env.", "event.", "exp.", "source.", "user.", "entity."}) {
        if (key.rfind(prefix, 0) == 0) return true;
    }
    return false;
}

bool filterKeys(Document& doc, const Rule& rule, const Mapping& mapping) {
    Document rest(rapidjson::kObjectType);
    Document extra(rapidjson::kObjectType);
    for (const auto& member : doc.GetObject()) {
        Document& side = isStandard(member.name.GetString(), mapping) ? rest : extra;
        side.AddMember(Value(member.name, side.GetAllocator()), Value(member.value, side.GetAllocator()),
                       side.GetAllocator());
    }
    if (extra.ObjectEmpty()) return false;
    if (option(rule, "non-standard-keys") == "exclude") {
        doc.CopyFrom(rest, doc.GetAllocator());
        return true;
    }
    if (option(rule, "non-standard-keys") != "include") return false;
    std::string json = render(doc);
    for (const auto& [key, format] : rule.out) {
        Document addition(rapidjson::kObjectType);
        Value copy(extra, addition.GetAllocator());
        addition.AddMember(Value(key, addition.GetAllocator()), copy, addition.GetAllocator());
        mergeJSON(json, render(addition));
    }
    (void)parseValue(doc, json);
    return !rule.out.empty();
}

}  // namespace

std::string transformNaively(const Mapping& mapping, const std::string& event) {
    Document doc;
    (void)parseValue(doc, event);
    bool matched = false;
    try {
        for (const Rule& rule : mapping.rules) {
            const bool isFilter = rule.options.count("non-standard-keys") != 0;
            const bool isRewrite = option(rule, "search-replace-substrings") == "true";
            const bool ruleMatched = isFilter    ? filterKeys(doc, rule, mapping)
                                     : isRewrite ? applyRewrites(doc, rule)
                                                 : applyPatterns(doc, rule);
            matched = matched || ruleMatched;
        }
    } catch (const std::exception&) {
        return "failed";
    }
    return matched ? render(doc) : "unmatched";
}

}  // namespace velmora::test
