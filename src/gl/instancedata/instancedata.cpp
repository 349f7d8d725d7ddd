#include "gl/instancedata/instancedata.h"

#include "core/logging.h"
#include "gl/instancedata/internal/instancedatalayout.h"
#include "gl/shaders/glslmacroprocessor.h"
#include "gl/textureio/textureio.h"
#include "gl/textures/texturemanager.h"

#include <cstring>

namespace Tavren::Vyx {

using InstanceDataLayout::checkedMember;
using InstanceDataLayout::checkedMemberOffset;

InstanceDataRegistry& InstanceDataRegistry::Instance()
{
    static InstanceDataRegistry registry;
    return registry;
}

InstanceDataRegistry::InstanceDataRegistry()
{
    GLSLMacroProcessor::setInstanceDataResolver([](const QString& planName, QString* glslh) {
        const InstanceDataPlan* plan = Instance().getPlan(planName);
        if (plan)
            *glslh = plan->glslh();
        return plan != nullptr;
    });
}

void InstanceDataRegistry::registerPlan(InstanceDataPlan* plan)
{
    VYX_CHECK_RETURN(plan && InstanceDataPlan::isGLSLIdentifier(plan->name()), ,
                     "InstanceDataRegistry::registerPlan() : '%s' cannot name GLSL identifiers",
                     plan ? qPrintable(plan->name()) : "(null plan)");
    plan->finalise();
    _plans[plan->name()] = plan;
}

InstanceDataPlan* InstanceDataRegistry::getPlan(const QString& name) const
{
    InstanceDataPlan* plan = _plans.value(name, nullptr);
    if (!plan)
        VYX_WARNING("InstanceDataRegistry::getPlan() : Specified instanceData plan does not exist : %s",
                    qPrintable(name));
    return plan;
}

void InstanceDataRegistry::unregisterPlan(const QString& name)
{
    _plans.remove(name);
}

InstanceData::InstanceData(const QString& planName)
    : InstanceData(InstanceDataRegistry::Instance().getPlan(planName))
{
}

InstanceData::InstanceData(InstanceDataPlan* plan)
    : _plan(plan)
    , _data(plan ? int(plan->totalDataSize()) : 0, '\0')
{
}

QString InstanceData::name() const
{
    return _plan ? _plan->name() : QString();
}

namespace InstanceDataLayout {

const InstanceDataPlan::MemberLayout* checkedMember(const InstanceDataPlan* plan, const QString& name, size_t size,
                                                   const char* caller)
{
    if (!plan) {
        VYX_CRITICAL("%s : There is no associated instanceData plan. It should not be called on such data", caller);
        return nullptr;
    }
    const InstanceDataPlan::MemberLayout* member = plan->memberLayout(name);
    // Checked before any report is formatted: this runs for every value a host packs.
    if (member && size > 0 && size <= member->size)
        return member;
    VYX_CHECK_RETURN(member, nullptr, "%s( '%s') : plan '%s' has no such member", caller, qPrintable(name),
                     qPrintable(plan->name()));
    VYX_CHECK_CONTINUE(size > 0 && size <= member->size, "%s( '%s') : %d bytes do not fit a member of %d bytes",
                       caller, qPrintable(name), int(size), int(member->size));
    return nullptr;
}

int checkedMemberOffset(const InstanceDataPlan* plan, const QString& name, size_t size, const char* caller)
{
    const InstanceDataPlan::MemberLayout* member = checkedMember(plan, name, size, caller);
    return member ? member->offset : -1;
}

} // namespace InstanceDataLayout

bool InstanceData::set(const QString& name, const void* data, size_t size)
{
    if (!_plan) {
        VYX_CRITICAL("InstanceData::set() : There is no associated instanceData plan. set() should not be called on "
                     "such InstanceData");
        return false;
    }
    const InstanceDataPlan::MemberLayout* member = checkedMember(_plan, name, size, "InstanceData::set");
    if (!member)
        return false;
    // Reported, but the bytes still go in: the caller may be restoring a token it read back.
    VYX_CHECK_AS(InstanceDataPlan::eTexture != member->type, "InstanceDataPlan::eTexture != _plan->dataType(dataName)",
                 "InstanceData::set( '%s') call on data type %d", qPrintable(name), int(member->type));
    std::memcpy(_data.data() + member->offset, data, size);
    return true;
}

bool InstanceData::set(int offset, const void* data, size_t size)
{
    VYX_CHECK_RETURN(offset >= 0 && size_t(offset) + size <= size_t(_data.size()), false,
                     "InstanceData::set( %d) : %d bytes past the record's %d", offset, int(size), int(_data.size()));
    std::memcpy(_data.data() + offset, data, size);
    return true;
}

bool InstanceData::get(const QString& name, void* data, size_t size) const
{
    const int offset = checkedMemberOffset(_plan, name, size, "InstanceData::get");
    if (offset < 0)
        return false;
    std::memcpy(data, _data.constData() + offset, size);
    return true;
}

bool InstanceData::storeToken(int offset, const TextureToken& token)
{
    if (!set(offset, &token.token, sizeof(token.token)))
        return false;
    if (!token.isNull())
        _textureTokens.insert(token);
    return true;
}

bool InstanceData::setToken(const QString& name, const TextureToken& token)
{
    // The type is reported first and the call goes on, as raw bytes do through set(); the token
    // goes in only where its bytes fit.
    if (_plan) {
        const InstanceDataPlan::DataType type = _plan->dataType(name);
        VYX_CHECK_AS(InstanceDataPlan::eTexture == type, "InstanceDataPlan::eTexture == _plan->dataType(dataName)",
                     "InstanceData::setTexture( '%s') call on data type %d", qPrintable(name), int(type));
    }
    const InstanceDataPlan::MemberLayout* member =
        checkedMember(_plan, name, sizeof(token.token), "InstanceData::setTexture");
    return member && storeToken(member->offset, token);
}

bool InstanceData::setTexture(const QString& name, Texture* texture, TextureManager* manager)
{
    manager = manager ? manager : TextureManager::Instance();
    return manager && setToken(name, manager->tokenForTexture(texture));
}

bool InstanceData::setTexture(int offset, Texture* texture, TextureManager* manager)
{
    manager = manager ? manager : TextureManager::Instance();
    return manager && storeToken(offset, manager->tokenForTexture(texture));
}

bool InstanceData::setTexture(const QString& name, const QString& imagePath, TextureManager* manager)
{
    manager = manager ? manager : TextureManager::Instance();
    return manager && setToken(name, manager->tokenForImage(imagePath, TextureFileInfo()));
}

void InstanceData::clear()
{
    _data.fill('\0');
}

void InstanceData::clearTextures()
{
    _textureTokens.clear();
}

size_t InstanceData::memoryEstimateCPU() const
{
    return sizeof(*this) + size_t(_data.size()) + size_t(_textureTokens.size()) * sizeof(TextureToken);
}

} // namespace Tavren::Vyx
