#include "gl/platform/bindable.h"

#include "core/logging.h"
#include "gl/glloader.h"

namespace Tavren::Vyx {

namespace {

void restoreCapability(unsigned int capability, bool enabled)
{
    if (enabled)
        glEnable(capability);
    else
        glDisable(capability);
}

} // namespace

Bindable::~Bindable() = default;

AutoBinder::AutoBinder(Bindable* object)
    : _object(object)
    , _bound(false)
{
    if (!_object) {
        VYX_DEBUG("AutoBinder tried to bind NULL object");
        return;
    }
    _bound = _object->bind();
}

AutoBinder::AutoBinder(const QSharedPointer<Bindable>& object)
    : AutoBinder(object.data())
{
}

AutoBinder::~AutoBinder()
{
    if (_bound)
        _object->unbind();
}

AutoEnabler::AutoEnabler(unsigned int capability)
    : _wasEnabled(glIsEnabled(capability) == GL_TRUE)
    , _capability(capability)
{
    glEnable(capability);
}

AutoEnabler::~AutoEnabler()
{
    restoreCapability(_capability, _wasEnabled);
}

AutoDisabler::AutoDisabler(unsigned int capability)
    : _wasEnabled(glIsEnabled(capability) == GL_TRUE)
    , _capability(capability)
{
    glDisable(capability);
}

AutoDisabler::~AutoDisabler()
{
    restoreCapability(_capability, _wasEnabled);
}

} // namespace Tavren::Vyx
