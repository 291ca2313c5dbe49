#pragma once

#include <string>

namespace test_support {

/// what() of the exception that an action throws; "no exception" if it throws none.
template <typename Exception, typename Action>
std::string TextOf(Action action) {
    try {
        action();
    } catch (const Exception& error) {
        return error.what();
    }
    return "no exception";
}

}  // namespace test_support
