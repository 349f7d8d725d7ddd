#include "gl/platform/glutilities.h"

#include "core/logging.h"
#include "gl/glloader.h"
#include "gl/platform/internal/glutilities.h"
#include "gl/platform/internal/percontextrecords.h"

#include <QByteArray>
#include <QSet>
#include <QString>

#include <cstdlib>
#include <cstring>
#include <vector>

namespace Tavren::Vyx {

namespace {

constexpr int maxReportedGLErrors = 10;

const char* glErrorText(GLenum code)
{
    switch (code) {
    case GL_NO_ERROR: return "no error";
    case GL_INVALID_ENUM: return "invalid enum";
    case GL_INVALID_VALUE: return "invalid value";
    case GL_INVALID_OPERATION: return "invalid operation";
    case GL_OUT_OF_MEMORY: return "out of memory";
    case GL_INVALID_FRAMEBUFFER_OPERATION: return "invalid framebuffer operation";
    default: return "unknown error";
    }
}

int drainGLErrors(const char* file, int line)
{
    if (!glGetError)
        return 0;
    int reported = 0;
    for (GLenum code = glGetError(); code != GL_NO_ERROR; code = glGetError()) {
        qWarning("[%s:%d] glError: 0x%X '%s' caught", sourceBaseName(file), line, code, glErrorText(code));
        // A driver that keeps returning errors must not hang the caller.
        if (++reported == maxReportedGLErrors)
            break;
    }
    return reported;
}

// The shared fetch-into-slot step of every run-time lookup: a filled slot is kept.
bool fetchGLProc(void*& slot, const char* name, bool quiet)
{
    if (slot)
        return true;
    slot = resolveGLEntryPoint(name);
    if (slot)
        return true;
    if (!quiet)
        VYX_DEBUG("Failed to obtain '%s'", name);
    return false;
}

bool initializedOnce = false;

struct ExtensionSet
{
    bool known = false;
    QSet<QByteArray> names;
};

PerContextRecords<ExtensionSet>& extensionSets()
{
    static PerContextRecords<ExtensionSet> sets;
    return sets;
}

void readExtensions(ExtensionSet& set)
{
    set.known = true;
    if (!glGetIntegerv || !glGetStringi)
        return;
    GLint count = 0;
    glGetIntegerv(GL_NUM_EXTENSIONS, &count);
    for (GLint i = 0; i < count; ++i) {
        const auto* name = reinterpret_cast<const char*>(glGetStringi(GL_EXTENSIONS, static_cast<GLuint>(i)));
        if (name && !isGLExtensionHidden(name))
            set.names.insert(QByteArray(name));
    }
}

void VYX_APIENTRY debugOutputCallback(GLenum source, GLenum type, GLuint id, GLenum severity, GLsizei,
                                  const GLchar* message, const void*)
{
    qDebug("OGL: 0x%04X 0x%04X %4d 0x%X %s", source, type, static_cast<int>(id), severity, message);
}

} // namespace

namespace {

bool isSizedColourFormatOutsideTables(unsigned int internalFormat)
{
    switch (internalFormat) {
    case GL_R8: case GL_RG8: case GL_RGB8: case GL_R16: case GL_RG16: case GL_RGB16: case GL_RGBA16:
    case GL_R8_SNORM: case GL_RG8_SNORM: case GL_RGB8_SNORM: case GL_RGBA8_SNORM:
    case GL_RGB10_A2: case GL_RGB5_A1: case GL_RGBA4: case GL_RGB565: case GL_R3_G3_B2:
    case GL_R11F_G11F_B10F: case GL_RGB9_E5: case GL_SRGB8:
        return true;
    default:
        return false;
    }
}

} // namespace

unsigned int allocationFormatFromInternalFormat(unsigned int internalFormat)
{
    return isSizedColourFormatOutsideTables(internalFormat) ? GL_RGBA : formatFromInternalFormat(internalFormat);
}

unsigned int allocationTypeFromInternalFormat(unsigned int internalFormat)
{
    return isSizedColourFormatOutsideTables(internalFormat) ? GL_UNSIGNED_BYTE : typeFromInternalFormat(internalFormat);
}

void checkGLError(const char* file, int line)
{
    drainGLErrors(file, line);
}

bool hasGLError(const char* file, int line)
{
    return drainGLErrors(file, line) > 0;
}

} // namespace Tavren::Vyx

