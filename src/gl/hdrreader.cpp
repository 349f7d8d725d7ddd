#include "gl/hdrreader.h"

#include "core/logging.h"
#include "core/memory.h"
#include "gl/glloader.h"
#include "gl/glutilities.h"
#include "gl/hdrdecoder.h"
#include "gl/texture.h"
#include "gl/textureutilities.h"

#include <memory>
#include <new>

namespace Tavren::Vyx {

namespace {

const uint64_t magicLength = 11;

QByteArray printableName(const QString& name)
{
    return name.isEmpty() ? QByteArray("<unnamed>") : name.toLocal8Bit();
}

} // namespace

HDRReader::HDRReader(Memory* memory, const QString& name)
    : _memory(memory)
    , _name(name)
    , _decoder(new HDRDecoder(memory, name))
{
}

HDRReader::~HDRReader()
{
    // The decoder gives its block back to the memory first.
    _decoder.reset();
    delete _memory;
}

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
    if (!VYX_CHECK(valid(), "HDR picture '%s' is not valid", name.constData()))
        return nullptr;
    const uint64_t floats = uint64_t(width()) * height() * 3;
    std::unique_ptr<float[]> picture(new (std::nothrow) float[floats]);
    if (!picture) {
        VYX_WARNING("Not enough memory to decode %s (%u x %u)", name.constData(), width(), height());
        return nullptr;
    }
    if (!_decoder->decodeFloat(picture.get()))
        return nullptr;

    auto* texture = new Texture();
    texture->setTarget(GL_TEXTURE_2D);
    if (!texture->bind()) {
        delete texture;
        return nullptr;
    }
    VYX_CHECK_GL_ERROR(); // errors of earlier work are not this file's
    GLint alignment = 4;
    glGetIntegerv(GL_UNPACK_ALIGNMENT, &alignment);
    glPixelStorei(GL_UNPACK_ALIGNMENT, 4);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MIN_FILTER, GL_LINEAR);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MAG_FILTER, GL_LINEAR);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_WRAP_S, GL_CLAMP_TO_EDGE);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_WRAP_T, GL_CLAMP_TO_EDGE);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_BASE_LEVEL, 0);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MAX_LEVEL, 100);
    glTexImage2D(GL_TEXTURE_2D, 0, GL_RGB32F, GLsizei(width()), GLsizei(height()), 0, GL_RGB, GL_FLOAT,
                 picture.get());
    const bool failed = glGetError() != GL_NO_ERROR;
    picture.reset();
    glPixelStorei(GL_UNPACK_ALIGNMENT, alignment);
    texture->unbind();

    if (failed) {
        VYX_WARNING("Texture %s failed to load.", name.constData());
        delete texture;
        return nullptr;
    }
    RemapColorRange(texture, info.lowValue, info.highValue);
    return texture;
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
