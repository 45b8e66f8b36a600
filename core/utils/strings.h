// Small text helpers.
#pragma once

#include <string>
#include <vector>

#include "core/types/text.h"

namespace velmora {

// Base 10, leading blanks allowed, trailing characters ignored; -1 for no digit or a value out of range. Never throws.
[[nodiscard]] int stoi(const std::string& text);

// Splits at the delimiter; the escape character takes the next byte literally and is itself dropped. An empty text
// gives one empty token. A trailing escape is dropped with a warning.
[[nodiscard]] std::vector<std::string> tokenize(const std::string& text, char delimiter, char escape);

// True if the variable is set, also if to nothing; `value` receives its text.
[[nodiscard]] bool getEnvironmentVariable(const std::string& name, std::string& value);

// A fresh random identifier, in the form of formatGuid. On the submit path: cheap.
[[nodiscard]] std::string makeGuid();

}  // namespace velmora
