#pragma once

#include "core/vyxexport.h"

#include <QString>

namespace Tavren::Vyx {

// The host's resource folder, searched for GLSL files before the embedded ones.
// Defaults to the folder holding the running program.
VYXGL_EXPORT QString resourcesPath();
// Sets the folder; an empty path restores the default.
VYXGL_EXPORT void setResourcesPath(const QString& path);

} // namespace Tavren::Vyx
