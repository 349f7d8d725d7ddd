#pragma once

#include "core/vyxexport.h"

#include <QSharedPointer>

namespace Tavren::Vyx {

// Process-wide factory of the commonest GL objects, handed out as shared pointers.
// The host installs an instance with resetContext() and replaces it to drop every cached object.
class VYXGL_EXPORT OpenGLDeviceContext
{
public:
    OpenGLDeviceContext();
    virtual ~OpenGLDeviceContext();

    OpenGLDeviceContext(const OpenGLDeviceContext&) = delete;
    OpenGLDeviceContext& operator=(const OpenGLDeviceContext&) = delete;

    // The installed instance; null before the first resetContext().
    static QSharedPointer<OpenGLDeviceContext> current();
    // Installs a new instance and releases the previous one with everything it cached.
    static void resetContext();
};

} // namespace Tavren::Vyx
