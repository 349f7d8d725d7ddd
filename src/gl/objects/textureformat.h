#pragma once

#include "core/vyxexport.h"

namespace Tavren::Vyx {

// The pixel formats the library allocates and uploads; each maps to a GL internal format,
// an external format and an external type.
enum TextureFormat : int {
    R,
    RG,
    RGB,
    RGBA,
    R16F,
    RG16F,
    RGB16F,
    RGBA16F,
    R32F,
    RG32F,
    RGB32F,
    RGBA32F,
    R16I,
    RG16I,
    RGB16I,
    RGBA16I,
    R32I,
    RG32I,
    RGB32I,
    RGBA32I,
    DEPTH32F,
    DEPTH24_STENCIL8,
    DEPTH32F_STENCIL8
};

// Out-of-range values fall back to GL_RGBA / GL_RGBA / GL_FLOAT.
// The 8-bit formats are the unsized GL_RED..GL_RGBA, and half-float formats are uploaded
// from 32-bit floats (GL converts).
VYXGL_EXPORT int internalFormat(TextureFormat format);
VYXGL_EXPORT int externalFormat(TextureFormat format);
VYXGL_EXPORT int externalType(TextureFormat format);

} // namespace Tavren::Vyx
