#pragma once

#include "core/vyxexport.h"

#include <QByteArray>
#include <QString>

namespace Tavren::Vyx {

class Texture;

// Writes KTX 1 files from textures read back from GL: 2D and cube-map textures, every mip level
// from the base to GL_TEXTURE_MAX_LEVEL that has storage of the halved size a mipmap chain has
// (a file cannot describe other sizes), in uncompressed 8-bit, 16-bit float
// and 32-bit float formats with one to four channels. Images are written as GL holds them, so a
// loader that uploads the bytes as they stand gets the same texture; the "KTXorientation" key
// says so to those that turn pictures over: "S=r,T=u" for 2D (first row at the bottom, which
// KTXReader then leaves as it is), "S=r,T=d" for cube maps (GL's faces, seen from inside).
// False (or empty) after a message when the texture or file cannot be written.
VYXGL_EXPORT QByteArray TextureToKTX(Texture* texture);
VYXGL_EXPORT bool SaveTextureAsKTX(Texture* texture, const QString& fileName);

} // namespace Tavren::Vyx
