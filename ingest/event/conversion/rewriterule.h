// Rewrites values in place by substitution commands: s/expression/replacement/flags.
#pragma once

#include <boost/regex.hpp>
#include <optional>
#include <string>
#include <vector>

#include "ingest/event/conversion/transformrule.h"

namespace velmora {

// The flag "i" ignores case, "g" replaces all matches instead of the first. A slash inside a part is written with a
// backslash before it, and so is a backslash. What stands before the first slash is not looked at.
class Substitution {
public:
    // Empty unless the command has three or four parts. Throws boost::regex_error for a bad expression.
    [[nodiscard]] static std::optional<Substitution> parse(const std::string& command);

    // The replacement is a format in Perl's syntax. Throws for an expression that explodes.
    [[nodiscard]] std::string apply(const std::string& value) const;

private:
    Substitution() = default;

    boost::regex expression_;
    std::string replacement_;
    bool replacesAll_ = false;
};

// Rewrites each input key's value in turn; always matches.
class RewriteRule : public TransformRule {
public:
    explicit RewriteRule(const service::ingest::Rule& rule);

    [[nodiscard]] bool apply(JsonValue& document, Allocator& allocator, RuleRun& run) const override;

private:
    struct Command {
        std::string key;
        std::string text;
        std::optional<Substitution> prepared;  // empty for a command that is refused or wrong
    };

    void transformInPlaceHelper(const Command& command, JsonValue& document, Allocator& allocator, RuleRun& run) const;

    std::vector<Command> commands_;
    std::optional<std::string> missingValue_;
};

}  // namespace velmora
