#pragma once

#include "core/vyxexport.h"

#include <QObject>

namespace Tavren::Vyx {

// Remembers the GL context an object was made in, so later use can be checked against it.
// A context is identified by an untyped pointer: the current QGLContext (Qt 5 only), else the
// current QOpenGLContext, else the native EGL context, else the GLX context; null when none is current.
class VYXGL_EXPORT GLContextTracker : public QObject
{
public:
    explicit GLContextTracker(QObject* parent = nullptr);

    void trackCurrentContext();
    void* trackedContext() const;
    // True when the tracked context is the current one (two nulls compare equal).
    bool check() const;

    static void* currentContext();

    // For a host that makes native EGL or GLX contexts current through entry points it looked
    // up in the libraries' own handles (dlopen and dlsym) rather than through the process's
    // symbols or eglGetProcAddress/glXGetProcAddress: call it on that thread after each switch.
    static void nativeContextChanged();
    // Drops what the library keeps per context (binding points held, capability answers, ...) for
    // context, as currentContext() identified it, so that a context made later at the same
    // address starts afresh. Needed only for contexts destroyed where the library cannot see:
    // eglDestroyContext and glXDestroyContext through the process's symbols and the destruction
    // of Qt contexts are noticed already.
    static void contextDestroyed(void* context);

private:
    static void* getCurrentContext();

    void* _trackedContext = nullptr;
};

// The current QGLContext only (null when Qt has none current, and always on Qt 6), for diagnostics.
void* currentQGLContext();

} // namespace Tavren::Vyx
