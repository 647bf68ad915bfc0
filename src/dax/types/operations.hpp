#pragma once

namespace dax::types {

/// The procedure of every operation of <dax/types/operations.def> is this prefix followed by
/// the operation's name: "qor.server.operation.CLEAR_SCENE".
constexpr const char* kOperationPrefix = "qor.server.operation.";

}  // namespace dax::types
