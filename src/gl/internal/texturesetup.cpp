#include "gl/internal/texturesetup.h"

#include "gl/bindable.h"
#include "gl/glloader.h"
#include "gl/opengldevicecontext.h"
#include "gl/texture.h"

namespace Tavren::Vyx {

QSharedPointer<OpenGLDeviceContext> passDeviceContext()
{
    if (OpenGLDeviceContext::current().isNull())
        OpenGLDeviceContext::resetContext();
    return OpenGLDeviceContext::current();
}

PixelStoreGuard::PixelStoreGuard(unsigned int parameter, int value)
    : _parameter(parameter)
{
    glGetIntegerv(parameter, &_saved);
    glPixelStorei(parameter, value);
}

PixelStoreGuard::~PixelStoreGuard()
{
    glPixelStorei(_parameter, _saved);
}

namespace {

const GLenum kSamplerParameters[6] = {GL_TEXTURE_MIN_FILTER, GL_TEXTURE_MAG_FILTER, GL_TEXTURE_WRAP_S,
                                      GL_TEXTURE_WRAP_T,     GL_TEXTURE_BASE_LEVEL, GL_TEXTURE_MAX_LEVEL};

} // namespace

SamplerSettings SamplerSettings::nearest()
{
    return {GL_NEAREST, GL_NEAREST};
}

SamplerSettings SamplerSettings::of(unsigned int target)
{
    SamplerSettings settings;
    int* fields[6] = {&settings.minFilter, &settings.magFilter, &settings.wrapS,
                      &settings.wrapT,     &settings.baseLevel, &settings.maxLevel};
    for (int i = 0; i < 6; ++i)
        glGetTexParameteriv(target, kSamplerParameters[i], fields[i]);
    return settings;
}

void SamplerSettings::apply(unsigned int target) const
{
    const int values[6] = {minFilter, magFilter, wrapS, wrapT, baseLevel, maxLevel};
    for (int i = 0; i < 6; ++i) {
        if (values[i] != kUnset)
            glTexParameteri(target, kSamplerParameters[i], values[i]);
    }
}

bool makeTextureStorage(Texture& texture, unsigned int target, const SamplerSettings& sampler,
                        const std::function<bool()>& storage)
{
    texture.setTarget(target);
    AutoBinder binder(&texture);
    // Without a unit of its own the calls would change whatever texture is bound.
    if (!binder.isBound())
        return false;
    sampler.apply(target);
    return storage();
}

std::unique_ptr<Texture> newTextureWithStorage(unsigned int target, const SamplerSettings& sampler,
                                               const std::function<bool()>& storage)
{
    auto texture = std::make_unique<Texture>();
    if (!makeTextureStorage(*texture, target, sampler, storage))
        return nullptr;
    return texture;
}

} // namespace Tavren::Vyx
