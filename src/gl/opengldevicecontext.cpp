#include "gl/opengldevicecontext.h"

#include "gl/bufferobject.h"
#include "gl/uniformbufferobject.h"
#include "gl/vertexarrayobject.h"

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

// QObject-derived objects have no parent, so the shared pointer alone decides when they die.
QSharedPointer<VertexArrayObject> OpenGLDeviceContext::newVAO()
{
    return QSharedPointer<VertexArrayObject>(new VertexArrayObject(), [](VertexArrayObject* vao) { delete vao; });
}

QSharedPointer<UniformBufferObject> OpenGLDeviceContext::newUniformBuffer(const QString& blockName,
                                                                         QSharedPointer<BufferObject> buffer)
{
    return QSharedPointer<UniformBufferObject>(new UniformBufferObject(blockName, std::move(buffer)),
                                               [](UniformBufferObject* ubo) { delete ubo; });
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
