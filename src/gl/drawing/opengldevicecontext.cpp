#include "gl/drawing/opengldevicecontext.h"

#include "gl/drawing/internal/passdevicecontext.h"
#include "gl/objects/bufferobject.h"
#include "gl/objects/uniformbufferobject.h"
#include "gl/objects/vertexarrayobject.h"

namespace Tavren::Vyx {

namespace {

QSharedPointer<OpenGLDeviceContext>& installedDeviceContext()
{
    // Deliberately never destroyed: static destruction runs after Qt and the host's GL context
    // are gone, and the cached quad's destructors would call into both. The GL names go with
    // the context; a host that wants them released calls resetContext() while it is current.
    static auto* instance = new QSharedPointer<OpenGLDeviceContext>();
    return *instance;
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

// QObject-derived objects have no parent, so the shared pointer alone decides when they die. The
// last owner releases the GL name as an owner should, so only a vertex array that dies bound is
// reported.
QSharedPointer<VertexArrayObject> OpenGLDeviceContext::newVAO()
{
    return QSharedPointer<VertexArrayObject>(new VertexArrayObject(), [](VertexArrayObject* vao) {
        vao->destroy();
        delete vao;
    });
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

QSharedPointer<OpenGLDeviceContext> passDeviceContext()
{
    if (OpenGLDeviceContext::current().isNull())
        OpenGLDeviceContext::resetContext();
    return OpenGLDeviceContext::current();
}

} // namespace Tavren::Vyx
