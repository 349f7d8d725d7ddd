#include "gl/textureio/hdrreader.h"

#include "core/logging.h"
#include "core/memory.h"
#include "gl/glloader.h"
#include "gl/objects/internal/texturesetup.h"
#include "gl/objects/texture.h"
#include "gl/platform/glutilities.h"
#include "gl/textureio/hdrdecoder.h"
#include "gl/textureio/textureutilities.h"

#include <memory>
#include <new>

namespace Tavren::Vyx {

namespace {

const uint64_t magicLength = 11;

} // namespace

HDRReader::HDRReader(Memory* memory, const QString& name)
    : _memory(memory)
    , _name(name)
    , _decoder(new HDRDecoder(memory, name))
{
}

HDRReader::~HDRReader() = default;

bool HDRReader::valid() const
{
    return _decoder->valid();
}

unsigned int HDRReader::width() const
{
    return _decoder->width();
}

unsigned int HDRReader::height() const
{
    return _decoder->height();
}

Texture* HDRReader::load(const TextureFileInfo& info)
{
    const QByteArray name = printableName(_name);
    VYX_CHECK_RETURN(valid(), nullptr, "HDR picture '%s' is not valid", name.constData());
    const uint64_t floats = uint64_t(width()) * height() * 3;
    std::unique_ptr<float[]> picture(new (std::nothrow) float[floats]);
    if (!picture) {
        VYX_WARNING("Not enough memory to decode %s (%u x %u)", name.constData(), width(), height());
        return nullptr;
    }
    if (!_decoder->decodeFloat(picture.get()))
        return nullptr;

    const SamplerSettings sampler = {GL_LINEAR, GL_LINEAR, GL_CLAMP_TO_EDGE, GL_CLAMP_TO_EDGE, 0, 100};
    std::unique_ptr<Texture> texture = newTextureWithStorage(GL_TEXTURE_2D, sampler, [&] {
        VYX_CHECK_GL_ERROR(); // errors of earlier work are not this file's
        PixelStoreGuard alignment(GL_UNPACK_ALIGNMENT, 4);
        glTexImage2D(GL_TEXTURE_2D, 0, GL_RGB32F, GLsizei(width()), GLsizei(height()), 0, GL_RGB, GL_FLOAT,
                     picture.get());
        if (glGetError() == GL_NO_ERROR)
            return true;
        VYX_WARNING("Texture %s failed to load.", name.constData());
        return false;
    });
    Texture* loaded = texture.release();
    RemapColorRange(loaded, info.lowValue, info.highValue);
    return loaded;
}

TextureLoader* HDRRecogniser::recognise(Memory* memory, const QString& name) const
{
    unsigned char* head = memory ? memory->get(0, magicLength) : nullptr;
    if (!head)
        return nullptr;
    const bool match = HDRDecoder::hasMagic(head, magicLength);
    memory->release(head);
    return match ? new HDRReader(memory, name) : nullptr;
}

} // namespace Tavren::Vyx
