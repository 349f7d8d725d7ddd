#pragma once

#include "core/vyxexport.h"
#include "gl/textureio/textureio.h"

#include <memory>

namespace Tavren::Vyx {

class KTX2Parser;

// Reads KTX 2 files: 1D, 2D, 3D, cube-map, 1D-array and 2D-array textures of every plain and
// block-compressed vkFormat GL has, with all their levels, supercompressed with Zstandard or
// ZLIB or not at all. Basis Universal payloads and cube-map arrays are refused at load.
class VYXGL_EXPORT KTX2Reader : public TextureLoader
{
public:
    // Takes ownership of the memory.
    KTX2Reader(Memory* memory, const QString& name);
    ~KTX2Reader() override;
    KTX2Reader(const KTX2Reader&) = delete;
    KTX2Reader& operator=(const KTX2Reader&) = delete;

    bool valid() const override;
    bool isCompressed() const override;
    bool isArrayTexture() const override;
    bool isCubeMapTexture() const override;
    bool is1DTexture() const override;
    bool is2DTexture() const override;
    bool is3DTexture() const override;
    bool hasMipMaps() const override;
    unsigned int width() const override;
    unsigned int height() const override;
    unsigned int depth() const override;
    unsigned int arraySize() const override;
    unsigned int cubeFaces() const override;
    unsigned int mipmapLevels() const override;
    unsigned int numMetadataEntries() const override;
    QString key(unsigned int index) override;
    QString value(unsigned int index) override;
    const char* rawKey(unsigned int index) const override;
    const char* rawValue(unsigned int index) const override;
    Texture* load(const TextureFileInfo& info) override;

private:
    // Declared first so it outlives _parser, which gives its mapping back to it.
    std::unique_ptr<Memory> _memory;
    QString _name;
    std::unique_ptr<KTX2Parser> _parser;
};

class VYXGL_EXPORT KTX2Recogniser : public TextureRecogniser
{
public:
    TextureLoader* recognise(Memory* memory, const QString& name) const override;
};

} // namespace Tavren::Vyx
