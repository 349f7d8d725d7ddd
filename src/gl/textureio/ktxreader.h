#pragma once

#include "core/vyxexport.h"
#include "gl/textureio/textureio.h"

#include <memory>

namespace Tavren::Vyx {

class KTXParser;

// Reads KTX 1 files: 1D, 2D, 3D and cube-map textures, compressed or not, with all their levels,
// uploaded straight from the file's bytes. Array textures are refused at load. 2D pictures are
// turned to the library's order, bottom row first, unless their "KTXorientation" says T=u.
class VYXGL_EXPORT KTXReader : public TextureLoader
{
public:
    // Takes ownership of the memory.
    KTXReader(Memory* memory, const QString& name);
    ~KTXReader() override;
    KTXReader(const KTXReader&) = delete;
    KTXReader& operator=(const KTXReader&) = delete;

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
    // Declared first so it outlives _parser, which gives its blocks back to it.
    std::unique_ptr<Memory> _memory;
    QString _name;
    std::unique_ptr<KTXParser> _parser;
};

class VYXGL_EXPORT KTXRecogniser : public TextureRecogniser
{
public:
    TextureLoader* recognise(Memory* memory, const QString& name) const override;
};

} // namespace Tavren::Vyx
