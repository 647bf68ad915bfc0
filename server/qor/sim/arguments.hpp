#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <vector>

#include <dax/types.hpp>
#include <qor/serialization/msgpack.hpp>

// How an operation of the simulation core receives its arguments and reports its failures:
// the error URIs a caller sees, the strict argument readers and the result packing.
namespace qor::sim {

using dax::types::kOperationPrefix;

// Error URIs of failed operations.
constexpr const char* kInvalidArgument = "wamp.error.invalid_argument";
constexpr const char* kNoSuchProcedure = "wamp.error.no_such_procedure";
constexpr const char* kNotFound = "qor.error.not_found";
constexpr const char* kInvalidState = "qor.error.invalid_state";
constexpr const char* kNotAuthorized = "qor.error.not_authorized";
constexpr const char* kFailed = "qor.error.operation_failed";

/// A failure with its own error URI; the text is sent as it is.
struct OperationError : std::runtime_error {
    OperationError(const char* uri, const std::string& text) : std::runtime_error(text), uri(uri) {}
    const char* uri;
};

/// A refusal by an operation itself, with its own error URI; the caller sees the text after
/// the operation's name ("NAME: text"), as for every other failure of an operation.
struct Refusal : std::runtime_error {
    Refusal(const char* uri, const std::string& text) : std::runtime_error(text), uri(uri) {}
    const char* uri;
};

// The codec is liberal where the client contract wants it (any byte is a boolean); a server
// facing arbitrary peers says which argument is wrong instead. Each reader throws
// std::runtime_error with what the value is not.
void read_arg(serialization::msgpack::ReadBuffer& in, bool& value);
void read_arg(serialization::msgpack::ReadBuffer& in, int& value);
void read_arg(serialization::msgpack::ReadBuffer& in, long long& value);
void read_arg(serialization::msgpack::ReadBuffer& in, double& value);
void read_arg(serialization::msgpack::ReadBuffer& in, std::string& value);
void read_arg(serialization::msgpack::ReadBuffer& in, serialization::msgpack::buffer& value);
/// Binary data read where it lies, in the received message, for arguments too large to copy.
struct BinaryView {
    const uint8_t* data = nullptr;
    uint64_t size = 0;
};
void read_arg(serialization::msgpack::ReadBuffer& in, BinaryView& value);
/// A mesh batch whose vertex coordinates may be written as integers (peers in JavaScript or
/// bridged through JSON write 1.0 as 1); otherwise read as the record.
void read_arg(serialization::msgpack::ReadBuffer& in, dax::types::mesh_batch_t& value);
template <class T, std::enable_if_t<dax::types::is_record_v<T>, int> = 0>
void read_arg(serialization::msgpack::ReadBuffer& in, T& value) {
    dax::types::read(in, value);
}

/// What an argument of type T must be, for error texts ("a string").
template <class T>
constexpr const char* type_name() {
    namespace dt = dax::types;
    if constexpr (std::is_same_v<T, bool>)
        return "a boolean";
    else if constexpr (std::is_same_v<T, int> || std::is_same_v<T, long long>)
        return "an integer";
    else if constexpr (std::is_same_v<T, double>)
        return "a number";
    else if constexpr (std::is_same_v<T, std::string>)
        return "a string";
    else if constexpr (std::is_same_v<T, serialization::msgpack::buffer> ||
                       std::is_same_v<T, BinaryView>)
        return "binary data";
    else if constexpr (std::is_same_v<T, dt::vector_string_t>)
        return "a list of strings";
    else if constexpr (std::is_same_v<T, dt::mesh_batch_t>)
        return "a mesh batch";
    else
        return "a value";
}

/// Appends the one encoded value of an operation's result.
template <class T>
void pack_result(std::vector<uint8_t>& out, const T& value) {
    if constexpr (dax::types::is_record_v<T>) {
        dax::types::pack(out, value);
    } else {
        serialization::msgpack::pack(out, value);
    }
}

/// `ms` when it is a usable server or publish period (1 to 60000 ms); else throws
/// std::invalid_argument.
double check_period(double ms);

}  // namespace qor::sim
