#pragma once

namespace Tavren::Vyx {

// Registers the texture readers that ship with the library ("hdr", "ktx", "astc").
// Called by initializeGLFunctions() on every attempt, successful or not.
void registerBuiltinTextureRecognisers();

} // namespace Tavren::Vyx
