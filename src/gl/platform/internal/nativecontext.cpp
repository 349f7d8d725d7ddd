#include "gl/platform/internal/nativecontext.h"

#include "core/vyxexport.h"
#include "gl/platform/internal/percontextrecords.h"

#include <EGL/egl.h>
#include <GL/glx.h>

#include <dlfcn.h>
#include <pthread.h>

#include <cstdlib>
#include <cstring>

namespace Tavren::Vyx {

namespace {

struct CachedAnswer
{
    void* context;
    bool known;
};

// Static TLS: read on every bind, so no call into the dynamic linker.
thread_local CachedAnswer cachedAnswer __attribute__((tls_model("initial-exec"))) = {nullptr, false};

constexpr const char* eglLibrary = "libEGL.so.1";
constexpr const char* glxLibrary = "libGLX.so.0";

// The definition the process would have used without this library.
template <typename Fn>
Fn nextSymbol(const char* library, const char* name)
{
    void* symbol = dlsym(RTLD_NEXT, name);
    if (!symbol) {
        // Loaded before this library: only its own handle still finds it.
        if (void* handle = dlopen(library, RTLD_LAZY | RTLD_NOLOAD))
            symbol = dlsym(handle, name);
    }
    return reinterpret_cast<Fn>(symbol);
}

template <typename Fn, typename... Args>
auto forwardAndForget(Fn next, Args... args) -> decltype(next(args...))
{
    if (!next)
        return {};
    const auto result = next(args...);
    forgetCurrentNativeContext();
    return result;
}

void* queryNativeContext()
{
    if (EGLContext context = eglGetCurrentContext(); context != EGL_NO_CONTEXT)
        return context;
    return glXGetCurrentContext();
}

Bool forwardMakeCurrentReadSGI(Display* display, GLXDrawable draw, GLXDrawable read, GLXContext context);

// Every name through which the current context can change, with the forwarder that stands for it.
struct Watched
{
    const char* name;
    void (*forwarder)();
};

const Watched* watchedNames()
{
    static const Watched names[] = {
        {"eglMakeCurrent", reinterpret_cast<void (*)()>(&eglMakeCurrent)},
        {"eglReleaseThread", reinterpret_cast<void (*)()>(&eglReleaseThread)},
        {"eglBindAPI", reinterpret_cast<void (*)()>(&eglBindAPI)},
        {"eglDestroyContext", reinterpret_cast<void (*)()>(&eglDestroyContext)},
        {"eglTerminate", reinterpret_cast<void (*)()>(&eglTerminate)},
        {"glXMakeCurrent", reinterpret_cast<void (*)()>(&glXMakeCurrent)},
        {"glXMakeContextCurrent", reinterpret_cast<void (*)()>(&glXMakeContextCurrent)},
        {"glXDestroyContext", reinterpret_cast<void (*)()>(&glXDestroyContext)},
        {"glXMakeCurrentReadSGI", reinterpret_cast<void (*)()>(&forwardMakeCurrentReadSGI)},
        {nullptr, nullptr}};
    return names;
}

void (*forwarderFor(const char* name))()
{
    for (const Watched* watched = watchedNames(); name && watched->name; ++watched) {
        if (std::strcmp(watched->name, name) == 0)
            return watched->forwarder;
    }
    return nullptr;
}

// True when the process resolves the watched names, and the lookups that hand them out, to
// this library; a name nobody defines cannot be called.
bool watchedNamesResolveHere()
{
    Dl_info self{};
    if (!dladdr(reinterpret_cast<void*>(&queryNativeContext), &self))
        return false;
    const char* lookups[] = {"eglGetProcAddress", "glXGetProcAddress", "glXGetProcAddressARB"};
    auto resolvesHere = [&](const char* name) {
        void* definition = dlsym(RTLD_DEFAULT, name);
        Dl_info info{};
        return !definition || (dladdr(definition, &info) && info.dli_fbase == self.dli_fbase);
    };
    for (const char* name : lookups) {
        if (!resolvesHere(name))
            return false;
    }
    for (const Watched* watched = watchedNames(); watched->name; ++watched) {
        // Reached through the lookups only.
        if (watched->forwarder != reinterpret_cast<void (*)()>(&forwardMakeCurrentReadSGI)
            && !resolvesHere(watched->name))
            return false;
    }
    return true;
}

Bool forwardMakeCurrentReadSGI(Display* display, GLXDrawable draw, GLXDrawable read, GLXContext context)
{
    using Fn = Bool (*)(Display*, GLXDrawable, GLXDrawable, GLXContext);
    static const Fn next = [] {
        auto lookup = nextSymbol<decltype(&glXGetProcAddressARB)>(glxLibrary, "glXGetProcAddressARB");
        return lookup ? reinterpret_cast<Fn>(lookup(reinterpret_cast<const GLubyte*>("glXMakeCurrentReadSGI")))
                      : nullptr;
    }();
    return forwardAndForget(next, display, draw, read, context);
}

} // namespace

bool nativeContextCacheEnabled()
{
    static const bool enabled = [] {
        const char* setting = std::getenv("VYX_NATIVE_CONTEXT_CACHE");
        if ((setting && std::strcmp(setting, "0") == 0) || !watchedNamesResolveHere())
            return false;
        // A forked child keeps the forking thread's cache but not its current context.
        return pthread_atfork(nullptr, nullptr, &forgetCurrentNativeContext) == 0;
    }();
    return enabled;
}

void* currentNativeContext()
{
    CachedAnswer& answer = cachedAnswer;
    if (answer.known)
        return answer.context;
    void* context = queryNativeContext();
    if (nativeContextCacheEnabled())
        answer = {context, true};
    return context;
}

void forgetCurrentNativeContext()
{
    cachedAnswer.known = false;
}

} // namespace Tavren::Vyx

