#pragma once

namespace Tavren::Vyx {

class Texture;

// Hands a texture that a framebuffer no longer needs back to whoever keeps temporary
// textures. Returns the texture when it is still alive afterwards, null when it was deleted.
// With no texture manager in the library yet, the texture is deleted.
Texture* releaseTextureToManager(Texture* texture);

} // namespace Tavren::Vyx
