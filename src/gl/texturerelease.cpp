#include "gl/internal/texturerelease.h"

#include "gl/texture.h"

namespace Tavren::Vyx {

Texture* releaseTextureToManager(Texture* texture)
{
    delete texture;
    return nullptr;
}

} // namespace Tavren::Vyx
