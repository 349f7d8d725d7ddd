#pragma once

#include "core/vyxexport.h"

namespace Tavren {
namespace Vyx {

// What the registry says about one desktop GL command; lets the resolver tell
// whether the current context really offers a name before asking the driver.
struct GLEntryPointInfo
{
    const char* name;
    // Core version that introduced it as major * 10 + minor; 0 if never core.
    int coreVersion;
    // Not part of the core profile: removed in 3.2 or compatibility-only.
    bool removedInCore;
    // Space-separated extensions that provide it outside their
    // compatibility-only parts; possibly empty.
    const char* extensions;
};

// Registry entry for a GL command name, or null if desktop GL has no such command.
VYXGL_EXPORT const GLEntryPointInfo* findGLEntryPointInfo(const char* name);

// Address of a GL entry point for the current context, or null when there is
// no current context or the context's version and extensions do not offer it.
VYXGL_EXPORT void* resolveGLEntryPoint(const char* name);

// True for an extension named in VYX_HIDE_GL_EXTENSIONS (space-separated): the library then
// treats it as absent, in entry-point lookups and extension queries alike. This exercises the
// fallback paths on drivers that refuse to drop an extension.
VYXGL_EXPORT bool isGLExtensionHidden(const char* name);

} // namespace Vyx
} // namespace Tavren
