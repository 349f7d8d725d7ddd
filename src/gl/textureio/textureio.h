#pragma once

#include "core/vyxexport.h"

#include <QColor>
#include <QImage>
#include <QList>
#include <QString>

#include <cstdint>

namespace Tavren::Vyx {

class Memory;
class Texture;

// Load options handed unchanged to every loader. Unless (low, high) is (0, 1), every loader ends by
// mapping each colour channel c to max(c * (high - low) + low, 0); alpha is left alone.
struct TextureFileInfo
{
    float lowValue = 0.0f;
    float highValue = 1.0f;
    // 8-bit colour is stored as sRGB.
    bool srgb = false;
    // KTX 2D pictures keep the file's first (top) row as GL's first row, as glTF's texture
    // coordinates want, instead of being turned bottom row first.
    bool topRowFirst = false;
};

// The reader of one file. It owns the Memory it was built on.
class VYXGL_EXPORT TextureLoader
{
public:
    virtual ~TextureLoader();
    // The header was parsed and is usable.
    virtual bool valid() const = 0;
    virtual bool isCompressed() const = 0;
    virtual bool isArrayTexture() const = 0;
    virtual bool isCubeMapTexture() const = 0;
    virtual bool is1DTexture() const = 0;
    virtual bool is2DTexture() const = 0;
    virtual bool is3DTexture() const = 0;
    virtual bool hasMipMaps() const = 0;
    virtual unsigned int width() const = 0;
    virtual unsigned int height() const = 0;
    virtual unsigned int depth() const = 0;
    virtual unsigned int arraySize() const = 0;
    virtual unsigned int cubeFaces() const = 0;
    virtual unsigned int mipmapLevels() const = 0;
    virtual unsigned int numMetadataEntries() const = 0;
    virtual QString key(unsigned int index) = 0;
    virtual QString value(unsigned int index) = 0;
    virtual const char* rawKey(unsigned int index) const = 0;
    virtual const char* rawValue(unsigned int index) const = 0;
    // A new texture owned by the caller, or null after the loader's own messages.
    virtual Texture* load(const TextureFileInfo& info) = 0;

protected:
    // key()/value() from rawKey()/rawValue(): UTF-8 text, empty for a missing entry.
    static QString metadataText(const char* raw);
};

// The defaults of a plain single-level 2D picture without metadata.
class VYXGL_EXPORT TextureLoader2DHelper : public TextureLoader
{
public:
    bool isCompressed() const override { return false; }
    bool isArrayTexture() const override { return false; }
    bool isCubeMapTexture() const override { return false; }
    bool is1DTexture() const override { return false; }
    bool is2DTexture() const override { return true; }
    bool is3DTexture() const override { return false; }
    bool hasMipMaps() const override { return false; }
    unsigned int depth() const override { return 0; }
    unsigned int arraySize() const override { return 0; }
    unsigned int cubeFaces() const override { return 1; }
    unsigned int mipmapLevels() const override { return 1; }
    unsigned int numMetadataEntries() const override { return 0; }
    QString key(unsigned int index) override;
    QString value(unsigned int index) override;
    const char* rawKey(unsigned int /*index*/) const override { return nullptr; }
    const char* rawValue(unsigned int /*index*/) const override { return nullptr; }
};

// Knows one file format by its first bytes.
class VYXGL_EXPORT TextureRecogniser
{
public:
    virtual ~TextureRecogniser();
    // A loader that takes over the memory, or null (the memory stays the caller's).
    virtual TextureLoader* recognise(Memory* memory, const QString& name) const = 0;
};

// Lists the recogniser once (in registration order, which decides ties) and, for a non-empty
// extension, maps its lower-case form to it, replacing an earlier mapping. Never unregistered.
VYXGL_EXPORT void RegisterTextureRecogniser(TextureRecogniser* recogniser, const QString& extension);
VYXGL_EXPORT QList<TextureRecogniser*> RegisteredTextureRecognisers();
// Null when no recogniser is mapped to the (case-insensitive) extension.
VYXGL_EXPORT TextureRecogniser* TextureRecogniserForExtension(const QString& extension);

// The recogniser of the file's extension first, then every recogniser in order. The file stays
// mapped until the loader is deleted.
VYXGL_EXPORT TextureLoader* IdentifyTextureFromFile(const QString& path);
// The bytes are borrowed and must outlive the loader.
VYXGL_EXPORT TextureLoader* IdentifyTextureFromMemory(unsigned char* data, uint64_t size, const QString& name);

// Identify, check and load; files no recogniser claims go through Qt's image reader.
VYXGL_EXPORT Texture* LoadTextureFromFile(const QString& path, const TextureFileInfo& info);
VYXGL_EXPORT Texture* LoadTextureFromMemory(unsigned char* data, uint64_t size, const TextureFileInfo& info,
                                            const QString& name = QString());
// Any picture Qt reads, its bottom row as GL's first row.
VYXGL_EXPORT Texture* LoadTextureFromQImageFile(const QString& path, const TextureFileInfo& info);
// Uploads an image's colours as its format defines them: Format_RGBA8888 as RGBA bytes (which
// drivers that keep RGBA order take without reordering), other 32-bit formats as BGRA bytes, the
// rest converted to ARGB32 first; or with asRG16F a 32-bit image's bytes as pairs of half floats.
// At most five levels are sampled.
VYXGL_EXPORT Texture* QImageToTexture(const QImage& image, bool asRG16F, const TextureFileInfo& info);
// The same with the levels below the image given (as MipmapLevels makes them) instead of
// generated by GL, unless they do not fit the image.
VYXGL_EXPORT Texture* QImageToTexture(const QImage& image, const QList<QImage>& levels, const TextureFileInfo& info);
// The levels glGenerateMipmap adds below an ARGB32, RGB32 or RGBA8888 image, level 1 first, made
// on the CPU so that any thread can make them: each texel the average of the four above it, in
// linear light for sRGB colour (alpha stays linear). Empty for other formats and when a level has
// an odd size, whose filter weights a plain average would not match.
VYXGL_EXPORT QList<QImage> MipmapLevels(const QImage& image, bool srgb);
// A 1x1 texture of one colour.
VYXGL_EXPORT Texture* MakeColorTexture(const QColor& color);

} // namespace Tavren::Vyx
