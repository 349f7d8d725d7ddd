#pragma once

#include "core/vyxexport.h"
#include "gl/drawing/boundingbox.h"
#include "gl/drawing/camera.h"

#include <QMatrix4x4>

namespace Tavren::Vyx {

// Cameras that show a scene whole, for viewers and tools that get a scene without a usable
// viewpoint, from a model of a millimetre to one of several kilometres.
namespace SceneFraming {

// Share of the smaller image side the bounding sphere spans in framingCamera().
constexpr float kFill = 0.8f;

// A perspective camera in front of the bounds (on their +Z side, +Y up), raised a little, with
// the bounding sphere spanning kFill of the smaller side of an image of the given aspect. Its
// planes hug the sphere, so depth precision is the same at any scale. An empty or non-finite
// box (or aspect) gives the camera for a unit sphere at the origin.
VYXGL_EXPORT Camera framingCamera(const BoundingBox& bounds, float aspect);

// The camera placed at `cameraToWorld`, with its own planes unless the bounds lie entirely in
// front of its near plane or beyond its far plane: then the planes are widened to enclose them
// (noted once in the log) and `widened`, when given, is set. Bounds wholly behind a perspective
// camera are left alone: no planes could show them.
VYXGL_EXPORT Camera enclosingPlanes(const Camera& camera, const QMatrix4x4& cameraToWorld, const BoundingBox& bounds,
                                    bool* widened = nullptr);

} // namespace SceneFraming

} // namespace Tavren::Vyx
