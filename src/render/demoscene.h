#pragma once

#include "core/vyxexport.h"

#include <QByteArray>

namespace Tavren::Vyx {

// A built-in showcase as binary glTF bytes, so it takes the same import path as any file: a
// ground plane, a 5 x 3 grid of spheres (roughness rising left to right, metalness rising from
// the front row to the back), a box, a camera, a sun and a spot light, both casting shadows.
namespace DemoScene {
VYXGL_EXPORT QByteArray glb();
}

} // namespace Tavren::Vyx
