#include "gl/textureio/astcreader.h"

#include "core/logging.h"
#include "core/memory.h"
#include "gl/glloader.h"
#include "gl/objects/internal/texturesetup.h"
#include "gl/objects/texture.h"
#include "gl/platform/glutilities.h"
#include "gl/platform/internal/glcapabilities.h"
#include "gl/textureio/astcfile.h"
#include "gl/textureio/textureutilities.h"

#include <algorithm>
#include <functional>
#include <memory>
#include <new>

namespace Tavren::Vyx {

namespace {

// A 2D texture whose single level is complete, so the row-flipping pass can sample it, made by
// `upload`; null, after a warning, when GL refuses the upload.
std::unique_ptr<Texture> newTexture(const QByteArray& name, const std::function<void()>& upload)
{
    const SamplerSettings sampler = {GL_LINEAR, GL_LINEAR, GL_CLAMP_TO_EDGE, GL_CLAMP_TO_EDGE, 0, 0};
    return newTextureWithStorage(GL_TEXTURE_2D, sampler, [&] {
        VYX_CHECK_GL_ERROR(); // errors of earlier work are not this file's
        upload();
        if (glGetError() == GL_NO_ERROR)
            return true;
        VYX_WARNING("Compressed texture %s failed to load.", name.constData());
        return false;
    });
}

// Drivers cannot build levels of ASTC blocks, so they are made once the texels are plain RGBA.
void buildMipmaps(Texture* texture)
{
    if (!texture->bind())
        return;
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MIN_FILTER, GL_LINEAR_MIPMAP_LINEAR);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MAX_LEVEL, 1000);
    glGenerateMipmap(GL_TEXTURE_2D);
    texture->unbind();
}

} // namespace

ASTCReader::ASTCReader(Memory* memory, const QString& name)
    : _memory(memory)
    , _name(name)
    , _file(new ASTCFile(memory, name))
{
}

ASTCReader::~ASTCReader() = default;

bool ASTCReader::valid() const
{
    return _file->valid();
}

unsigned int ASTCReader::width() const
{
    return _file->width();
}

unsigned int ASTCReader::height() const
{
    return _file->height();
}

Texture* ASTCReader::load(const TextureFileInfo& info)
{
    VYX_CHECK_RETURN(valid(), nullptr, "ASTC file '%s' is not valid", printableName(_name).constData());
    // An LDR-only decoder shows HDR blocks as its error colour, so those files go through the CPU.
    const bool gpu = hasGLCapability(GLCapability::AstcLdrCompression) &&
                     (hasGLCapability(GLCapability::AstcHdrCompression) || !_file->hasHDRBlocks());
    Texture* texture = gpu ? uploadBlocks(info) : uploadDecoded(info);
    if (texture)
        RemapColorRange(texture, info.lowValue, info.highValue);
    return texture;
}

Texture* ASTCReader::uploadBlocks(const TextureFileInfo& info)
{
    Texture* texture = newTexture(printableName(_name), [&] {
        glCompressedTexImage2D(GL_TEXTURE_2D, 0, _file->glInternalFormat(info.srgb), GLsizei(width()),
                               GLsizei(height()), 0, GLsizei(_file->blocksSize()), _file->blocks());
    }).release();
    // Blocks cannot be reordered, so the rows are turned over on the GPU as for other files.
    if (texture) {
        FlipY(texture);
        buildMipmaps(texture);
    }
    return texture;
}

Texture* ASTCReader::uploadDecoded(const TextureFileInfo& info)
{
    const QByteArray name = printableName(_name);
    const uint64_t rowBytes = uint64_t(width()) * 4;
    std::unique_ptr<unsigned char[]> rgba(new (std::nothrow) unsigned char[rowBytes * height()]);
    if (!rgba) {
        VYX_WARNING("Not enough memory to decode %s (%u x %u)", name.constData(), width(), height());
        return nullptr;
    }
    if (!_file->decodeRGBA8(rgba.get(), info.srgb))
        return nullptr;
    // The file's first row is the picture's top; GL's first row is its bottom.
    for (uint64_t top = 0, bottom = height() - 1; top < bottom; ++top, --bottom)
        std::swap_ranges(rgba.get() + top * rowBytes, rgba.get() + (top + 1) * rowBytes, rgba.get() + bottom * rowBytes);

    Texture* texture = newTexture(name, [&] {
        PixelStoreGuard alignment(GL_UNPACK_ALIGNMENT, 4);
        const GLint internalFormat = info.srgb ? GL_SRGB8_ALPHA8 : GL_RGBA8;
        glTexImage2D(GL_TEXTURE_2D, 0, internalFormat, GLsizei(width()), GLsizei(height()), 0, GL_RGBA,
                     GL_UNSIGNED_BYTE, rgba.get());
    }).release();
    if (texture)
        buildMipmaps(texture);
    return texture;
}

TextureLoader* ASTCRecogniser::recognise(Memory* memory, const QString& name) const
{
    unsigned char* head = memory ? memory->get(0, 4) : nullptr;
    if (!head)
        return nullptr;
    const bool match = ASTCFile::hasMagic(head, 4);
    memory->release(head);
    return match ? new ASTCReader(memory, name) : nullptr;
}

} // namespace Tavren::Vyx
