#include "gl/texturerelease_p.h"

#include "gl/texture.h"
#include "gl/texturemanager.h"
#include "gl/texturepool.h"

namespace Tavren::Vyx {

Texture* releaseTextureToManager(Texture* texture)
{
    // Pool textures go back for reuse; anything else the framebuffer was given is deleted. With no
    // manager yet, no texture can be from its pool, and none is made just to ask.
    if (texture && TextureManager::hasInstance() && TextureManager::Instance()->pool()->owns(texture)) {
        TextureManager::Instance()->releaseTempTextureRef(texture, 1);
        return texture;
    }
    delete texture;
    return nullptr;
}

} // namespace Tavren::Vyx
