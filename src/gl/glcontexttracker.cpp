#include "gl/glcontexttracker.h"

#include <QGLContext>
#include <QOpenGLContext>

#include <EGL/egl.h>
#include <GL/glx.h>

namespace Tavren::Vyx {

GLContextTracker::GLContextTracker(QObject* parent)
    : QObject(parent)
{
}

void GLContextTracker::trackCurrentContext()
{
    _trackedContext = getCurrentContext();
}

void* GLContextTracker::trackedContext() const
{
    return _trackedContext;
}

bool GLContextTracker::check() const
{
    return _trackedContext == getCurrentContext();
}

void* GLContextTracker::currentContext()
{
    return getCurrentContext();
}

void* currentQGLContext()
{
    return const_cast<QGLContext*>(QGLContext::currentContext());
}

void* GLContextTracker::getCurrentContext()
{
    if (const QGLContext* context = QGLContext::currentContext())
        return const_cast<QGLContext*>(context);
    if (QOpenGLContext* context = QOpenGLContext::currentContext())
        return context;
    if (EGLContext context = eglGetCurrentContext(); context != EGL_NO_CONTEXT)
        return context;
    return glXGetCurrentContext();
}

} // namespace Tavren::Vyx
