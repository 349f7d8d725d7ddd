#pragma once

#include "core/vyxexport.h"
#include "gl/textureio/textureio.h"

#include <memory>

namespace Tavren::Vyx {

class ASTCFile;

// Reads 2D .astc files. Uploads the blocks as they are where the context has ASTC support (and,
// for HDR blocks, HDR support); otherwise decodes on the CPU and uploads 8-bit RGBA.
class VYXGL_EXPORT ASTCReader : public TextureLoader2DHelper
{
public:
    // Takes ownership of the memory.
    ASTCReader(Memory* memory, const QString& name);
    ~ASTCReader() override;
    ASTCReader(const ASTCReader&) = delete;
    ASTCReader& operator=(const ASTCReader&) = delete;

    bool valid() const override;
    bool isCompressed() const override { return true; }
    unsigned int width() const override;
    unsigned int height() const override;
    Texture* load(const TextureFileInfo& info) override;

    const ASTCFile& file() const { return *_file; }

private:
    Texture* uploadBlocks(const TextureFileInfo& info);
    Texture* uploadDecoded(const TextureFileInfo& info);

    // Declared first so it outlives _file, which gives its blocks back to it.
    std::unique_ptr<Memory> _memory;
    QString _name;
    std::unique_ptr<ASTCFile> _file;
};

class VYXGL_EXPORT ASTCRecogniser : public TextureRecogniser
{
public:
    TextureLoader* recognise(Memory* memory, const QString& name) const override;
};

} // namespace Tavren::Vyx
