#pragma once

#include "scene/internal/gltfaccessors.h"

#include <QString>

namespace tinygltf {
class Model;
class Value;
struct Primitive;
}

namespace Tavren::Vyx {

// KHR_draco_mesh_compression: decodes the primitive's Draco mesh into the accessors the primitive
// names for its indices and for every attribute the extension maps, each in the accessor's own
// component type, in the order the decoder gives the points (which morph targets, never
// compressed, follow). Attributes the extension does not map are left to their accessors. Fails,
// with `error` saying why, on data the decoder refuses and on accessors that do not match it.
bool decodeDracoPrimitive(const tinygltf::Model& gltf, const tinygltf::Primitive& primitive,
                          const tinygltf::Value& extension, DecodedAccessors& out, QString& error);

} // namespace Tavren::Vyx
