#pragma once

#include "core/vyxexport.h"
#include "gl/glloader.h"

// The base-instance entry points DrawBuffers resolves on first use (null until found). They
// live outside the class so a test can put a recording shim in their place.
namespace Tavren::Vyx::DrawBuffersEntryPoints {

VYXGL_EXPORT extern PFNVYXGLDRAWARRAYSINSTANCEDBASEINSTANCEPROC drawArraysInstancedBaseInstance;
VYXGL_EXPORT extern PFNVYXGLDRAWELEMENTSINSTANCEDBASEVERTEXBASEINSTANCEPROC drawElementsInstancedBaseVertexBaseInstance;

} // namespace Tavren::Vyx::DrawBuffersEntryPoints
