#include "gl/ktxwriter.h"

#include "core/logging.h"
#include "gl/bindable.h"
#include "gl/glloader.h"
#include "gl/glutilities.h"
#include "gl/internal/texturesetup.h"
#include "gl/ktxparser.h"
#include "gl/texture.h"

#include <QSaveFile>

#include <cstring>
#include <vector>

namespace Tavren::Vyx {

namespace {

void appendWord(QByteArray& out, uint32_t value)
{
    out.append(reinterpret_cast<const char*>(&value), sizeof value);
}

struct PixelLayout
{
    GLenum format = 0;
    GLenum type = 0;
    int typeSize = 0;
    int components = 0;
};

// The formats written, read back exactly as they are stored.
PixelLayout pixelLayout(GLenum internalFormat)
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

QByteArray TextureToKTX(Texture* texture)
{
    VYX_CHECK_RETURN(nullptr != texture, QByteArray(), "Texture is NULL");
    const GLenum target = texture->target();
    VYX_CHECK_RETURN(target == GL_TEXTURE_2D || target == GL_TEXTURE_CUBE_MAP, QByteArray(),
                     "Only 2D and cube-map textures are written to KTX (target 0x%X)", target);
    AutoBinder binder(texture);
    VYX_CHECK_RETURN(binder.isBound(), QByteArray(), "Texture could not be bound");
    const GLenum levelTarget = target == GL_TEXTURE_CUBE_MAP ? GL_TEXTURE_CUBE_MAP_POSITIVE_X : target;
    GLint internalFormat = 0, compressed = 0, width = 0, height = 0, baseLevel = 0, maxLevel = 0;
    glGetTexLevelParameteriv(levelTarget, 0, GL_TEXTURE_INTERNAL_FORMAT, &internalFormat);
    glGetTexLevelParameteriv(levelTarget, 0, GL_TEXTURE_COMPRESSED, &compressed);
    glGetTexLevelParameteriv(levelTarget, 0, GL_TEXTURE_WIDTH, &width);
    glGetTexLevelParameteriv(levelTarget, 0, GL_TEXTURE_HEIGHT, &height);
    glGetTexParameteriv(target, GL_TEXTURE_BASE_LEVEL, &baseLevel);
    glGetTexParameteriv(target, GL_TEXTURE_MAX_LEVEL, &maxLevel);
    VYX_CHECK_RETURN(width > 0 && height > 0, QByteArray(), "Texture has no level 0 image (%d x %d)", width, height);
    VYX_CHECK_RETURN(baseLevel == 0, QByteArray(), "Textures with base level %d are not written", baseLevel);
    const PixelLayout layout = pixelLayout(GLenum(internalFormat));
    VYX_CHECK_RETURN(!compressed && layout.format != 0, QByteArray(), "Internal format 0x%X is not written to KTX",
                     internalFormat);
    const GLenum format = layout.format, type = layout.type;
    const int bytesPerPixel = layout.typeSize * layout.components;

    // Levels with storage, from the base up to the texture's maximum.
    std::vector<QPair<int, int>> levelSizes;
    for (int level = 0; level <= maxLevel; ++level) {
        GLint w = 0, h = 0;
        glGetTexLevelParameteriv(levelTarget, level, GL_TEXTURE_WIDTH, &w);
        glGetTexLevelParameteriv(levelTarget, level, GL_TEXTURE_HEIGHT, &h);
        if (w <= 0 || h <= 0)
            break;
        levelSizes.push_back({w, h});
    }
    const int faces = target == GL_TEXTURE_CUBE_MAP ? 6 : 1;

    QByteArray out(reinterpret_cast<const char*>(KTXParser::identifier), sizeof KTXParser::identifier);
    const uint32_t header[] = {0x04030201u, type, uint32_t(layout.typeSize), format, uint32_t(internalFormat), format,
                               uint32_t(width), uint32_t(height), 0u, 0u, uint32_t(faces),
                               uint32_t(levelSizes.size()), 0u};
    for (uint32_t word : header)
        appendWord(out, word);

    PixelStoreGuard alignment(GL_PACK_ALIGNMENT, 4);
    VYX_CHECK_GL_ERROR(); // earlier errors are not this read-back's
    std::vector<char> pixels;
    for (size_t level = 0; level < levelSizes.size(); ++level) {
        const int w = levelSizes[level].first, h = levelSizes[level].second;
        // Rows are padded to four bytes, in GL's read-back and in the file alike.
        const size_t rowBytes = (size_t(w) * size_t(bytesPerPixel) + 3) & ~size_t(3);
        const size_t imageSize = rowBytes * size_t(h);
        appendWord(out, uint32_t(imageSize));
        pixels.resize(imageSize);
        for (int face = 0; face < faces; ++face) {
            const GLenum faceTarget = faces == 6 ? GL_TEXTURE_CUBE_MAP_POSITIVE_X + GLenum(face) : target;
            glGetTexImage(faceTarget, GLint(level), format, type, pixels.data());
            if (faces == 1) {
                for (int row = h - 1; row >= 0; --row)
                    out.append(pixels.data() + size_t(row) * rowBytes, int(rowBytes));
            } else {
                out.append(pixels.data(), int(imageSize));
            }
        }
    }
    VYX_CHECK_RETURN(glGetError() == GL_NO_ERROR, QByteArray(), "Texture could not be read back for KTX");
    return out;
}

bool SaveTextureAsKTX(Texture* texture, const QString& fileName)
{
    const QByteArray bytes = TextureToKTX(texture);
    if (bytes.isEmpty())
        return false;
    QSaveFile file(fileName);
    const bool written = file.open(QIODevice::WriteOnly) && file.write(bytes) == bytes.size() && file.commit();
    return VYX_CHECK(written, "Cannot write KTX file '%s': %s", qPrintable(fileName), qPrintable(file.errorString()));
}

} // namespace Tavren::Vyx
