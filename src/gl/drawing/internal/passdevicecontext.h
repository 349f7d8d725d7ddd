#pragma once

#include <QSharedPointer>

namespace Tavren::Vyx {

class OpenGLDeviceContext;

// The device context whose quad, cube and buffers a render pass draws with; a host that has not
// installed one gets one here, so passes work after initializeGLFunctions() alone.
QSharedPointer<OpenGLDeviceContext> passDeviceContext();

} // namespace Tavren::Vyx
