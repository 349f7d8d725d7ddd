#pragma once

#include "core/vyxexport.h"

#include <QByteArray>
#include <QString>

#include <cstdint>
#include <vector>

namespace Tavren::Vyx {

class Memory;

// The 64-byte header of a KTX 1 file, in the reader's byte order.
struct KTXHeader
{
    unsigned char identifier[12];
    uint32_t endianness;
    uint32_t glType;
    uint32_t glTypeSize;
    uint32_t glFormat;
    uint32_t glInternalFormat;
    uint32_t glBaseInternalFormat;
    uint32_t pixelWidth;
    uint32_t pixelHeight;
    uint32_t pixelDepth;
    uint32_t numberOfArrayElements;
    uint32_t numberOfFaces;
    uint32_t numberOfMipmapLevels;
    uint32_t bytesOfKeyValueData;
};
static_assert(sizeof(KTXHeader) == 64, "KTX header must be 64 bytes");

// One upload's worth of image data: a level (of one face, for cube maps) inside the file.
struct KTXImage
{
    unsigned int level = 0;
    unsigned int face = 0; // 0..5 (+X, -X, +Y, -Y, +Z, -Z) for cube maps, else 0
    unsigned int width = 0;
    unsigned int height = 0; // 0 for 1D
    unsigned int depth = 0;  // 0 except for 3D
    unsigned int layers = 0; // array elements the image holds; 0 for a plain texture
    uint64_t offset = 0;     // from the start of the file
    uint32_t size = 0;       // the file's imageSize
    const unsigned char* data = nullptr;
};

// Value of the "KTXorientation" key: S is 'r' or 'l', T 'u' or 'd', R 'i' or 'o' (0 when absent).
struct KTXOrientation
{
    bool present = false;
    bool valid = false;
    char s = 0;
    char t = 0;
    char r = 0;
};

// Parses a KTX 1 file: header (turned to the reader's byte order in place), key/value block and
// the sizes of every level, face and layer, checked against the file. Needs no GL context.
class VYXGL_EXPORT KTXParser
{
public:
    static const unsigned char identifier[12];
    static bool hasIdentifier(const unsigned char* data, uint64_t size);

    // Borrows the memory, which must outlive the parser; pointers taken are given back on destruction.
    KTXParser(Memory* memory, const QString& name = QString());
    ~KTXParser();
    KTXParser(const KTXParser&) = delete;
    KTXParser& operator=(const KTXParser&) = delete;

    // The reader's flag: identifier, byte order and key/value walk (a block whose entries end
    // exactly on its end leaves it false; files without key/value data are unaffected).
    bool valid() const { return _valid; }
    // The header and key/value block could be read; enough for parseImages().
    bool headerReadable() const { return _headerReadable; }
    // The file was written in the opposite byte order; only the header was converted.
    bool byteSwapped() const { return _byteSwapped; }
    const KTXHeader& header() const { return _header; }
    const QString& name() const { return _name; }

    bool isCompressed() const { return _header.glType == 0; }
    bool isArrayTexture() const { return _header.numberOfArrayElements > 0; }
    bool isCubeMapTexture() const { return _header.numberOfFaces == 6; }
    bool is1DTexture() const;
    bool is2DTexture() const;
    bool is3DTexture() const;
    bool hasMipMaps() const { return _header.numberOfMipmapLevels != 1; }
    unsigned int width() const { return _header.pixelWidth; }
    unsigned int height() const { return _header.pixelHeight; }
    unsigned int depth() const { return _header.pixelDepth; }
    unsigned int arraySize() const { return _header.numberOfArrayElements; }
    unsigned int cubeFaces() const { return _header.numberOfFaces; }
    unsigned int mipmapLevels() const { return _header.numberOfMipmapLevels; }
    // GL_TEXTURE_CUBE_MAP, GL_TEXTURE_1D, GL_TEXTURE_2D or GL_TEXTURE_3D; 0 when no dimension fits.
    unsigned int target() const;

    unsigned int numMetadataEntries() const { return unsigned(_entryStarts.size()); }
    // Start of entry i (its NUL-terminated key); null when out of range or the entry holds no NUL.
    const char* rawKey(unsigned int index) const;
    // The NUL that ends entry i's key (so it reads as an empty string); null as for rawKey.
    const char* rawValue(unsigned int index) const;
    uint32_t entrySize(unsigned int index) const;
    QString key(unsigned int index) const;
    // The bytes after the key's NUL up to the entry's end.
    QByteArray valueBytes(unsigned int index) const;
    KTXOrientation orientation() const;

    // Walks every level's imageSize from offset 64 + bytesOfKeyValueData and fills images().
    // False, with a message, when a size, count or image does not fit the file.
    bool parseImages();
    const std::vector<KTXImage>& images() const { return _images; }
    uint64_t imageDataOffset() const { return 64 + uint64_t(_header.bytesOfKeyValueData); }

    // Bytes per texel of an uncompressed format/type pair; 0 when unknown.
    static unsigned int texelBytes(unsigned int glFormat, unsigned int glType);
    // Largest amount of texel data accepted: a 16384 x 16384 RGBA float image.
    static constexpr uint64_t maxImageBytes = uint64_t(16384) * 16384 * 16;

private:
    Memory* _memory;
    QString _name;
    bool _valid = true;
    bool _headerReadable = false;
    bool _byteSwapped = false;
    KTXHeader _header{};
    unsigned char* _headerBytes = nullptr;
    unsigned char* _rest = nullptr; // everything after the header
    uint64_t _restSize = 0;
    unsigned char* _imageData = nullptr;
    std::vector<const unsigned char*> _entryStarts;
    std::vector<uint32_t> _entrySizes;
    std::vector<KTXImage> _images;
};

} // namespace Tavren::Vyx
