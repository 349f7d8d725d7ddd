#include "render/punctuallight.h"

namespace Tavren::Vyx {

PunctualLight::PunctualLight(QObject* parent)
    : ShadowMapLight(parent)
{
}

} // namespace Tavren::Vyx
