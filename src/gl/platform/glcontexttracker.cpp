#include "gl/platform/glcontexttracker.h"

#include "gl/platform/internal/nativecontext.h"
#include "gl/platform/internal/percontextrecords.h"

#include <QOpenGLContext>
#include <QtGlobal>
#if QT_VERSION_MAJOR < 6
#include <QGLContext>
#endif

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

void GLContextTracker::nativeContextChanged()
{
    forgetCurrentNativeContext();
}

void GLContextTracker::contextDestroyed(void* context)
{
    forgetContextRecords(context);
}

void* currentQGLContext()
{
#if QT_VERSION_MAJOR < 6
    return const_cast<QGLContext*>(QGLContext::currentContext());
#else
    return nullptr; // Qt 6 has no QGLContext
#endif
}

void* GLContextTracker::getCurrentContext()
{
    // QGLContext::currentContext() is the wrapper of the current QOpenGLContext, so one read of
    // Qt's thread storage answers the first two steps; Qt's answer is always exact.
    if (QOpenGLContext* context = QOpenGLContext::currentContext()) {
#if QT_VERSION_MAJOR < 6
        if (QGLContext* wrapper = QGLContext::fromOpenGLContext(context))
            return wrapper;
#endif
        return context;
    }
    return currentNativeContext();
}

} // namespace Tavren::Vyx
