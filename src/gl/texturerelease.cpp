#include "gl/texturerelease_p.h"

#include "gl/texture.h"

namespace Tavren::Vyx {

Texture* releaseTextureToManager(Texture* texture)
{
    delete texture;
    return nullptr;
}

} // namespace Tavren::Vyx
