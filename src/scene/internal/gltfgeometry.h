#pragma once

#include "scene/scenedata.h"

#include <vector>

namespace Tavren::Vyx {

// Rebuilds every per-vertex array of the primitive from the listed source vertices, in that order
// (a source may repeat). Indices are left alone.
void selectVertices(SceneData::Primitive& primitive, const std::vector<quint32>& sources);

// Turns loops and strips into line lists and strips and fans into triangle lists (indexed, keeping
// the winding of every strip triangle) and drops a trailing incomplete point pair or triple.
// Returns how many of the primitive's indices (or vertices, when it has none) were left over.
// The mode must be one of glTF's seven.
size_t unrollToList(SceneData::Primitive& primitive);

// Gives every triangle vertices of its own, all attributes copied, with the triangle's normal:
// the shading glTF asks for when a triangle primitive has no normals. The result is unindexed.
void makeFlatNormals(SceneData::Primitive& primitive);

} // namespace Tavren::Vyx
