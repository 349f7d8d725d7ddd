#pragma once

#include "core/vyxexport.h"

#include <QHash>
#include <QString>
#include <QVariant>

namespace Tavren::Vyx {

class ShaderProgram;
class Texture;

// Small GPU passes that make or rework textures. They need a current context; the passes draw
// the OpenGLDeviceContext's full-screen quad and install a device context when there is none.

// A 1x1 GL_RGBA texture; components are scaled by 255 and truncated.
VYXGL_EXPORT Texture* SolidColorTexture(float r, float g, float b, float a);
// A texture of the source's target, size, parameters and (internalFormat 0) format, with
// storage for that level only and no contents. Compressed sources give a GL_RGBA copy.
// Null for multisample sources and formats the library cannot allocate.
VYXGL_EXPORT Texture* WritableCopyOfTexture(Texture* source, unsigned int internalFormat, int level);

// A program for ProcessTexture: the full-screen vertex stage with the given fragment stage,
// which reads vo_TexCoord and writes out_FragColor. Null (after a warning) when it fails.
VYXGL_EXPORT ShaderProgram* MakeTextureShaderFromString(const QString& fragmentSource);
VYXGL_EXPORT ShaderProgram* MakeTextureShaderFromFile(const QString& fragmentFile);

// Renders the shader over the source (sampler "u_Src") into level 0 of the destination, then
// rebuilds the destination's mipmaps. Leaves depth testing on, blending off and the viewport
// at the source's size.
VYXGL_EXPORT void ProcessTexture(ShaderProgram* shader, const QHash<QString, QVariant>& uniforms, Texture* source,
                                 Texture* destination);

// Both replace the caller's 2D texture by a reworked copy (the old one is deleted); false, with
// the texture untouched, when any step of the pass fails.
VYXGL_EXPORT bool FlipY(Texture*& texture);
// colour.rgb * (high - low) + low, clamped below at 0; (0, 1) changes nothing and answers false.
VYXGL_EXPORT bool RemapColorRange(Texture*& texture, float low, float high);

} // namespace Tavren::Vyx
