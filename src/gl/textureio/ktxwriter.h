#pragma once

#include "core/vyxexport.h"

#include <QByteArray>
#include <QString>

namespace Tavren::Vyx {

class Texture;

// Writes KTX 1 files from textures read back from GL: 2D and cube-map textures, every mip level
// from the base to GL_TEXTURE_MAX_LEVEL that has storage of the halved size a mipmap chain has
// (a file cannot describe other sizes), in uncompressed 8-bit, 16-bit float
// and 32-bit float formats with one to four channels. 2D images are written top row first,
// as KTXReader expects (it flips them on load); cube faces are written as GL holds them.
// False (or empty) after a message when the texture or file cannot be written.
VYXGL_EXPORT QByteArray TextureToKTX(Texture* texture);
VYXGL_EXPORT bool SaveTextureAsKTX(Texture* texture, const QString& fileName);

} // namespace Tavren::Vyx
