// What an operation throws, as the number that says why.
#pragma once

#include <system_error>

namespace velmora::test {

// No error if the operation returns.
template <typename Operation>
std::error_code codeOf(Operation operation) {
    try {
        operation();
    } catch (const std::system_error& e) {
        return e.code();
    }
    return {};
}

}  // namespace velmora::test