namespace Tavren::Vyx {

namespace {

// A function's static, so hooks added from other files' static initialisers find it made.
std::vector<InitializationHook>& initializationHooks()
{
    static std::vector<InitializationHook> hooks;
    return hooks;
}

} // namespace

bool addInitializationHook(InitializationHook hook)
{
    initializationHooks().push_back(hook);
    return true;
}

} // namespace Tavren::Vyx

using namespace Tavren::Vyx;

bool initializeGLFunctions()
{
    if (initializedOnce)
        return true;
    initializedOnce = true;
    if (ogl_LoadFunctions() == ogl_LOAD_FAILED) {
        const char* version = glGetString ? reinterpret_cast<const char*>(glGetString(GL_VERSION)) : nullptr;
        VYX_CRITICAL("Failed to initialize OpenGL '%s'", version ? version : "");
        initializedOnce = false;
    }
    // Also after a failure: the registry accepts a key registered again.
    for (InitializationHook hook : initializationHooks())
        hook();
    return initializedOnce;
}

bool openGlVersionSupported(int major, int minor)
{
    GLint contextMajor = 0;
    glGetIntegerv(GL_MAJOR_VERSION, &contextMajor);
    if (contextMajor > major)
        return true;
    if (contextMajor != major)
        return false;
    GLint contextMinor = 0;
    glGetIntegerv(GL_MINOR_VERSION, &contextMinor);
    return contextMinor >= minor;
}

void* getGLProcAddress(const char* name, bool quiet)
{
    void* slot = nullptr;
    fetchGLProc(slot, name, quiet);
    return slot;
}

bool initializeGLDebugging()
{
    void* control = nullptr;
    void* callback = nullptr;
    if (!fetchGLProc(control, "glDebugMessageControlARB", false))
        return false;
    if (!fetchGLProc(callback, "glDebugMessageCallbackARB", false))
        return false;
    reinterpret_cast<PFNVYXGLDEBUGMESSAGECONTROLARBPROC>(control)(GL_DONT_CARE, GL_DONT_CARE, GL_DONT_CARE, 0,
                                                                   nullptr, GL_TRUE);
    reinterpret_cast<PFNVYXGLDEBUGMESSAGECALLBACKARBPROC>(callback)(debugOutputCallback, nullptr);
    return true;
}

bool hasGLExtension(const char* name)
{
    void* context = GLContextTracker::currentContext();
    const bool extensionsDisabled = std::getenv("VYX_NO_GL_EXTENSIONS") != nullptr;
    const QByteArray query(name ? name : "");
    return extensionSets().with(context, [&](ExtensionSet& set) {
        if (!set.known) {
            if (extensionsDisabled)
                set.known = true;
            else
                readExtensions(set);
        }
        if (query.startsWith("GL_"))
            return set.names.contains(query) || set.names.contains(query.mid(3));
        return set.names.contains(query) || set.names.contains("GL_" + query);
    });
}

int bytesFromInternalFormat(unsigned int internalFormat)
{
    switch (internalFormat) {
    case GL_RED: return 1;
    case GL_RG: return 2;
    case GL_RGB: return 3;
    case GL_RGBA:
    case GL_RGBA8: return 4;
    case GL_R16F: return 2;
    case GL_R32F: return 4;
    case GL_RG16F: return 4;
    case GL_RG32F: return 8;
    case GL_RGB16F: return 6;
    case GL_RGB32F: return 12;
    case GL_RGBA16F: return 8;
    case GL_RGBA32F: return 16;
    case GL_R32I:
    case GL_R32UI: return 4;
    case GL_RG32I:
    case GL_RG32UI: return 8;
    case GL_RGB32I:
    case GL_RGB32UI: return 12;
    case GL_RGBA32I:
    case GL_RGBA32UI: return 16;
    case GL_SRGB:
    case GL_SRGB8: return 3;
    case GL_SRGB_ALPHA:
    case GL_SRGB8_ALPHA8: return 4;
    // Index types, so that index data can be sized with the same call.
    case GL_UNSIGNED_SHORT: return 2;
    case GL_UNSIGNED_INT: return 4;
    default:
        VYX_CRITICAL("bytesFromInternalFormat() does not implement yet : 0x%04X", internalFormat);
        return 0;
    }
}

