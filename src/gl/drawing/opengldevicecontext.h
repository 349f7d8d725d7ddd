#pragma once

#include "core/vyxexport.h"

#include <QHash>
#include <QSharedPointer>
#include <QString>

namespace Tavren::Vyx {

class BufferObject;
class DrawBuffers;
class UniformBufferObject;
class VertexArrayObject;

// Process-wide factory of the commonest GL objects, handed out as shared pointers.
// The host installs an instance with resetContext() and replaces it to drop every cached object.
class VYXGL_EXPORT OpenGLDeviceContext
{
public:
    OpenGLDeviceContext();
    virtual ~OpenGLDeviceContext();

    // Adopts an existing GL buffer name; the buffer object never deletes it.
    virtual QSharedPointer<BufferObject> newBuffer(unsigned int bo);
    // A buffer object with a GL name of its own, deleted with it; no target set.
    virtual QSharedPointer<BufferObject> newBuffer();
    // The full-screen quad of the current context (vertex arrays are not shared between
    // contexts), made with newFullscreenQuad() on first use there and kept.
    virtual QSharedPointer<DrawBuffers> fullscreenQuad();
    // Two triangles covering clip space, with "va_Vertex" and "va_TexCoord".
    virtual QSharedPointer<DrawBuffers> newFullscreenQuad();
    // A vertex array object; its GL name is made at the first bind.
    virtual QSharedPointer<VertexArrayObject> newVAO();
    // Connects buffer to the uniform block blockName of whatever program it is bound for.
    virtual QSharedPointer<UniformBufferObject> newUniformBuffer(const QString& blockName,
                                                                 QSharedPointer<BufferObject> buffer);

    OpenGLDeviceContext(const OpenGLDeviceContext&) = delete;
    OpenGLDeviceContext& operator=(const OpenGLDeviceContext&) = delete;

    // The installed instance; null before the first resetContext().
    static QSharedPointer<OpenGLDeviceContext> current();
    // Installs a new instance and releases the previous one with everything it cached.
    static void resetContext();

    // Drops what was made for the current context, while it is still current: for a host
    // whose context goes while others stay.
    void releaseCurrentContextObjects();

private:
    // By GLContextTracker::currentContext(); empty until fullscreenQuad() is first asked for.
    QHash<void*, QSharedPointer<DrawBuffers>> _fullscreenQuads;
};

} // namespace Tavren::Vyx
