#pragma once

// List records exchanged by the persistence and error-log operations.

#include <string>
#include <vector>

#include <dax/types/record.hpp>

namespace dax::types {

/// A list of flags; an element is true only for the byte 0xC3.
struct vector_bool_t {
    std::vector<bool> values;
    DAX_RECORD_FIELDS(values)
};

/// A list of strings.
struct vector_string_t {
    std::vector<std::string> values;
    DAX_RECORD_FIELDS(values)
};

/// A name and a number, read as a record of two fields.
struct string_double_t {
    std::string first;
    double second = 0;
    DAX_RECORD_FIELDS(first, second)
};

/// A list of names with numbers.
struct vector_pair_string_double_t {
    std::vector<string_double_t> values;
    DAX_RECORD_FIELDS(values)
};

}  // namespace dax::types
