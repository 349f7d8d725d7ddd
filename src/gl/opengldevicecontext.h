#pragma once

#include "core/vyxexport.h"

#include <QSharedPointer>

namespace Tavren::Vyx {

class BufferObject;

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

    OpenGLDeviceContext(const OpenGLDeviceContext&) = delete;
    OpenGLDeviceContext& operator=(const OpenGLDeviceContext&) = delete;

    // The installed instance; null before the first resetContext().
    static QSharedPointer<OpenGLDeviceContext> current();
    // Installs a new instance and releases the previous one with everything it cached.
    static void resetContext();
};

} // namespace Tavren::Vyx
