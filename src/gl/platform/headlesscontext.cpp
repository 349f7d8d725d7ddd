#include "gl/platform/headlesscontext.h"

#include <EGL/egl.h>
#include <EGL/eglext.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace Tavren::Vyx {

namespace {

EGLDisplay surfacelessDisplay()
{
    const char* clientExtensions = eglQueryString(EGL_NO_DISPLAY, EGL_EXTENSIONS);
    if (!clientExtensions || !std::strstr(clientExtensions, "EGL_MESA_platform_surfaceless"))
        return EGL_NO_DISPLAY;
    auto getPlatformDisplay =
        reinterpret_cast<PFNEGLGETPLATFORMDISPLAYEXTPROC>(eglGetProcAddress("eglGetPlatformDisplayEXT"));
    if (!getPlatformDisplay)
        return EGL_NO_DISPLAY;
    return getPlatformDisplay(EGL_PLATFORM_SURFACELESS_MESA, EGL_DEFAULT_DISPLAY, nullptr);
}

} // namespace

HeadlessGLContext::HeadlessGLContext() = default;

HeadlessGLContext::~HeadlessGLContext()
{
    destroy();
}

HeadlessGLContext::Options HeadlessGLContext::defaultOptions()
{
    Options options;
    const char* versionOverride = std::getenv("MESA_GL_VERSION_OVERRIDE");
    int major = 0, minor = 0;
    if (versionOverride && std::sscanf(versionOverride, "%d.%d", &major, &minor) == 2) {
        options.majorVersion = major;
        options.minorVersion = minor;
        options.coreProfile = major > 3 || (major == 3 && minor >= 2);
    }
    return options;
}

bool HeadlessGLContext::create(const Options& options)
{
    destroy();
    EGLDisplay display = surfacelessDisplay();
    if (display == EGL_NO_DISPLAY) {
        _error = QStringLiteral("EGL's surfaceless platform is not available");
        return false;
    }
    EGLint eglMajor = 0, eglMinor = 0;
    if (!eglInitialize(display, &eglMajor, &eglMinor)) {
        _error = QStringLiteral("eglInitialize failed: 0x%1").arg(eglGetError(), 0, 16);
        return false;
    }
    _display = display;
    if (!eglBindAPI(EGL_OPENGL_API)) {
        _error = QStringLiteral("eglBindAPI(EGL_OPENGL_API) failed");
        destroy();
        return false;
    }
    const EGLint configAttributes[] = {EGL_RENDERABLE_TYPE, EGL_OPENGL_BIT, EGL_NONE};
    EGLConfig config = nullptr;
    EGLint configCount = 0;
    // Surfaceless contexts need no config when EGL_KHR_no_config_context is there; fall back to any.
    const char* displayExtensions = eglQueryString(display, EGL_EXTENSIONS);
    const bool noConfig = displayExtensions && std::strstr(displayExtensions, "EGL_KHR_no_config_context");
    if (!noConfig && (!eglChooseConfig(display, configAttributes, &config, 1, &configCount) || configCount == 0)) {
        _error = QStringLiteral("no EGL config for desktop OpenGL");
        destroy();
        return false;
    }
    const EGLint contextAttributes[] = {
        EGL_CONTEXT_MAJOR_VERSION, options.majorVersion,
        EGL_CONTEXT_MINOR_VERSION, options.minorVersion,
        EGL_CONTEXT_OPENGL_PROFILE_MASK,
        options.coreProfile ? EGL_CONTEXT_OPENGL_CORE_PROFILE_BIT : EGL_CONTEXT_OPENGL_COMPATIBILITY_PROFILE_BIT,
        EGL_CONTEXT_OPENGL_DEBUG, options.debug ? EGL_TRUE : EGL_FALSE,
        EGL_NONE};
    EGLContext context = eglCreateContext(display, noConfig ? EGL_NO_CONFIG_KHR : config, EGL_NO_CONTEXT,
                                          contextAttributes);
    if (context == EGL_NO_CONTEXT) {
        _error = QStringLiteral("eglCreateContext for OpenGL %1.%2 failed: 0x%3")
                     .arg(options.majorVersion)
                     .arg(options.minorVersion)
                     .arg(eglGetError(), 0, 16);
        destroy();
        return false;
    }
    _context = context;
    _error.clear();
    return true;
}

bool HeadlessGLContext::isValid() const
{
    return _context != nullptr;
}

bool HeadlessGLContext::makeCurrent()
{
    if (!_context)
        return false;
    return eglMakeCurrent(_display, EGL_NO_SURFACE, EGL_NO_SURFACE, _context) == EGL_TRUE;
}

void HeadlessGLContext::doneCurrent()
{
    if (_display)
        eglMakeCurrent(_display, EGL_NO_SURFACE, EGL_NO_SURFACE, EGL_NO_CONTEXT);
}

void* HeadlessGLContext::nativeContext() const
{
    return _context;
}

void* HeadlessGLContext::nativeDisplay() const
{
    return _display;
}

QString HeadlessGLContext::errorString() const
{
    return _error;
}

void HeadlessGLContext::destroy()
{
    if (_context) {
        if (eglGetCurrentContext() == _context)
            doneCurrent();
        eglDestroyContext(_display, _context);
        _context = nullptr;
    }
    // The display is shared by every context of the process; EGL reference-counts nothing here,
    // so it is left initialised rather than torn down under another live context.
    _display = nullptr;
}

} // namespace Tavren::Vyx
