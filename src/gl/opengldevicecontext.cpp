#include "gl/opengldevicecontext.h"

#include "gl/bufferobject.h"

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

QSharedPointer<BufferObject> OpenGLDeviceContext::newBuffer(unsigned int bo)
{
    return QSharedPointer<BufferObject>(new BufferObject(bo));
}

QSharedPointer<BufferObject> OpenGLDeviceContext::newBuffer()
{
    return QSharedPointer<BufferObject>(new BufferObject());
}

QSharedPointer<OpenGLDeviceContext> OpenGLDeviceContext::current()
{
    return installedDeviceContext();
}

void OpenGLDeviceContext::resetContext()
{
    installedDeviceContext() = QSharedPointer<OpenGLDeviceContext>::create();
}

} // namespace Tavren::Vyx