using namespace Tavren::Vyx;

// The library's own definitions of the calls that change the current context; each forwards
// to the definition the process would otherwise use.
extern "C" {

VYXGL_EXPORT EGLBoolean eglMakeCurrent(EGLDisplay display, EGLSurface draw, EGLSurface read, EGLContext context)
{
    static const auto next = nextSymbol<decltype(&eglMakeCurrent)>(eglLibrary, "eglMakeCurrent");
    return forwardAndForget(next, display, draw, read, context);
}

VYXGL_EXPORT EGLBoolean eglReleaseThread()
{
    static const auto next = nextSymbol<decltype(&eglReleaseThread)>(eglLibrary, "eglReleaseThread");
    return forwardAndForget(next);
}

VYXGL_EXPORT EGLBoolean eglBindAPI(EGLenum api)
{
    static const auto next = nextSymbol<decltype(&eglBindAPI)>(eglLibrary, "eglBindAPI");
    return forwardAndForget(next, api);
}

VYXGL_EXPORT EGLBoolean eglDestroyContext(EGLDisplay display, EGLContext context)
{
    static const auto next = nextSymbol<decltype(&eglDestroyContext)>(eglLibrary, "eglDestroyContext");
    const EGLBoolean destroyed = forwardAndForget(next, display, context);
    if (destroyed)
        forgetContextRecords(context);
    return destroyed;
}

VYXGL_EXPORT EGLBoolean eglTerminate(EGLDisplay display)
{
    static const auto next = nextSymbol<decltype(&eglTerminate)>(eglLibrary, "eglTerminate");
    return forwardAndForget(next, display);
}

VYXGL_EXPORT __eglMustCastToProperFunctionPointerType eglGetProcAddress(const char* name)
{
    static const auto next = nextSymbol<decltype(&eglGetProcAddress)>(eglLibrary, "eglGetProcAddress");
    if (auto forwarder = forwarderFor(name))
        return reinterpret_cast<__eglMustCastToProperFunctionPointerType>(forwarder);
    return next ? next(name) : nullptr;
}

VYXGL_EXPORT Bool glXMakeCurrent(Display* display, GLXDrawable drawable, GLXContext context)
{
    static const auto next = nextSymbol<decltype(&glXMakeCurrent)>(glxLibrary, "glXMakeCurrent");
    return forwardAndForget(next, display, drawable, context);
}

VYXGL_EXPORT Bool glXMakeContextCurrent(Display* display, GLXDrawable draw, GLXDrawable read, GLXContext context)
{
    static const auto next = nextSymbol<decltype(&glXMakeContextCurrent)>(glxLibrary, "glXMakeContextCurrent");
    return forwardAndForget(next, display, draw, read, context);
}

VYXGL_EXPORT void glXDestroyContext(Display* display, GLXContext context)
{
    static const auto next = nextSymbol<decltype(&glXDestroyContext)>(glxLibrary, "glXDestroyContext");
    if (next)
        next(display, context);
    forgetCurrentNativeContext();
    forgetContextRecords(context);
}

VYXGL_EXPORT __GLXextFuncPtr glXGetProcAddressARB(const GLubyte* name)
{
    static const auto next = nextSymbol<decltype(&glXGetProcAddressARB)>(glxLibrary, "glXGetProcAddressARB");
    if (auto forwarder = forwarderFor(reinterpret_cast<const char*>(name)))
        return forwarder;
    return next ? next(name) : nullptr;
}

VYXGL_EXPORT __GLXextFuncPtr glXGetProcAddress(const GLubyte* name)
{
    return glXGetProcAddressARB(name);
}

} // extern "C"
