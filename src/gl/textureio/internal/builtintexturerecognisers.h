#pragma once

namespace Tavren::Vyx {

// Registers the texture readers that ship with the library ("hdr", "ktx", "astc", "ktx2").
// Run by initializeGLFunctions() on every attempt, successful or not, through its hook.
void registerBuiltinTextureRecognisers();

} // namespace Tavren::Vyx
