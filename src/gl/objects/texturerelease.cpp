#include "gl/objects/internal/texturerelease.h"

#include "gl/objects/texture.h"

namespace Tavren::Vyx {

namespace {

TextureKeeper textureKeeper = nullptr;

} // namespace

bool setTextureKeeper(TextureKeeper keeper)
{
    textureKeeper = keeper;
    return true;
}

Texture* releaseTextureToManager(Texture* texture)
{
    if (texture && textureKeeper && textureKeeper(texture))
        return texture;
    delete texture;
    return nullptr;
}

} // namespace Tavren::Vyx
