#pragma once

#include "core/vyxexport.h"

#include <QByteArray>
#include <QString>

#include <cstdint>
#include <vector>

namespace Tavren::Vyx {

class Memory;

// The 80-byte header and index of a KTX 2 file (always little-endian).
struct KTX2Header
{
    uint32_t vkFormat = 0;
    uint32_t typeSize = 0;
    uint32_t pixelWidth = 0;
    uint32_t pixelHeight = 0;
    uint32_t pixelDepth = 0;
    uint32_t layerCount = 0;
    uint32_t faceCount = 0;
    uint32_t levelCount = 0;
    uint32_t supercompressionScheme = 0;
    uint32_t dfdByteOffset = 0;
    uint32_t dfdByteLength = 0;
    uint32_t kvdByteOffset = 0;
    uint32_t kvdByteLength = 0;
    uint64_t sgdByteOffset = 0;
    uint64_t sgdByteLength = 0;
};

// One entry of the level index, level 0 first.
struct KTX2Level
{
    uint64_t byteOffset = 0;
    uint64_t byteLength = 0;
    uint64_t uncompressedByteLength = 0;
};

// The first (basic) block of the data format descriptor; present is false when there is none.
struct KTX2DataFormat
{
    enum : uint32_t { ModelRGBSDA = 1, ModelETC1S = 163, ModelUASTC = 166 };
    enum : uint32_t { TransferLinear = 1, TransferSRGB = 2 };
    bool present = false;
    uint32_t colorModel = 0;
    uint32_t colorPrimaries = 0;
    uint32_t transferFunction = 0;
    uint32_t flags = 0;
    uint32_t blockDimensions[4] = {1, 1, 1, 1};
    uint32_t bytesPlane0 = 0;
    uint32_t samples = 0;
};

// A vkFormat and how GL uploads it: compressed formats have format and type 0.
struct KTX2Format
{
    uint32_t vkFormat;
    const char* name; // without the VK_FORMAT_ prefix
    uint32_t internalFormat;
    uint32_t format;
    uint32_t type;
    uint32_t blockWidth;
    uint32_t blockHeight;
    uint32_t blockBytes; // bytes of one texel for uncompressed formats
    bool compressed() const { return format == 0; }
};

// One upload's worth of texel data: a level (of one face, for cube maps), with every layer.
struct KTX2Image
{
    unsigned int level = 0;
    unsigned int face = 0;   // 0..5 for cube maps, else 0
    unsigned int width = 0;
    unsigned int height = 0; // 0 for 1D
    unsigned int depth = 0;  // 0 except for 3D
    unsigned int layers = 0; // 0 for a plain texture
    uint64_t size = 0;
    const unsigned char* data = nullptr; // into the file, or into the parser's decompressed copy
};

// Parses a KTX 2 file: header, level index, data format descriptor and key/value data, each
// checked against the file; parseImages() then checks the format and the levels' sizes and
// undoes Zstandard or ZLIB supercompression. Needs no GL context.
class VYXGL_EXPORT KTX2Parser
{
public:
    enum Supercompression : uint32_t { None = 0, BasisLZ = 1, Zstandard = 2, ZLIB = 3 };

    static const unsigned char identifier[12];
    static bool hasIdentifier(const unsigned char* data, uint64_t size);
    // The GL upload of a vkFormat; null when the library has none.
    static const KTX2Format* format(uint32_t vkFormat);
    // "VK_FORMAT_R8G8B8A8_SRGB", or the number for formats without a GL upload.
    static QByteArray formatName(uint32_t vkFormat);
    static const char* supercompressionName(uint32_t scheme);
    static const char* colorModelName(uint32_t model);
    static const char* transferFunctionName(uint32_t transfer);
    // Levels are refused past this, as KTX 1 ones are: a 16384 x 16384 RGBA float image.
    static constexpr uint64_t maxLevelBytes = uint64_t(16384) * 16384 * 16;
    static constexpr uint32_t maxLayers = 2048;

    // Borrows the memory, which must outlive the parser.
    KTX2Parser(Memory* memory, const QString& name = QString());
    ~KTX2Parser();
    KTX2Parser(const KTX2Parser&) = delete;
    KTX2Parser& operator=(const KTX2Parser&) = delete;

    // Identifier, header, level index, descriptor and key/value data all lie inside the file.
    bool valid() const { return _valid; }
    const KTX2Header& header() const { return _header; }
    const std::vector<KTX2Level>& levels() const { return _levels; }
    const KTX2DataFormat& dataFormat() const { return _dataFormat; }
    const QString& name() const { return _name; }

    // ETC1S or UASTC: data for a Basis Universal transcoder, which the library does not have.
    bool isBasisUniversal() const;
    bool isCompressed() const;
    bool isArrayTexture() const { return _header.layerCount > 0; }
    bool isCubeMapTexture() const { return _header.faceCount == 6; }
    bool is1DTexture() const { return _header.pixelHeight == 0 && _header.pixelDepth == 0; }
    bool is2DTexture() const { return _header.pixelHeight != 0 && _header.pixelDepth == 0; }
    bool is3DTexture() const { return _header.pixelHeight != 0 && _header.pixelDepth != 0; }
    // levelCount 0 asks the reader to make the levels past the first.
    bool hasMipMaps() const { return _header.levelCount != 1; }
    // GL_TEXTURE_1D, _2D, _3D, _1D_ARRAY, _2D_ARRAY or _CUBE_MAP; 0 for anything else.
    unsigned int target() const;

    unsigned int numMetadataEntries() const { return unsigned(_entries.size()); }
    // The entry's NUL-terminated key; null when out of range or the entry holds no NUL.
    const char* rawKey(unsigned int index) const;
    // The bytes after the key's NUL; null as for rawKey.
    const char* rawValue(unsigned int index) const;
    QString key(unsigned int index) const;
    QByteArray valueBytes(unsigned int index) const;

    // False, after one message, for formats without a GL upload, Basis Universal payloads,
    // unknown supercompression and levels whose sizes do not match their texels.
    bool parseImages();
    const std::vector<KTX2Image>& images() const { return _images; }

private:
    bool readIndex();
    bool readDataFormat();
    bool readKeyValues();
    bool checkImagesCanBeRead(const KTX2Format*& glFormat);
    const unsigned char* levelData(unsigned int level, uint64_t expected);
    bool inflate(unsigned int level, const unsigned char* source, std::vector<unsigned char>& out) const;

    struct Entry
    {
        const unsigned char* start;
        uint32_t size;
    };

    Memory* _memory;
    QString _name;
    QByteArray _printable;
    bool _valid = false;
    unsigned char* _data = nullptr;
    uint64_t _size = 0;
    KTX2Header _header;
    std::vector<KTX2Level> _levels;
    KTX2DataFormat _dataFormat;
    std::vector<Entry> _entries;
    std::vector<std::vector<unsigned char>> _inflated;
    std::vector<KTX2Image> _images;
};

} // namespace Tavren::Vyx
