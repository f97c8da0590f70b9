#pragma once
// System properties of the camera stack.
#include <cstdint>

#pragma GCC visibility push(default)
namespace NSCam {
namespace Utils {
namespace Properties {

// The property's value as an integer (base taken from its prefix), or `defaultValue`
// when it is unset, empty, unparsable or out of range.
int32_t property_get_int32(const char* key, int32_t defaultValue);

}  // namespace Properties
}  // namespace Utils
}  // namespace NSCam
#pragma GCC visibility pop
