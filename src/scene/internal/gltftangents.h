#pragma once

#include "scene/scenedata.h"

namespace Tavren::Vyx {

// Fills the tangents of a triangle list that has normals and the texture coordinate set `set`, in
// the MikkTSpace convention glTF names: xyz along increasing u, w the handedness such that
// cross(normal, xyz) * w points along increasing v of a bottom-left UV origin (glTF's v decreasing).
// Each triangle's tangent, projected into the plane of the vertex normal, is weighted by the
// triangle's angle at the vertex. A vertex whose triangles disagree on the handedness (mirrored
// UVs) is split in two, the primitive becoming indexed if it was not; a vertex with no usable
// UVs gets some tangent perpendicular to its normal.
void generateTangents(SceneData::Primitive& primitive, int set);

} // namespace Tavren::Vyx
