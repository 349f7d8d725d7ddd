#pragma once

#include "core/vyxexport.h"

#include <QString>

#include <cstdint>

namespace Tavren::Vyx {

class Memory;

// Reads an .astc file: a 16-byte header (magic 0x5CA1AB13, block footprint, 24-bit sizes)
// followed by 16-byte blocks. Only 2D footprints are accepted. Needs no GL context.
class VYXGL_EXPORT ASTCFile
{
public:
    static constexpr uint32_t magic = 0x5CA1AB13;
    static constexpr uint64_t headerSize = 16;
    static constexpr uint64_t blockBytes = 16;
    // Largest picture accepted: as many bytes decoded as a 16384 x 16384 RGBA float image.
    static constexpr uint64_t maxPixels = uint64_t(16384) * 16384 * 4;

    static bool hasMagic(const unsigned char* data, uint64_t size);
    // GL_COMPRESSED_RGBA_ASTC_<x>x<y>_KHR (or its sRGB twin); 0 for a footprint ASTC does not have.
    static unsigned int glInternalFormatFor(unsigned int blockWidth, unsigned int blockHeight, bool srgb = false);

    // Borrows the bytes; they must outlive the object.
    ASTCFile(const unsigned char* data, uint64_t size, const QString& name = QString());
    // Takes the whole memory as one block and gives it back on destruction; does not own it.
    ASTCFile(Memory* memory, const QString& name = QString());
    ~ASTCFile();
    ASTCFile(const ASTCFile&) = delete;
    ASTCFile& operator=(const ASTCFile&) = delete;

    bool valid() const { return _valid; }
    unsigned int blockWidth() const { return _blockWidth; }
    unsigned int blockHeight() const { return _blockHeight; }
    unsigned int blockDepth() const { return _blockDepth; }
    unsigned int width() const { return _width; }
    unsigned int height() const { return _height; }
    unsigned int depth() const { return _depth; }
    unsigned int glInternalFormat(bool srgb = false) const;
    uint64_t blockCount() const { return _blockCount; }
    // The blocks, blockCount() x 16 bytes, as glCompressedTexImage2D takes them.
    const unsigned char* blocks() const { return _valid ? _data + headerSize : nullptr; }
    uint64_t blocksSize() const { return _blockCount * blockBytes; }

    // True when any block uses HDR endpoints.
    bool hasHDRBlocks() const;
    // Decodes to width x height RGBA8 texels, first stored row first. LDR files use the LDR
    // profile (sRGB when asked); files with HDR blocks use the HDR profile, clamped to [0, 1].
    bool decodeRGBA8(unsigned char* rgba, bool srgb = false) const;

private:
    void parse();

    Memory* _memory = nullptr;
    unsigned char* _block = nullptr;
    const unsigned char* _data = nullptr;
    uint64_t _size = 0;
    QString _name;
    bool _valid = false;
    unsigned int _blockWidth = 0, _blockHeight = 0, _blockDepth = 0;
    unsigned int _width = 0, _height = 0, _depth = 0;
    uint64_t _blockCount = 0;
};

} // namespace Tavren::Vyx
