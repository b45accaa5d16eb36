#pragma once

#include <stdexcept>

namespace cli {

// What the person gave us cannot be used: a file, a password. Ends with the status of a usage error.
class InputError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

}  // namespace cli
