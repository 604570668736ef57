#pragma once

#include <stdexcept>
#include <string>

// Thrown by format code on impossible data; caught at the public entry points, which turn it
// into an absent tag (reading) or a false result with an error text (writing).
class FormatError : public std::runtime_error {
public:
    explicit FormatError(const std::string &what)
        : std::runtime_error(what) {}
};
