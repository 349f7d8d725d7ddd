#pragma once

#include "core/vyxexport.h"

// GL utilities around the loaded entry points. All of them need a current GL context.

namespace Tavren::Vyx {

// Drains pending GL errors (at most 10) and prints each as
// "[file:line] glError: 0x<code> '<text>' caught" at warning level.
VYXGL_EXPORT void checkGLError(const char* file, int line);
// The same; true when at least one error was pending.
VYXGL_EXPORT bool hasGLError(const char* file, int line);

} // namespace Tavren::Vyx

#define VYX_CHECK_GL_ERROR() ::Tavren::Vyx::checkGLError(__FILE__, __LINE__)

// Loads the GL entry points once per process and registers the built-in texture readers.
// Returns false when even the version queries could not be loaded; the next call tries again.
VYXGL_EXPORT bool initializeGLFunctions();
// True when the current context's GL version is at least major.minor (asks the driver each time).
VYXGL_EXPORT bool openGlVersionSupported(int major, int minor);
// Looks up an entry point beyond the loader's set; null when the context does not provide it.
// Unless quiet, a miss is noted at debug level as "Failed to obtain '<name>'".
VYXGL_EXPORT void* getGLProcAddress(const char* name, bool quiet);
// Routes GL debug output to qDebug. The library never calls this itself.
VYXGL_EXPORT bool initializeGLDebugging();
// Whether the current context lists the extension; "GL_ARB_x" and "ARB_x" are the same query.
// Answers are cached per context. With VYX_NO_GL_EXTENSIONS set before a context's first
// query, that context answers false for the rest of the process.
VYXGL_EXPORT bool hasGLExtension(const char* name);
// Bytes per pixel, external type and external format of a GL internal format; 0 when unknown.
VYXGL_EXPORT int bytesFromInternalFormat(unsigned int internalFormat);
VYXGL_EXPORT unsigned int typeFromInternalFormat(unsigned int internalFormat);
VYXGL_EXPORT unsigned int formatFromInternalFormat(unsigned int internalFormat);
// Prints the current draw framebuffer's binding and its colour and depth attachments.
VYXGL_EXPORT void logGLFramebuffer();
// GPU memory query; not implemented, always 0.
VYXGL_EXPORT int vyxGetMemory();
