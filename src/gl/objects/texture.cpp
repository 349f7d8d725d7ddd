#include "gl/objects/texture.h"

#include "core/logging.h"
#include "gl/glloader.h"
#include "gl/objects/internal/texturesetup.h"
#include "gl/platform/glutilities.h"
#include "gl/platform/internal/glutilities.h"
#include "gl/platform/internal/percontextrecords.h"

#include <QHash>
#include <QMap>

namespace Tavren::Vyx {

namespace {

// Unit bookkeeping of one GL context.
struct ContextInfo
{
    int maxTextureImageUnits = 0;
    QHash<unsigned int, int> textureToUnitMaps;
    QHash<unsigned int, int> boundTextureCounts;
    // Ordered, so the lowest free unit is the first key.
    QMap<int, int> freeTextureUnits;
};

PerContextRecords<ContextInfo>& contextInfos()
{
    static PerContextRecords<ContextInfo> records;
    return records;
}

void initilizeFreeTextureUnits(ContextInfo& contextInfo, void* context)
{
    VYX_CHECK_CONTINUE(0 == contextInfo.maxTextureImageUnits,
                       "VyxTexture::initilizeFreeTextureUnits() : m_MaxTextureImageUnits is set for exisitng GL "
                       "context, %p",
                       context);
    glGetIntegerv(GL_MAX_TEXTURE_IMAGE_UNITS, &contextInfo.maxTextureImageUnits);
    for (int unit = 0; unit < contextInfo.maxTextureImageUnits; ++unit)
        contextInfo.freeTextureUnits.insert(unit, unit);
}

// Where a bound texture's unit and bind count sit in its context's record.
struct UnitBinding
{
    QHash<unsigned int, int>::iterator unit;
    QHash<unsigned int, int>::iterator count;
};

// Finds the texture's entries, one lookup per map, and reports a texture that is not bound; the
// checks print the conditions they stand for.
bool findUnitBinding(ContextInfo& contextInfo, unsigned int textureID, const char* operation, UnitBinding& binding)
{
    binding.unit = contextInfo.textureToUnitMaps.find(textureID);
    binding.count = contextInfo.boundTextureCounts.find(textureID);
    return VYX_CHECK_AS(binding.unit != contextInfo.textureToUnitMaps.end(),
                        "contextInfo.textureToUnitMaps.contains(this->_textureID)", "Texture has not been bound on %s",
                        operation) &&
           VYX_CHECK_AS(binding.count != contextInfo.boundTextureCounts.end(),
                        "contextInfo.boundTextureCounts.contains(this->_textureID)", "Texture has not been bound on %s",
                        operation);
}

// Runs fn on the current context's record, setting the record up on first use.
template <typename Fn>
decltype(auto) withContextInfo(Fn&& fn)
{
    return contextInfos().withCurrentPrepared(
        [](ContextInfo& contextInfo, void* context) { initilizeFreeTextureUnits(contextInfo, context); },
        static_cast<Fn&&>(fn));
}

int aliveTextures = 0;

} // namespace

Texture::Texture(QObject* parent)
    : QObject(parent)
    , _managed(true)
{
    create();
    ++aliveTextures;
}

Texture::Texture(unsigned int textureID, QObject* parent)
    : QObject(parent)
    , _textureID(textureID)
{
    VYX_CHECK_CONTINUE(textureID != 0, "Texture ID was zero, can't wrap a non-existent texture");
    ++aliveTextures;
}

Texture::~Texture()
{
    destroy();
    --aliveTextures;
}

int Texture::NumAlive()
{
    return aliveTextures;
}

bool Texture::create()
{
    VYX_CHECK_RETURN(0u == this->_textureID, false, "Texture is not NULL on create");
    VYX_CHECK_RETURN(false == _readonly, false, "Not allowed to change a readonly texture");
    glGenTextures(1, &_textureID);
    return true;
}

bool Texture::destroy()
{
    VYX_CHECK_RETURN(0u != this->_textureID, false, "Texture is NULL on destroy");
    // A texture destroyed while bound keeps its unit allocated in that context.
    if (_managed)
        glDeleteTextures(1, &_textureID);
    return true;
}

void Texture::setTarget(unsigned int target)
{
    VYX_CHECK_CONTINUE(false == _readonly, "Not allowed to change a readonly texture");
    _target = target;
}

void Texture::setReadOnly()
{
    _readonly = true;
}

Texture* Texture::create2D(unsigned int target, unsigned int internalFormat, int width, int height)
{
    VYX_CHECK_CONTINUE(target == GL_TEXTURE_2D, "Target 0x%X is not allowed.", target);
    VYX_CHECK_CONTINUE(false == _readonly, "Not allowed to change a readonly texture");
    const GLenum format = allocationFormatFromInternalFormat(internalFormat);
    const GLenum type = allocationTypeFromInternalFormat(internalFormat);
    makeTextureStorage(*this, target, SamplerSettings::nearest(), [&] {
        glTexImage2D(target, 0, static_cast<GLint>(internalFormat), width, height, 0, format, type, nullptr);
        return true;
    });
    return this;
}

Texture* Texture::create3D(unsigned int target, unsigned int internalFormat, int width, int height, int depth)
{
    VYX_CHECK_CONTINUE(target == GL_TEXTURE_2D_ARRAY || target == GL_TEXTURE_3D, "Target 0x%X is not allowed.", target);
    VYX_CHECK_CONTINUE(false == _readonly, "Not allowed to change a readonly texture");
    const GLenum format = allocationFormatFromInternalFormat(internalFormat);
    const GLenum type = allocationTypeFromInternalFormat(internalFormat);
    makeTextureStorage(*this, target, SamplerSettings::nearest(), [&] {
        glTexImage3D(target, 0, static_cast<GLint>(internalFormat), width, height, depth, 0, format, type, nullptr);
        return true;
    });
    return this;
}

// Multisample targets have no sampler state.
Texture* Texture::create2DMultisample(unsigned int target, unsigned int internalFormat, int width, int height,
                                      int samples)
{
    VYX_CHECK_CONTINUE(target == GL_TEXTURE_2D_MULTISAMPLE, "Target 0x%X is not allowed.", target);
    VYX_CHECK_CONTINUE(false == _readonly, "Not allowed to change a readonly texture");
    makeTextureStorage(*this, target, SamplerSettings(), [&] {
        glTexImage2DMultisample(target, samples, internalFormat, width, height, GL_TRUE);
        return true;
    });
    return this;
}

Texture* Texture::create3DMultisample(unsigned int target, unsigned int internalFormat, int width, int height,
                                      int depth, int samples)
{
    VYX_CHECK_CONTINUE(target == GL_TEXTURE_2D_MULTISAMPLE_ARRAY, "Target 0x%X is not allowed.", target);
    VYX_CHECK_CONTINUE(false == _readonly, "Not allowed to change a readonly texture");
    makeTextureStorage(*this, target, SamplerSettings(), [&] {
        glTexImage3DMultisample(target, samples, internalFormat, width, height, depth, GL_TRUE);
        return true;
    });
    return this;
}

bool Texture::checkUsable(const char* operation) const
{
    return VYX_CHECK(0u != this->_textureID, "Texutre is NULL on %s", operation) &&
           VYX_CHECK(0u != this->_target, "Texture Target is not set on %s", operation);
}

bool Texture::bind()
{
    if (!checkUsable("bind"))
        return false;
    return withContextInfo([this](ContextInfo& contextInfo) {
        const auto bound = contextInfo.textureToUnitMaps.constFind(_textureID);
        if (bound != contextInfo.textureToUnitMaps.constEnd()) {
            // Still bound on its unit: only make that unit active again.
            glActiveTexture(GL_TEXTURE0 + static_cast<GLenum>(bound.value()));
            ++contextInfo.boundTextureCounts[_textureID];
            return true;
        }
        if (contextInfo.freeTextureUnits.isEmpty()) {
            VYX_WARNING("There is no available texture units");
            return false;
        }
        const auto lowest = contextInfo.freeTextureUnits.begin();
        const int unit = lowest.key();
        contextInfo.freeTextureUnits.erase(lowest);
        contextInfo.textureToUnitMaps.insert(_textureID, unit);
        contextInfo.boundTextureCounts.insert(_textureID, 1);
        glActiveTexture(GL_TEXTURE0 + static_cast<GLenum>(unit));
        glBindTexture(_target, _textureID);
        return true;
    });
}

bool Texture::unbind()
{
    if (!checkUsable("unbind"))
        return false;
    return withContextInfo([this](ContextInfo& contextInfo) {
        UnitBinding binding;
        if (!findUnitBinding(contextInfo, _textureID, "unbind", binding))
            return false;
        const int unit = binding.unit.value();
        glActiveTexture(GL_TEXTURE0 + static_cast<GLenum>(unit));
        if (--binding.count.value() > 0)
            return true;
        glBindTexture(_target, 0);
        contextInfo.textureToUnitMaps.erase(binding.unit);
        contextInfo.boundTextureCounts.erase(binding.count);
        contextInfo.freeTextureUnits.insert(unit, unit);
        return true;
    });
}

int Texture::unit()
{
    if (!checkUsable("unit()"))
        return -1;
    return withContextInfo([this](ContextInfo& contextInfo) {
        UnitBinding binding;
        return findUnitBinding(contextInfo, _textureID, "unit()", binding) ? binding.unit.value() : -1;
    });
}

int Texture::maxTextureUnits()
{
    return withContextInfo([](ContextInfo& contextInfo) { return contextInfo.maxTextureImageUnits; });
}

} // namespace Tavren::Vyx
