#pragma once

#include "core/vyxexport.h"

#include <QString>

namespace Tavren::Vyx {

// The optional entry points and extensions the library picks its paths by. Each context answers
// each row once, on the first ask there; code asks the table instead of looking things up itself.
enum class GLCapability {
    BufferStorage,
    NamedBufferData,
    NamedBufferStorage,
    NamedBufferSubData,
    CreateBuffers,
    BindBuffersBase,
    BindFragDataLocationIndexed,
    TransformFeedbackVaryings,
    DrawArraysInstancedBaseInstance,
    DrawElementsInstancedBaseVertexBaseInstance,
    MultiDrawElementsIndirect,
    GetProgramBinary,
    ProgramBinary,
    ProgramParameteri,
    GetProgramBinaryOES,
    ProgramBinaryOES,
    ProgramBinaryExtension,
    ProgramBinaryOESExtension,
    ParallelShaderCompileARB,
    ParallelShaderCompileKHR,
    ShaderDrawParameters,
    AstcLdrCompression,
    AstcHdrCompression,
    CopyImageSubData,
    TextureQueryLod,
    TextureCubeMapArray,
    ShaderImageLoadStore,
    ShaderAtomicCounters,
    BindlessTextureARB,
    BindlessTextureNV,
    GetTextureHandleARB,
    MakeTextureHandleResidentARB,
    MakeTextureHandleNonResidentARB,
    GetTextureHandleNV,
    MakeTextureHandleResidentNV,
    MakeTextureHandleNonResidentNV,
    Count
};

struct GLCapabilityRow
{
    // An entry point ("gl...") or an extension ("GL_...").
    const char* name;
    // What the library does when the context has it.
    const char* selects;
    // A missing entry point is not noted at debug level.
    bool quiet;
    // For an extension: the GL version (major * 10 + minor) whose core brings the same, or 0.
    int coreVersion = 0;
};

// Exported for the vyxgl tool, which prints the table.
VYXGL_EXPORT const GLCapabilityRow& glCapabilityRow(GLCapability capability);
// What brings the row: the core version and extensions of an entry point, or the extension itself.
VYXGL_EXPORT QString glCapabilityOrigin(GLCapability capability);

// The current context's answer: the entry point, or for an extension a non-null value when the
// context has it; null when it lacks it.
VYXGL_EXPORT void* glCapability(GLCapability capability);

// Puts value in place of the current context's answer and returns the answer it replaced: a test
// stands a recording shim in for an optional entry point this way, as it does for a loader
// pointer, and a null value withholds the capability on this context.
VYXGL_EXPORT void* replaceGLCapability(GLCapability capability, void* value);

inline bool hasGLCapability(GLCapability capability)
{
    return glCapability(capability) != nullptr;
}

template <typename Function>
Function glCapabilityFunction(GLCapability capability)
{
    return reinterpret_cast<Function>(glCapability(capability));
}

} // namespace Tavren::Vyx