unsigned int typeFromInternalFormat(unsigned int internalFormat)
{
    switch (internalFormat) {
    case GL_RED:
    case GL_RG:
    case GL_RGB:
    case GL_RGBA:
    case GL_RGBA8:
    case GL_SRGB:
    case GL_SRGB_ALPHA:
    case GL_SRGB8_ALPHA8: return GL_UNSIGNED_BYTE;
    case GL_R16F:
    case GL_RG16F:
    case GL_RGB16F:
    case GL_RGBA16F: return GL_HALF_FLOAT;
    case GL_R32F:
    case GL_RG32F:
    case GL_RGB32F:
    case GL_RGBA32F:
    case GL_DEPTH_COMPONENT32F: return GL_FLOAT;
    case GL_R16I: return GL_SHORT;
    case GL_R32I:
    case GL_RG32I:
    case GL_RGB32I:
    case GL_RGBA32I: return GL_INT;
    case GL_R32UI:
    case GL_RG32UI:
    case GL_RGB32UI:
    case GL_RGBA32UI: return GL_UNSIGNED_INT;
    default:
        VYX_CRITICAL("typeFromInternalFormat() does not implement yet : 0x%04X", internalFormat);
        return 0;
    }
}

unsigned int formatFromInternalFormat(unsigned int internalFormat)
{
    switch (internalFormat) {
    case GL_RED:
    case GL_R16F:
    case GL_R32F: return GL_RED;
    case GL_RG:
    case GL_RG16F:
    case GL_RG32F: return GL_RG;
    case GL_RGB:
    case GL_RGB16F:
    case GL_RGB32F:
    case GL_SRGB: return GL_RGB;
    case GL_RGBA:
    case GL_RGBA8:
    case GL_RGBA16F:
    case GL_RGBA32F:
    case GL_SRGB_ALPHA:
    case GL_SRGB8_ALPHA8: return GL_RGBA;
    case GL_R16I:
    case GL_R16UI:
    case GL_R32I:
    case GL_R32UI: return GL_RED_INTEGER;
    case GL_RG16I:
    case GL_RG16UI:
    case GL_RG32I:
    case GL_RG32UI: return GL_RG_INTEGER;
    case GL_RGB16I:
    case GL_RGB16UI:
    case GL_RGB32I:
    case GL_RGB32UI: return GL_RGB_INTEGER;
    case GL_RGBA16I:
    case GL_RGBA16UI:
    case GL_RGBA32I:
    case GL_RGBA32UI: return GL_RGBA_INTEGER;
    case GL_DEPTH_COMPONENT16:
    case GL_DEPTH_COMPONENT24:
    case GL_DEPTH_COMPONENT32:
    case GL_DEPTH_COMPONENT32F: return GL_DEPTH_COMPONENT;
    case GL_DEPTH_STENCIL:
    case GL_DEPTH24_STENCIL8:
    case GL_DEPTH32F_STENCIL8: return GL_DEPTH_STENCIL;
    default:
        VYX_CRITICAL("formatFromInternalFormat() does not implement yet : 0x%04X", internalFormat);
        return 0;
    }
}

void logGLFramebuffer()
{
    GLint framebuffer = 0;
    GLint colorType = 0, colorName = 0, depthType = 0, depthName = 0;
    glGetIntegerv(GL_FRAMEBUFFER_BINDING, &framebuffer);
    glGetFramebufferAttachmentParameteriv(GL_DRAW_FRAMEBUFFER, GL_COLOR_ATTACHMENT0,
                                          GL_FRAMEBUFFER_ATTACHMENT_OBJECT_TYPE, &colorType);
    glGetFramebufferAttachmentParameteriv(GL_DRAW_FRAMEBUFFER, GL_COLOR_ATTACHMENT0,
                                          GL_FRAMEBUFFER_ATTACHMENT_OBJECT_NAME, &colorName);
    glGetFramebufferAttachmentParameteriv(GL_DRAW_FRAMEBUFFER, GL_DEPTH_ATTACHMENT,
                                          GL_FRAMEBUFFER_ATTACHMENT_OBJECT_TYPE, &depthType);
    glGetFramebufferAttachmentParameteriv(GL_DRAW_FRAMEBUFFER, GL_DEPTH_ATTACHMENT,
                                          GL_FRAMEBUFFER_ATTACHMENT_OBJECT_NAME, &depthName);
    const GLubyte* version = glGetString(GL_VERSION);
    const QString line =
        QString::asprintf("logGLFramebuffer() [%p] '%s'", currentQGLContext(),
                          version ? reinterpret_cast<const char*>(version) : "")
        + QString::asprintf(" [fb] %3d", framebuffer)
        + QString::asprintf(" [0] 0x%04X %3d", colorType, colorName)
        + QString::asprintf(" [d] 0x%04X %d", depthType, depthName);
    qDebug("%s", qPrintable(line));
}

int vyxGetMemory()
{
    return 0;
}
