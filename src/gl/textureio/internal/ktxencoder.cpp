#include "gl/textureio/internal/ktxencoder.h"

#include "core/logging.h"
#include "gl/glloader.h"
#include "gl/textureio/ktxparser.h"

#include <algorithm>

namespace Tavren::Vyx {

namespace {

// Well below QByteArray's limit, which the file is built in.
constexpr uint64_t kMaxFileBytes = 0x7FFF0000u;

void appendWord(QByteArray& out, uint32_t value)
{
    out.append(reinterpret_cast<const char*>(&value), sizeof value);
}

size_t rowBytes(uint32_t width, uint32_t bytesPerPixel)
{
    return (size_t(width) * bytesPerPixel + 3) & ~size_t(3);
}

struct PixelLayout
{
    uint32_t format = 0;
    uint32_t type = 0;
    uint32_t typeSize = 0;
    uint32_t components = 0;
};

// The formats written, read back exactly as they are stored.
PixelLayout pixelLayout(uint32_t internalFormat)
{
    switch (internalFormat) {
    case GL_RGBA8:
    case GL_SRGB8_ALPHA8: return {GL_RGBA, GL_UNSIGNED_BYTE, 1, 4};
    case GL_RGB8:
    case GL_SRGB8: return {GL_RGB, GL_UNSIGNED_BYTE, 1, 3};
    case GL_RG8: return {GL_RG, GL_UNSIGNED_BYTE, 1, 2};
    case GL_R8: return {GL_RED, GL_UNSIGNED_BYTE, 1, 1};
    case GL_RGBA16F: return {GL_RGBA, GL_HALF_FLOAT, 2, 4};
    case GL_RGB16F: return {GL_RGB, GL_HALF_FLOAT, 2, 3};
    case GL_RG16F: return {GL_RG, GL_HALF_FLOAT, 2, 2};
    case GL_R16F: return {GL_RED, GL_HALF_FLOAT, 2, 1};
    case GL_RGBA32F: return {GL_RGBA, GL_FLOAT, 4, 4};
    case GL_RGB32F: return {GL_RGB, GL_FLOAT, 4, 3};
    case GL_RG32F: return {GL_RG, GL_FLOAT, 4, 2};
    case GL_R32F: return {GL_RED, GL_FLOAT, 4, 1};
    default: return {};
    }
}

} // namespace

KTXEncoder::KTXEncoder(uint32_t internalFormat, uint32_t width, uint32_t height, bool cubeMap, uint32_t levels)
    : _width(width)
    , _height(height)
    , _faces(cubeMap ? 6 : 1)
    , _levels(levels)
{
    const PixelLayout layout = pixelLayout(internalFormat);
    VYX_CHECK_RETURN(layout.format != 0, , "Internal format 0x%X is not written to KTX", internalFormat);
    VYX_CHECK_RETURN(width > 0 && height > 0, , "Texture has no level 0 image (%u x %u)", width, height);
    VYX_CHECK_RETURN(!cubeMap || width == height, , "Cube-map faces of %u x %u are not square", width, height);
    unsigned int possibleLevels = 1;
    while ((std::max(width, height) >> possibleLevels) != 0)
        ++possibleLevels;
    VYX_CHECK_RETURN(levels > 0 && levels <= possibleLevels, , "%u mipmap levels do not fit a %u x %u texture",
                     levels, width, height);
    _format = layout.format;
    _type = layout.type;
    _bytesPerPixel = layout.typeSize * layout.components;

    // The reserved "KTXorientation" key says where the first stored row lies, for loaders that
    // turn pictures to their own convention: 2D images are stored as GL holds them, first row at
    // t = 0, the picture's bottom ("T=u"); cube faces as GL holds them too, which for a face
    // seen from inside puts the first row at the top ("T=d"), as cube-map files conventionally do.
    const QByteArray keyAndValue = QByteArray("KTXorientation") + '\0' + (cubeMap ? "S=r,T=d" : "S=r,T=u") + '\0';
    const uint32_t keyValueBytes = 4 + ((uint32_t(keyAndValue.size()) + 3) & ~3u);
    uint64_t total = 64 + keyValueBytes;
    for (uint32_t level = 0; level < levels; ++level) {
        const uint64_t size = uint64_t(rowBytes(levelWidth(level), _bytesPerPixel)) * levelHeight(level);
        total += 4 + size * _faces;
        VYX_CHECK_RETURN(size <= UINT32_MAX && total <= kMaxFileBytes, ,
                         "A %u x %u texture with %u levels is too large for a KTX file", width, height, levels);
    }
    _out.reserve(int(total));
    _out.append(reinterpret_cast<const char*>(KTXParser::identifier), sizeof KTXParser::identifier);
    const uint32_t header[] = {0x04030201u, _type,  layout.typeSize, _format, internalFormat, _format,       width,
                               height,      0u,     0u,              _faces,  levels,         keyValueBytes};
    for (uint32_t word : header)
        appendWord(_out, word);
    appendWord(_out, uint32_t(keyAndValue.size()));
    _out.append(keyAndValue);
    _out.append(QByteArray(int(keyValueBytes - 4 - uint32_t(keyAndValue.size())), '\0'));
    _valid = true;
}

uint32_t KTXEncoder::levelWidth(uint32_t level) const
{
    return level < 32 ? std::max(_width >> level, 1u) : 1u;
}

uint32_t KTXEncoder::levelHeight(uint32_t level) const
{
    return level < 32 ? std::max(_height >> level, 1u) : 1u;
}

size_t KTXEncoder::imageSize(uint32_t level) const
{
    return rowBytes(levelWidth(level), _bytesPerPixel) * levelHeight(level);
}

void KTXEncoder::addImage(const char* pixels)
{
    if (!_valid || _added >= _levels * _faces)
        return;
    const uint32_t level = _added / _faces;
    const size_t size = imageSize(level);
    if (_added % _faces == 0)
        appendWord(_out, uint32_t(size));
    ++_added;
    _out.append(pixels, int(size));
}

QByteArray KTXEncoder::bytes() const
{
    return _valid && _added == _levels * _faces ? _out : QByteArray();
}

} // namespace Tavren::Vyx
