#pragma once

#include <tiny_gltf.h>

#include <cmath>
#include <cstddef>

namespace Tavren::Vyx {

// A member of an extension object, or a null value when there is none.
inline const tinygltf::Value& gltfMember(const tinygltf::Value& object, const char* key)
{
    static const tinygltf::Value none;
    return object.IsObject() ? object.Get(key) : none;
}

// A member of an extension object that counts something: a whole number from 0 up to what a
// double holds exactly. False when absent or of any other kind.
inline bool gltfSize(const tinygltf::Value& object, const char* key, size_t& out)
{
    if (!object.IsObject() || !object.Has(key) || !object.Get(key).IsNumber())
        return false;
    const double value = object.Get(key).GetNumberAsDouble();
    if (!(value >= 0 && value <= 9007199254740992.0) || std::floor(value) != value)
        return false;
    out = size_t(value);
    return true;
}

} // namespace Tavren::Vyx
