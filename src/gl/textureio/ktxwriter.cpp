#include "gl/textureio/ktxwriter.h"

#include "core/logging.h"
#include "gl/glloader.h"
#include "gl/objects/internal/texturesetup.h"
#include "gl/objects/texture.h"
#include "gl/platform/bindable.h"
#include "gl/platform/glutilities.h"
#include "gl/textureio/internal/ktxencoder.h"

#include <QSaveFile>

#include <vector>

namespace Tavren::Vyx {

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
    VYX_CHECK_RETURN(!compressed, QByteArray(), "Internal format 0x%X is not written to KTX", internalFormat);

    // Levels with storage, from the base up to the texture's maximum, while they halve as a
    // mipmap chain does: a file has no room for other sizes.
    int levels = 0;
    for (int level = 0; level <= maxLevel && level < 32; ++level) {
        GLint w = 0, h = 0;
        glGetTexLevelParameteriv(levelTarget, level, GL_TEXTURE_WIDTH, &w);
        glGetTexLevelParameteriv(levelTarget, level, GL_TEXTURE_HEIGHT, &h);
        if (w != qMax(width >> level, 1) || h != qMax(height >> level, 1))
            break;
        ++levels;
        if (w == 1 && h == 1)
            break;
    }
    KTXEncoder encoder(uint32_t(internalFormat), uint32_t(width), uint32_t(height), target == GL_TEXTURE_CUBE_MAP,
                       uint32_t(levels));
    if (!encoder.valid())
        return QByteArray();

    PixelStoreGuard alignment(GL_PACK_ALIGNMENT, 4);
    VYX_CHECK_GL_ERROR(); // earlier errors are not this read-back's
    std::vector<char> pixels;
    for (uint32_t level = 0; level < encoder.levels(); ++level) {
        pixels.resize(encoder.imageSize(level));
        for (uint32_t face = 0; face < encoder.faces(); ++face) {
            const GLenum faceTarget = encoder.faces() == 6 ? GL_TEXTURE_CUBE_MAP_POSITIVE_X + face : target;
            glGetTexImage(faceTarget, GLint(level), encoder.format(), encoder.type(), pixels.data());
            encoder.addImage(pixels.data());
        }
    }
    VYX_CHECK_RETURN(glGetError() == GL_NO_ERROR, QByteArray(), "Texture could not be read back for KTX");
    return encoder.bytes();
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
