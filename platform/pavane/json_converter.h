#pragma once

namespace PVJson {

// Turns a value of a platform type into JSON; specialised beside each type.
template <class Type, class Enable = void>
struct JsonConverter;

}  // namespace PVJson
