#pragma once

// The MessagePack codec: packing functions, the owned `buffer` of encoded bytes and the
// bounds-checked `ReadBuffer` cursor with its readers, and the inline helpers for records of
// fixed size.
#include <qor/serialization/msgpack/buffer.hpp>
#include <qor/serialization/msgpack/fixed.hpp>
#include <qor/serialization/msgpack/pack.hpp>
#include <qor/serialization/msgpack/read.hpp>
