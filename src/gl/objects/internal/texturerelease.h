#pragma once

namespace Tavren::Vyx {

class Texture;

// Hands a texture that a framebuffer no longer needs back to whoever keeps temporary
// textures. Returns the texture when it is still alive afterwards, null when it was deleted.
// With no keeper installed, or one that declines, the texture is deleted.
Texture* releaseTextureToManager(Texture* texture);

// The keeper of temporary textures (the texture manager's pool) installs itself here, so the
// framebuffer never reaches above the GL objects. It answers true when it took the texture.
using TextureKeeper = bool (*)(Texture* texture);
bool setTextureKeeper(TextureKeeper keeper);

} // namespace Tavren::Vyx
