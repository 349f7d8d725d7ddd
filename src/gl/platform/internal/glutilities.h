#pragma once

namespace Tavren::Vyx {

// Format and type for allocating storage of an internal format without data: the internal-format
// tables' answer, or GL_RGBA / GL_UNSIGNED_BYTE for the sized colour formats (GL_RGB8, GL_R8,
// ...) that files bring and the tables leave out, which GL accepts with any colour transfer.
unsigned int allocationFormatFromInternalFormat(unsigned int internalFormat);
unsigned int allocationTypeFromInternalFormat(unsigned int internalFormat);

// Lets a layer above this one take part in initializeGLFunctions() without the platform naming
// it: the built-in texture readers register themselves through it. Every hook runs on each call,
// after the entry points are loaded, whether or not that succeeded. Returns true, so a hook can be
// added from a static initialiser.
using InitializationHook = void (*)();
bool addInitializationHook(InitializationHook hook);

} // namespace Tavren::Vyx
