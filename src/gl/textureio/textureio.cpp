#include "gl/textureio/textureio.h"

#include "core/logging.h"
#include "core/memory.h"
#include "gl/glloader.h"
#include "gl/objects/internal/texturesetup.h"
#include "gl/objects/texture.h"
#include "gl/textureio/textureutilities.h"

#include <QElapsedTimer>
#include <QFileInfo>
#include <QHash>

#include <memory>

namespace Tavren::Vyx {

namespace {

// Filled during initialisation, read while loading; both on the GL thread.
struct Registry
{
    QList<TextureRecogniser*> recognisers;
    QHash<QString, TextureRecogniser*> byExtension;
};

Registry& registry()
{
    static Registry instance;
    return instance;
}

TextureLoader* askRecognisers(Memory* memory, const QString& name)
{
    for (TextureRecogniser* recogniser : registry().recognisers) {
        if (TextureLoader* loader = recogniser->recognise(memory, name))
            return loader;
    }
    return nullptr;
}

} // namespace

TextureLoader::~TextureLoader() = default;

TextureRecogniser::~TextureRecogniser() = default;

QString TextureLoader::metadataText(const char* raw)
{
    return raw ? QString::fromUtf8(raw) : QString();
}

QString TextureLoader2DHelper::key(unsigned int index)
{
    return metadataText(rawKey(index));
}

QString TextureLoader2DHelper::value(unsigned int index)
{
    return metadataText(rawValue(index));
}

void RegisterTextureRecogniser(TextureRecogniser* recogniser, const QString& extension)
{
    VYX_CHECK_RETURN(recogniser != nullptr, , "Cannot register a NULL texture recogniser");
    Registry& r = registry();
    if (!r.recognisers.contains(recogniser))
        r.recognisers.append(recogniser);
    if (!extension.isEmpty())
        r.byExtension.insert(extension.toLower(), recogniser);
}

QList<TextureRecogniser*> RegisteredTextureRecognisers()
{
    return registry().recognisers;
}

TextureRecogniser* TextureRecogniserForExtension(const QString& extension)
{
    return registry().byExtension.value(extension.toLower(), nullptr);
}

TextureLoader* IdentifyTextureFromFile(const QString& path)
{
    auto memory = std::make_unique<MemoryMappedFile>(path);
    TextureLoader* loader = nullptr;
    // The extension's recogniser is asked again in its turn; cheap, as it only peeks at the header.
    if (TextureRecogniser* preferred = TextureRecogniserForExtension(QFileInfo(path).suffix()))
        loader = preferred->recognise(memory.get(), path);
    if (!loader)
        loader = askRecognisers(memory.get(), path);
    // A loader owns the memory it was given.
    if (loader)
        memory.release();
    return loader;
}

TextureLoader* IdentifyTextureFromMemory(unsigned char* data, uint64_t size, const QString& name)
{
    auto memory = std::make_unique<RawMemory>(data, size);
    TextureLoader* loader = askRecognisers(memory.get(), name);
    if (loader)
        memory.release();
    return loader;
}

Texture* LoadTextureFromFile(const QString& path, const TextureFileInfo& info)
{
    const QFileInfo fileInfo(path);
    if (!fileInfo.exists() || !fileInfo.isFile()) {
        VYX_WARNING("File %s not found", qPrintable(path));
        return nullptr;
    }
    QElapsedTimer timer;
    timer.start();
    const std::unique_ptr<TextureLoader> loader(IdentifyTextureFromFile(path));
    Texture* texture = nullptr;
    if (loader) {
        if (!loader->valid())
            VYX_DEBUG("Data appears invalid for texture file '%s'", qPrintable(path));
        else
            texture = loader->load(info);
    } else {
        texture = LoadTextureFromQImageFile(path, info);
    }
    if (texture)
        VYX_DEBUG("Texture %s loaded in %lld ms", qPrintable(path), (long long)timer.elapsed());
    return texture;
}

Texture* LoadTextureFromMemory(unsigned char* data, uint64_t size, const TextureFileInfo& info, const QString& name)
{
    const QByteArray printable = printableName(name);
    QElapsedTimer timer;
    timer.start();
    const std::unique_ptr<TextureLoader> loader(IdentifyTextureFromMemory(data, size, name));
    if (!loader) {
        VYX_DEBUG("Unable to recognise the file format for texture data '%s'", printable.constData());
        return nullptr;
    }
    Texture* texture = nullptr;
    if (!loader->valid())
        VYX_DEBUG("Data appears invalid for texture data '%s'", printable.constData());
    else
        texture = loader->load(info);
    if (texture)
        VYX_DEBUG("Texture %s loaded in %lld ms", printable.constData(), (long long)timer.elapsed());
    return texture;
}

Texture* LoadTextureFromQImageFile(const QString& path, const TextureFileInfo& info)
{
    QImage image;
    if (!image.load(path)) {
        VYX_WARNING("Failed to load %s", qPrintable(path));
        return nullptr;
    }
    // GL's first row is the picture's bottom row.
    image = image.mirrored(false, true);
    if (image.depth() != 32)
        image = image.convertToFormat(QImage::Format_ARGB32);
    return QImageToTexture(image, false, info);
}

Texture* QImageToTexture(const QImage& source, bool asRG16F, const TextureFileInfo& info)
{
    VYX_CHECK_RETURN(!source.isNull(), nullptr, "Cannot make a texture of a null image");
    // Both uploads read four bytes a texel without row padding, which only 32-bit images have.
    QImage image = source;
    if (image.depth() != 32) {
        VYX_CHECK_RETURN(!asRG16F, nullptr, "A GL_RG16F upload needs a 32-bit image, not %d bits", image.depth());
        image = image.convertToFormat(QImage::Format_ARGB32);
    }

    // At most five levels are ever sampled.
    const SamplerSettings sampler = {GL_LINEAR_MIPMAP_LINEAR, GL_LINEAR, GL_CLAMP_TO_EDGE, GL_CLAMP_TO_EDGE, 0, 4};
    std::unique_ptr<Texture> texture = newTextureWithStorage(GL_TEXTURE_2D, sampler, [&] {
        PixelStoreGuard alignment(GL_UNPACK_ALIGNMENT, 1);
        if (asRG16F) {
            VYX_DEBUG("Loading image as GL_RG16F...");
            glTexImage2D(GL_TEXTURE_2D, 0, GL_RG16F, image.width(), image.height(), 0, GL_RG, GL_HALF_FLOAT,
                         image.constBits());
        } else {
            const GLint internalFormat = info.srgb ? GL_SRGB8_ALPHA8 : GL_RGBA;
            glTexImage2D(GL_TEXTURE_2D, 0, internalFormat, image.width(), image.height(), 0, GL_BGRA,
                         GL_UNSIGNED_BYTE, image.constBits());
        }
        glGenerateMipmap(GL_TEXTURE_2D);
        return true;
    });
    Texture* loaded = texture.release();
    RemapColorRange(loaded, info.lowValue, info.highValue);
    return loaded;
}

Texture* MakeColorTexture(const QColor& color)
{
    QImage image(1, 1, QImage::Format_ARGB32);
    image.fill(color);
    return QImageToTexture(image, false, TextureFileInfo());
}

} // namespace Tavren::Vyx
