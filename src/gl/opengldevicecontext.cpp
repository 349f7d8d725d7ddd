#include "gl/opengldevicecontext.h"

namespace Tavren::Vyx {

namespace {

QSharedPointer<OpenGLDeviceContext>& installedDeviceContext()
{
    static QSharedPointer<OpenGLDeviceContext> instance;
    return instance;
}

} // namespace

OpenGLDeviceContext::OpenGLDeviceContext() = default;

OpenGLDeviceContext::~OpenGLDeviceContext() = default;

QSharedPointer<OpenGLDeviceContext> OpenGLDeviceContext::current()
{
    return installedDeviceContext();
}

void OpenGLDeviceContext::resetContext()
{
    installedDeviceContext() = QSharedPointer<OpenGLDeviceContext>::create();
}

} // namespace Tavren::Vyx
