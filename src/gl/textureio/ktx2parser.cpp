#include "gl/textureio/ktx2parser.h"

#include "core/logging.h"
#include "core/memory.h"
#include "gl/platform/generated/glenums.h"

#include <zstd.h>

#include <algorithm>
#include <climits>
#include <cstddef>
#include <cstring>
#include <memory>

namespace Tavren::Vyx {

namespace {

constexpr uint64_t kHeaderBytes = 80;
constexpr uint64_t kLevelEntryBytes = 24;
constexpr uint32_t kMaxLevels = 32;

uint32_t word(const unsigned char* p)
{
    uint32_t v;
    std::memcpy(&v, p, 4);
    return v;
}

uint64_t word64(const unsigned char* p)
{
    uint64_t v;
    std::memcpy(&v, p, 8);
    return v;
}

bool inside(uint64_t offset, uint64_t length, uint64_t total)
{
    return offset <= total && length <= total - offset;
}

// Plain formats: GL's sized internal format, its upload format and type, bytes per texel.
#define PLAIN(vk, name, internal, format, type, bytes) {vk, name, internal, format, type, 1, 1, bytes}
#define BLOCK(vk, name, internal, w, h, bytes) {vk, name, internal, 0, 0, w, h, bytes}
const KTX2Format kFormats[] = {
    PLAIN(2, "R4G4B4A4_UNORM_PACK16", GL_RGBA4, GL_RGBA, GL_UNSIGNED_SHORT_4_4_4_4, 2),
    PLAIN(4, "R5G6B5_UNORM_PACK16", GL_RGB565, GL_RGB, GL_UNSIGNED_SHORT_5_6_5, 2),
    PLAIN(6, "R5G5B5A1_UNORM_PACK16", GL_RGB5_A1, GL_RGBA, GL_UNSIGNED_SHORT_5_5_5_1, 2),
    PLAIN(9, "R8_UNORM", GL_R8, GL_RED, GL_UNSIGNED_BYTE, 1),
    PLAIN(10, "R8_SNORM", GL_R8_SNORM, GL_RED, GL_BYTE, 1),
    PLAIN(13, "R8_UINT", GL_R8UI, GL_RED_INTEGER, GL_UNSIGNED_BYTE, 1),
    PLAIN(14, "R8_SINT", GL_R8I, GL_RED_INTEGER, GL_BYTE, 1),
    PLAIN(16, "R8G8_UNORM", GL_RG8, GL_RG, GL_UNSIGNED_BYTE, 2),
    PLAIN(17, "R8G8_SNORM", GL_RG8_SNORM, GL_RG, GL_BYTE, 2),
    PLAIN(20, "R8G8_UINT", GL_RG8UI, GL_RG_INTEGER, GL_UNSIGNED_BYTE, 2),
    PLAIN(21, "R8G8_SINT", GL_RG8I, GL_RG_INTEGER, GL_BYTE, 2),
    PLAIN(23, "R8G8B8_UNORM", GL_RGB8, GL_RGB, GL_UNSIGNED_BYTE, 3),
    PLAIN(24, "R8G8B8_SNORM", GL_RGB8_SNORM, GL_RGB, GL_BYTE, 3),
    PLAIN(27, "R8G8B8_UINT", GL_RGB8UI, GL_RGB_INTEGER, GL_UNSIGNED_BYTE, 3),
    PLAIN(28, "R8G8B8_SINT", GL_RGB8I, GL_RGB_INTEGER, GL_BYTE, 3),
    PLAIN(29, "R8G8B8_SRGB", GL_SRGB8, GL_RGB, GL_UNSIGNED_BYTE, 3),
    PLAIN(30, "B8G8R8_UNORM", GL_RGB8, GL_BGR, GL_UNSIGNED_BYTE, 3),
    PLAIN(36, "B8G8R8_SRGB", GL_SRGB8, GL_BGR, GL_UNSIGNED_BYTE, 3),
    PLAIN(37, "R8G8B8A8_UNORM", GL_RGBA8, GL_RGBA, GL_UNSIGNED_BYTE, 4),
    PLAIN(38, "R8G8B8A8_SNORM", GL_RGBA8_SNORM, GL_RGBA, GL_BYTE, 4),
    PLAIN(41, "R8G8B8A8_UINT", GL_RGBA8UI, GL_RGBA_INTEGER, GL_UNSIGNED_BYTE, 4),
    PLAIN(42, "R8G8B8A8_SINT", GL_RGBA8I, GL_RGBA_INTEGER, GL_BYTE, 4),
    PLAIN(43, "R8G8B8A8_SRGB", GL_SRGB8_ALPHA8, GL_RGBA, GL_UNSIGNED_BYTE, 4),
    PLAIN(44, "B8G8R8A8_UNORM", GL_RGBA8, GL_BGRA, GL_UNSIGNED_BYTE, 4),
    PLAIN(50, "B8G8R8A8_SRGB", GL_SRGB8_ALPHA8, GL_BGRA, GL_UNSIGNED_BYTE, 4),
    PLAIN(64, "A2B10G10R10_UNORM_PACK32", GL_RGB10_A2, GL_RGBA, GL_UNSIGNED_INT_2_10_10_10_REV, 4),
    PLAIN(68, "A2B10G10R10_UINT_PACK32", GL_RGB10_A2UI, GL_RGBA_INTEGER, GL_UNSIGNED_INT_2_10_10_10_REV, 4),
    PLAIN(70, "R16_UNORM", GL_R16, GL_RED, GL_UNSIGNED_SHORT, 2),
    PLAIN(71, "R16_SNORM", GL_R16_SNORM, GL_RED, GL_SHORT, 2),
    PLAIN(74, "R16_UINT", GL_R16UI, GL_RED_INTEGER, GL_UNSIGNED_SHORT, 2),
    PLAIN(75, "R16_SINT", GL_R16I, GL_RED_INTEGER, GL_SHORT, 2),
    PLAIN(76, "R16_SFLOAT", GL_R16F, GL_RED, GL_HALF_FLOAT, 2),
    PLAIN(77, "R16G16_UNORM", GL_RG16, GL_RG, GL_UNSIGNED_SHORT, 4),
    PLAIN(78, "R16G16_SNORM", GL_RG16_SNORM, GL_RG, GL_SHORT, 4),
    PLAIN(81, "R16G16_UINT", GL_RG16UI, GL_RG_INTEGER, GL_UNSIGNED_SHORT, 4),
    PLAIN(82, "R16G16_SINT", GL_RG16I, GL_RG_INTEGER, GL_SHORT, 4),
    PLAIN(83, "R16G16_SFLOAT", GL_RG16F, GL_RG, GL_HALF_FLOAT, 4),
    PLAIN(84, "R16G16B16_UNORM", GL_RGB16, GL_RGB, GL_UNSIGNED_SHORT, 6),
    PLAIN(85, "R16G16B16_SNORM", GL_RGB16_SNORM, GL_RGB, GL_SHORT, 6),
    PLAIN(88, "R16G16B16_UINT", GL_RGB16UI, GL_RGB_INTEGER, GL_UNSIGNED_SHORT, 6),
    PLAIN(89, "R16G16B16_SINT", GL_RGB16I, GL_RGB_INTEGER, GL_SHORT, 6),
    PLAIN(90, "R16G16B16_SFLOAT", GL_RGB16F, GL_RGB, GL_HALF_FLOAT, 6),
    PLAIN(91, "R16G16B16A16_UNORM", GL_RGBA16, GL_RGBA, GL_UNSIGNED_SHORT, 8),
    PLAIN(92, "R16G16B16A16_SNORM", GL_RGBA16_SNORM, GL_RGBA, GL_SHORT, 8),
    PLAIN(95, "R16G16B16A16_UINT", GL_RGBA16UI, GL_RGBA_INTEGER, GL_UNSIGNED_SHORT, 8),
    PLAIN(96, "R16G16B16A16_SINT", GL_RGBA16I, GL_RGBA_INTEGER, GL_SHORT, 8),
    PLAIN(97, "R16G16B16A16_SFLOAT", GL_RGBA16F, GL_RGBA, GL_HALF_FLOAT, 8),
    PLAIN(98, "R32_UINT", GL_R32UI, GL_RED_INTEGER, GL_UNSIGNED_INT, 4),
    PLAIN(99, "R32_SINT", GL_R32I, GL_RED_INTEGER, GL_INT, 4),
    PLAIN(100, "R32_SFLOAT", GL_R32F, GL_RED, GL_FLOAT, 4),
    PLAIN(101, "R32G32_UINT", GL_RG32UI, GL_RG_INTEGER, GL_UNSIGNED_INT, 8),
    PLAIN(102, "R32G32_SINT", GL_RG32I, GL_RG_INTEGER, GL_INT, 8),
    PLAIN(103, "R32G32_SFLOAT", GL_RG32F, GL_RG, GL_FLOAT, 8),
    PLAIN(104, "R32G32B32_UINT", GL_RGB32UI, GL_RGB_INTEGER, GL_UNSIGNED_INT, 12),
    PLAIN(105, "R32G32B32_SINT", GL_RGB32I, GL_RGB_INTEGER, GL_INT, 12),
    PLAIN(106, "R32G32B32_SFLOAT", GL_RGB32F, GL_RGB, GL_FLOAT, 12),
    PLAIN(107, "R32G32B32A32_UINT", GL_RGBA32UI, GL_RGBA_INTEGER, GL_UNSIGNED_INT, 16),
    PLAIN(108, "R32G32B32A32_SINT", GL_RGBA32I, GL_RGBA_INTEGER, GL_INT, 16),
    PLAIN(109, "R32G32B32A32_SFLOAT", GL_RGBA32F, GL_RGBA, GL_FLOAT, 16),
    PLAIN(122, "B10G11R11_UFLOAT_PACK32", GL_R11F_G11F_B10F, GL_RGB, GL_UNSIGNED_INT_10F_11F_11F_REV, 4),
    PLAIN(123, "E5B9G9R9_UFLOAT_PACK32", GL_RGB9_E5, GL_RGB, GL_UNSIGNED_INT_5_9_9_9_REV, 4),
    PLAIN(124, "D16_UNORM", GL_DEPTH_COMPONENT16, GL_DEPTH_COMPONENT, GL_UNSIGNED_SHORT, 2),
    PLAIN(126, "D32_SFLOAT", GL_DEPTH_COMPONENT32F, GL_DEPTH_COMPONENT, GL_FLOAT, 4),
    BLOCK(131, "BC1_RGB_UNORM_BLOCK", GL_COMPRESSED_RGB_S3TC_DXT1_EXT, 4, 4, 8),
    BLOCK(132, "BC1_RGB_SRGB_BLOCK", GL_COMPRESSED_SRGB_S3TC_DXT1_EXT, 4, 4, 8),
    BLOCK(133, "BC1_RGBA_UNORM_BLOCK", GL_COMPRESSED_RGBA_S3TC_DXT1_EXT, 4, 4, 8),
    BLOCK(134, "BC1_RGBA_SRGB_BLOCK", GL_COMPRESSED_SRGB_ALPHA_S3TC_DXT1_EXT, 4, 4, 8),
    BLOCK(135, "BC2_UNORM_BLOCK", GL_COMPRESSED_RGBA_S3TC_DXT3_EXT, 4, 4, 16),
    BLOCK(136, "BC2_SRGB_BLOCK", GL_COMPRESSED_SRGB_ALPHA_S3TC_DXT3_EXT, 4, 4, 16),
    BLOCK(137, "BC3_UNORM_BLOCK", GL_COMPRESSED_RGBA_S3TC_DXT5_EXT, 4, 4, 16),
    BLOCK(138, "BC3_SRGB_BLOCK", GL_COMPRESSED_SRGB_ALPHA_S3TC_DXT5_EXT, 4, 4, 16),
    BLOCK(139, "BC4_UNORM_BLOCK", GL_COMPRESSED_RED_RGTC1, 4, 4, 8),
    BLOCK(140, "BC4_SNORM_BLOCK", GL_COMPRESSED_SIGNED_RED_RGTC1, 4, 4, 8),
    BLOCK(141, "BC5_UNORM_BLOCK", GL_COMPRESSED_RG_RGTC2, 4, 4, 16),
    BLOCK(142, "BC5_SNORM_BLOCK", GL_COMPRESSED_SIGNED_RG_RGTC2, 4, 4, 16),
    BLOCK(143, "BC6H_UFLOAT_BLOCK", GL_COMPRESSED_RGB_BPTC_UNSIGNED_FLOAT, 4, 4, 16),
    BLOCK(144, "BC6H_SFLOAT_BLOCK", GL_COMPRESSED_RGB_BPTC_SIGNED_FLOAT, 4, 4, 16),
    BLOCK(145, "BC7_UNORM_BLOCK", GL_COMPRESSED_RGBA_BPTC_UNORM, 4, 4, 16),
    BLOCK(146, "BC7_SRGB_BLOCK", GL_COMPRESSED_SRGB_ALPHA_BPTC_UNORM, 4, 4, 16),
    BLOCK(147, "ETC2_R8G8B8_UNORM_BLOCK", GL_COMPRESSED_RGB8_ETC2, 4, 4, 8),
    BLOCK(148, "ETC2_R8G8B8_SRGB_BLOCK", GL_COMPRESSED_SRGB8_ETC2, 4, 4, 8),
    BLOCK(149, "ETC2_R8G8B8A1_UNORM_BLOCK", GL_COMPRESSED_RGB8_PUNCHTHROUGH_ALPHA1_ETC2, 4, 4, 8),
    BLOCK(150, "ETC2_R8G8B8A1_SRGB_BLOCK", GL_COMPRESSED_SRGB8_PUNCHTHROUGH_ALPHA1_ETC2, 4, 4, 8),
    BLOCK(151, "ETC2_R8G8B8A8_UNORM_BLOCK", GL_COMPRESSED_RGBA8_ETC2_EAC, 4, 4, 16),
    BLOCK(152, "ETC2_R8G8B8A8_SRGB_BLOCK", GL_COMPRESSED_SRGB8_ALPHA8_ETC2_EAC, 4, 4, 16),
    BLOCK(153, "EAC_R11_UNORM_BLOCK", GL_COMPRESSED_R11_EAC, 4, 4, 8),
    BLOCK(154, "EAC_R11_SNORM_BLOCK", GL_COMPRESSED_SIGNED_R11_EAC, 4, 4, 8),
    BLOCK(155, "EAC_R11G11_UNORM_BLOCK", GL_COMPRESSED_RG11_EAC, 4, 4, 16),
    BLOCK(156, "EAC_R11G11_SNORM_BLOCK", GL_COMPRESSED_SIGNED_RG11_EAC, 4, 4, 16),
};
#undef PLAIN
#undef BLOCK

// ASTC footprints in vkFormat order (UNORM then SRGB for each), which GL's formats share.
const uint32_t kASTCFootprints[14][2] = {{4, 4},  {5, 4},  {5, 5},  {6, 5},   {6, 6},   {8, 5},   {8, 6},
                                         {8, 8},  {10, 5}, {10, 6}, {10, 8}, {10, 10}, {12, 10}, {12, 12}};
const char* const kASTCNames[14][3] = {
    {"ASTC_4x4_UNORM_BLOCK", "ASTC_4x4_SRGB_BLOCK", "ASTC_4x4_SFLOAT_BLOCK"},
    {"ASTC_5x4_UNORM_BLOCK", "ASTC_5x4_SRGB_BLOCK", "ASTC_5x4_SFLOAT_BLOCK"},
    {"ASTC_5x5_UNORM_BLOCK", "ASTC_5x5_SRGB_BLOCK", "ASTC_5x5_SFLOAT_BLOCK"},
    {"ASTC_6x5_UNORM_BLOCK", "ASTC_6x5_SRGB_BLOCK", "ASTC_6x5_SFLOAT_BLOCK"},
    {"ASTC_6x6_UNORM_BLOCK", "ASTC_6x6_SRGB_BLOCK", "ASTC_6x6_SFLOAT_BLOCK"},
    {"ASTC_8x5_UNORM_BLOCK", "ASTC_8x5_SRGB_BLOCK", "ASTC_8x5_SFLOAT_BLOCK"},
    {"ASTC_8x6_UNORM_BLOCK", "ASTC_8x6_SRGB_BLOCK", "ASTC_8x6_SFLOAT_BLOCK"},
    {"ASTC_8x8_UNORM_BLOCK", "ASTC_8x8_SRGB_BLOCK", "ASTC_8x8_SFLOAT_BLOCK"},
    {"ASTC_10x5_UNORM_BLOCK", "ASTC_10x5_SRGB_BLOCK", "ASTC_10x5_SFLOAT_BLOCK"},
    {"ASTC_10x6_UNORM_BLOCK", "ASTC_10x6_SRGB_BLOCK", "ASTC_10x6_SFLOAT_BLOCK"},
    {"ASTC_10x8_UNORM_BLOCK", "ASTC_10x8_SRGB_BLOCK", "ASTC_10x8_SFLOAT_BLOCK"},
    {"ASTC_10x10_UNORM_BLOCK", "ASTC_10x10_SRGB_BLOCK", "ASTC_10x10_SFLOAT_BLOCK"},
    {"ASTC_12x10_UNORM_BLOCK", "ASTC_12x10_SRGB_BLOCK", "ASTC_12x10_SFLOAT_BLOCK"},
    {"ASTC_12x12_UNORM_BLOCK", "ASTC_12x12_SRGB_BLOCK", "ASTC_12x12_SFLOAT_BLOCK"},
};
constexpr uint32_t kASTCFirst = 157;             // VK_FORMAT_ASTC_4x4_UNORM_BLOCK
constexpr uint32_t kASTCHDRFirst = 1000066000u;  // VK_FORMAT_ASTC_4x4_SFLOAT_BLOCK

// HDR ASTC blocks go to the same GL formats: GL tells LDR and HDR apart by the blocks alone.
std::vector<KTX2Format> astcFormats()
{
    std::vector<KTX2Format> formats;
    for (uint32_t i = 0; i < 14; ++i) {
        const uint32_t w = kASTCFootprints[i][0], h = kASTCFootprints[i][1];
        formats.push_back({kASTCFirst + 2 * i, kASTCNames[i][0], GL_COMPRESSED_RGBA_ASTC_4x4_KHR + i, 0, 0, w, h, 16});
        formats.push_back({kASTCFirst + 2 * i + 1, kASTCNames[i][1], GL_COMPRESSED_SRGB8_ALPHA8_ASTC_4x4_KHR + i, 0, 0,
                           w, h, 16});
        formats.push_back({kASTCHDRFirst + i, kASTCNames[i][2], GL_COMPRESSED_RGBA_ASTC_4x4_KHR + i, 0, 0, w, h, 16});
    }
    return formats;
}

} // namespace

const unsigned char KTX2Parser::identifier[12] = {0xAB, 0x4B, 0x54, 0x58, 0x20, 0x32, 0x30, 0xBB, 0x0D, 0x0A, 0x1A, 0x0A};

bool KTX2Parser::hasIdentifier(const unsigned char* data, uint64_t size)
{
    return data && size >= sizeof identifier && std::memcmp(data, identifier, sizeof identifier) == 0;
}

const KTX2Format* KTX2Parser::format(uint32_t vkFormat)
{
    for (const KTX2Format& f : kFormats)
        if (f.vkFormat == vkFormat)
            return &f;
    static const std::vector<KTX2Format> astc = astcFormats();
    for (const KTX2Format& f : astc)
        if (f.vkFormat == vkFormat)
            return &f;
    return nullptr;
}

QByteArray KTX2Parser::formatName(uint32_t vkFormat)
{
    if (vkFormat == 0)
        return "VK_FORMAT_UNDEFINED";
    const KTX2Format* f = format(vkFormat);
    return f ? QByteArray("VK_FORMAT_") + f->name : QByteArray::number(vkFormat);
}

const char* KTX2Parser::supercompressionName(uint32_t scheme)
{
    switch (scheme) {
    case None: return "none";
    case BasisLZ: return "BasisLZ";
    case Zstandard: return "Zstandard";
    case ZLIB: return "ZLIB";
    default: return "unknown";
    }
}

const char* KTX2Parser::colorModelName(uint32_t model)
{
    switch (model) {
    case 0: return "unspecified";
    case KTX2DataFormat::ModelRGBSDA: return "RGBSDA";
    case 128: return "BC1A";
    case 129: return "BC2";
    case 130: return "BC3";
    case 131: return "BC4";
    case 132: return "BC5";
    case 133: return "BC6H";
    case 134: return "BC7";
    case 160: return "ETC1";
    case 161: return "ETC2";
    case 162: return "ASTC";
    case KTX2DataFormat::ModelETC1S: return "ETC1S";
    case KTX2DataFormat::ModelUASTC: return "UASTC";
    default: return "other";
    }
}

const char* KTX2Parser::transferFunctionName(uint32_t transfer)
{
    switch (transfer) {
    case 0: return "unspecified";
    case KTX2DataFormat::TransferLinear: return "linear";
    case KTX2DataFormat::TransferSRGB: return "sRGB";
    default: return "other";
    }
}

KTX2Parser::KTX2Parser(Memory* memory, const QString& name)
    : _memory(memory)
    , _name(name)
    , _printable(printableName(name))
{
    _size = memory ? memory->size() : 0;
    _data = _size >= kHeaderBytes ? memory->get(0, _size) : nullptr;
    if (!_data) {
        VYX_WARNING("KTX 2 file '%s' is shorter than its %llu-byte header", _printable.constData(),
                    (unsigned long long)kHeaderBytes);
        return;
    }
    if (!hasIdentifier(_data, _size)) {
        VYX_WARNING("'%s' is not a KTX 2 file: its identifier does not match", _printable.constData());
        return;
    }
    _valid = readIndex() && readDataFormat() && readKeyValues();
}

KTX2Parser::~KTX2Parser()
{
    if (_data)
        _memory->release(_data);
}

bool KTX2Parser::readIndex()
{
    // The 32-bit words lie in the struct as in the file; the 64-bit ones follow a gap there.
    static_assert(offsetof(KTX2Header, kvdByteLength) == 48, "KTX2Header's words follow the file's");
    KTX2Header& h = _header;
    std::memcpy(static_cast<void*>(&h), _data + 12, 52);
    h.sgdByteOffset = word64(_data + 64);
    h.sgdByteLength = word64(_data + 72);

    const char* name = _printable.constData();
    if (h.levelCount > kMaxLevels) {
        VYX_WARNING("KTX 2 file '%s' has %u levels; at most %u are possible", name, h.levelCount, kMaxLevels);
        return false;
    }
    const uint32_t count = std::max(h.levelCount, 1u);
    if (!inside(kHeaderBytes, count * kLevelEntryBytes, _size)) {
        VYX_WARNING("KTX 2 file '%s' ends inside its level index: %u levels need %llu bytes, %llu remain", name,
                    count, (unsigned long long)(count * kLevelEntryBytes), (unsigned long long)(_size - kHeaderBytes));
        return false;
    }
    for (uint32_t i = 0; i < count; ++i) {
        const unsigned char* entry = _data + kHeaderBytes + i * kLevelEntryBytes;
        _levels.push_back({word64(entry), word64(entry + 8), word64(entry + 16)});
    }
    const struct { const char* what; uint64_t offset, length; } blocks[] = {
        {"data format descriptor", h.dfdByteOffset, h.dfdByteLength},
        {"key/value data", h.kvdByteOffset, h.kvdByteLength},
        {"supercompression global data", h.sgdByteOffset, h.sgdByteLength},
    };
    for (const auto& block : blocks)
        if (!inside(block.offset, block.length, _size)) {
            VYX_WARNING("KTX 2 file '%s': its %s (%llu bytes at %llu) runs past the end of the file (%llu bytes)", name,
                        block.what, (unsigned long long)block.length, (unsigned long long)block.offset,
                        (unsigned long long)_size);
            return false;
        }
    for (uint32_t i = 0; i < count; ++i)
        if (!inside(_levels[i].byteOffset, _levels[i].byteLength, _size)) {
            VYX_WARNING("KTX 2 file '%s': level %u (%llu bytes at %llu) runs past the end of the file (%llu bytes)",
                        name, i, (unsigned long long)_levels[i].byteLength, (unsigned long long)_levels[i].byteOffset,
                        (unsigned long long)_size);
            return false;
        }
    return true;
}

bool KTX2Parser::readDataFormat()
{
    const KTX2Header& h = _header;
    const unsigned char* dfd = _data + h.dfdByteOffset;
    // The total size, then a basic block: 24 bytes and 16 per sample.
    if (h.dfdByteLength < 4 + 24 || word(dfd) != h.dfdByteLength) {
        VYX_WARNING("KTX 2 file '%s' has a data format descriptor of %u bytes that does not hold a basic block",
                    _printable.constData(), h.dfdByteLength);
        return false;
    }
    const unsigned char* block = dfd + 4;
    const uint32_t blockSize = word(block + 4) >> 16;
    if (blockSize < 24 || blockSize > h.dfdByteLength - 4) {
        VYX_WARNING("KTX 2 file '%s': its descriptor block of %u bytes does not fit the descriptor's %u",
                    _printable.constData(), blockSize, h.dfdByteLength);
        return false;
    }
    if (word(block) != 0)
        return true; // not the Khronos basic block: nothing of it is needed
    KTX2DataFormat& f = _dataFormat;
    f.present = true;
    f.colorModel = block[8];
    f.colorPrimaries = block[9];
    f.transferFunction = block[10];
    f.flags = block[11];
    for (int i = 0; i < 4; ++i)
        f.blockDimensions[i] = block[12 + i] + 1u;
    f.bytesPlane0 = block[16];
    f.samples = (blockSize - 24) / 16;
    return true;
}

bool KTX2Parser::readKeyValues()
{
    const unsigned char* block = _data + _header.kvdByteOffset;
    const uint64_t end = _header.kvdByteLength;
    uint64_t position = 0;
    while (position < end) {
        if (end - position < 4 || word(block + position) > end - position - 4) {
            VYX_WARNING("KTX 2 file '%s': key/value entry %u runs past the end of its block", _printable.constData(),
                        unsigned(_entries.size()));
            _entries.clear();
            return false;
        }
        const uint32_t size = word(block + position);
        _entries.push_back({block + position + 4, size});
        // Each entry is padded to four bytes; the last one's padding may be left out.
        position += 4 + uint64_t(size) + (4 - size % 4) % 4;
    }
    return true;
}

unsigned int KTX2Parser::target() const
{
    const KTX2Header& h = _header;
    if (h.pixelWidth == 0 || (h.faceCount != 1 && h.faceCount != 6))
        return 0;
    if (isCubeMapTexture())
        return is2DTexture() && !isArrayTexture() && h.pixelWidth == h.pixelHeight ? GL_TEXTURE_CUBE_MAP : 0;
    if (is1DTexture())
        return isArrayTexture() ? GL_TEXTURE_1D_ARRAY : GL_TEXTURE_1D;
    if (is2DTexture())
        return isArrayTexture() ? GL_TEXTURE_2D_ARRAY : GL_TEXTURE_2D;
    return is3DTexture() && !isArrayTexture() ? GL_TEXTURE_3D : 0;
}

bool KTX2Parser::isBasisUniversal() const
{
    return _header.supercompressionScheme == BasisLZ || _dataFormat.colorModel == KTX2DataFormat::ModelETC1S ||
           _dataFormat.colorModel == KTX2DataFormat::ModelUASTC;
}

bool KTX2Parser::isCompressed() const
{
    const KTX2Format* f = format(_header.vkFormat);
    return isBasisUniversal() || (f && f->compressed());
}

const char* KTX2Parser::rawKey(unsigned int index) const
{
    if (index >= _entries.size())
        return nullptr;
    const Entry& e = _entries[index];
    return std::memchr(e.start, 0, e.size) ? reinterpret_cast<const char*>(e.start) : nullptr;
}

// A value without its own NUL reads as the empty string at the key's end.
const char* KTX2Parser::rawValue(unsigned int index) const
{
    const char* key = rawKey(index);
    if (!key)
        return nullptr;
    const size_t keyEnd = std::strlen(key);
    const size_t rest = _entries[index].size - keyEnd - 1;
    return std::memchr(key + keyEnd + 1, 0, rest) ? key + keyEnd + 1 : key + keyEnd;
}

QString KTX2Parser::key(unsigned int index) const
{
    const char* raw = rawKey(index);
    return raw ? QString::fromUtf8(raw) : QString();
}

QByteArray KTX2Parser::valueBytes(unsigned int index) const
{
    const char* key = rawKey(index);
    if (!key)
        return QByteArray();
    const size_t keyBytes = std::strlen(key) + 1;
    return QByteArray(key + keyBytes, int(_entries[index].size - keyBytes));
}

// What every level needs before its bytes are looked at: a format GL takes, a payload the
// library can decode, a shape GL has a target for and sizes that cannot overflow.
bool KTX2Parser::checkImagesCanBeRead(const KTX2Format*& glFormat)
{
    const KTX2Header& h = _header;
    const char* name = _printable.constData();
    if (!_valid)
        return false; // the constructor said why
    if (isBasisUniversal()) {
        VYX_WARNING("KTX 2 file '%s' holds a Basis Universal payload (%s), which is not supported: the library has "
                    "no Basis Universal transcoder",
                    name, _dataFormat.colorModel == KTX2DataFormat::ModelUASTC ? "UASTC" : "ETC1S/BasisLZ");
        return false;
    }
    if (h.supercompressionScheme > ZLIB) {
        VYX_WARNING("KTX 2 file '%s' uses supercompression scheme %u, which is unknown", name,
                    h.supercompressionScheme);
        return false;
    }
    glFormat = format(h.vkFormat);
    if (!glFormat) {
        VYX_WARNING("KTX 2 file '%s' has vkFormat %s, which has no GL upload here", name,
                    formatName(h.vkFormat).constData());
        return false;
    }
    if (target() == 0) {
        VYX_WARNING("KTX 2 file '%s' has no usable shape: %u x %u x %u with %u layers and %u faces", name,
                    h.pixelWidth, h.pixelHeight, h.pixelDepth, h.layerCount, h.faceCount);
        return false;
    }
    const uint64_t layers = std::max(h.layerCount, 1u);
    const uint64_t blocksX = (uint64_t(h.pixelWidth) + glFormat->blockWidth - 1) / glFormat->blockWidth;
    const uint64_t blocksY = (std::max<uint64_t>(h.pixelHeight, 1) + glFormat->blockHeight - 1) / glFormat->blockHeight;
    const uint64_t limit = maxLevelBytes / glFormat->blockBytes / h.faceCount / layers;
    if (h.layerCount > maxLayers || blocksX > limit || blocksY > limit / blocksX ||
        std::max<uint64_t>(h.pixelDepth, 1) > limit / (blocksX * blocksY)) {
        VYX_WARNING("KTX 2 file '%s' is too large: %u x %u x %u with %u layers and %u faces", name, h.pixelWidth,
                    h.pixelHeight, h.pixelDepth, h.layerCount, h.faceCount);
        return false;
    }
    const uint64_t largest = std::max({h.pixelWidth, h.pixelHeight, h.pixelDepth});
    unsigned int possible = 1; // a 32-bit side allows at most 32 levels: the shift stays below 64
    while ((largest >> possible) != 0)
        ++possible;
    if (_levels.size() > possible) {
        VYX_WARNING("KTX 2 file '%s' has %u levels but a %u texel side allows only %u", name, h.levelCount,
                    unsigned(largest), possible);
        return false;
    }
    return true;
}

bool KTX2Parser::parseImages()
{
    _images.clear();
    _inflated.clear();
    const KTX2Format* f = nullptr;
    if (!checkImagesCanBeRead(f))
        return false;
    const KTX2Header& h = _header;
    const unsigned int faces = h.faceCount;
    _inflated.resize(_levels.size());
    uint32_t w = h.pixelWidth, ht = h.pixelHeight, d = h.pixelDepth;
    for (unsigned int level = 0; level < _levels.size(); ++level) {
        const uint64_t blocks = (uint64_t(w) + f->blockWidth - 1) / f->blockWidth *
                                ((std::max<uint64_t>(ht, 1) + f->blockHeight - 1) / f->blockHeight) * std::max(d, 1u);
        const uint64_t imageBytes = blocks * f->blockBytes * std::max(h.layerCount, 1u);
        const unsigned char* data = levelData(level, imageBytes * faces);
        if (!data) {
            _images.clear();
            _inflated.clear();
            return false;
        }
        for (unsigned int face = 0; face < faces; ++face)
            _images.push_back({level, face, w, ht, d, h.layerCount, imageBytes, data + face * imageBytes});
        w = std::max(w / 2, 1u);
        ht = ht > 1 ? ht / 2 : ht;
        d = d > 1 ? d / 2 : d;
    }
    return true;
}

// The level's bytes, decompressed when they are supercompressed; null after a message when
// they do not hold exactly `expected` bytes.
const unsigned char* KTX2Parser::levelData(unsigned int level, uint64_t expected)
{
    const KTX2Level& l = _levels[level];
    const char* name = _printable.constData();
    const uint32_t scheme = _header.supercompressionScheme;
    const uint64_t stored = scheme == None ? l.byteLength : l.uncompressedByteLength;
    if (stored != expected || (scheme == None && l.uncompressedByteLength != l.byteLength)) {
        VYX_WARNING("KTX 2 file '%s': level %u holds %llu bytes (%llu uncompressed) but its texels need %llu", name,
                    level, (unsigned long long)l.byteLength, (unsigned long long)l.uncompressedByteLength,
                    (unsigned long long)expected);
        return nullptr;
    }
    const unsigned char* source = _data + l.byteOffset;
    if (scheme == None)
        return source;
    std::vector<unsigned char>& out = _inflated[level];
    if (!inflate(level, source, out))
        return nullptr;
    if (out.size() != expected) {
        VYX_WARNING("KTX 2 file '%s': level %u decompresses to %llu bytes, not its uncompressedByteLength of %llu",
                    name, level, (unsigned long long)out.size(), (unsigned long long)expected);
        return nullptr;
    }
    return out.data();
}

// Output grows only as the stream produces it, so a forged uncompressedByteLength cannot make
// a large allocation on its own; one byte past the expected size is enough to tell it is wrong.
bool KTX2Parser::inflate(unsigned int level, const unsigned char* source, std::vector<unsigned char>& out) const
{
    const KTX2Level& l = _levels[level];
    const char* name = _printable.constData();
    const uint64_t limit = l.uncompressedByteLength + 1;
    if (_header.supercompressionScheme == ZLIB) {
        // qUncompress wants the size up front; a small hint keeps its first allocation small too.
        if (l.byteLength > uint64_t(INT_MAX) - 4) {
            VYX_WARNING("KTX 2 file '%s': level %u is too large for ZLIB", name, level);
            return false;
        }
        const uint32_t hint = uint32_t(std::min<uint64_t>(l.uncompressedByteLength, 4 * l.byteLength + 1024));
        QByteArray input(4, Qt::Uninitialized);
        for (int i = 0; i < 4; ++i)
            input[i] = char(hint >> (24 - 8 * i));
        input.append(reinterpret_cast<const char*>(source), int(l.byteLength));
        const QByteArray result = qUncompress(input);
        if (result.isEmpty() && l.uncompressedByteLength != 0) {
            VYX_WARNING("KTX 2 file '%s': level %u is not a valid ZLIB stream", name, level);
            return false;
        }
        out.assign(result.constData(), result.constData() + result.size());
        return true;
    }
    std::unique_ptr<ZSTD_DCtx, size_t (*)(ZSTD_DCtx*)> context(ZSTD_createDCtx(), &ZSTD_freeDCtx);
    ZSTD_inBuffer in{source, size_t(l.byteLength), 0};
    size_t produced = 0, remaining = 1;
    while (in.pos < in.size || remaining != 0) {
        if (produced == out.size()) {
            if (out.size() >= limit)
                break;
            out.resize(size_t(std::min<uint64_t>(limit, std::max<uint64_t>(2 * out.size(), 64 * 1024))));
        }
        ZSTD_outBuffer o{out.data(), out.size(), produced};
        const size_t before = in.pos;
        remaining = ZSTD_decompressStream(context.get(), &o, &in);
        produced = o.pos;
        if (ZSTD_isError(remaining)) {
            VYX_WARNING("KTX 2 file '%s': level %u is not a valid Zstandard stream: %s", name, level,
                        ZSTD_getErrorName(remaining));
            return false;
        }
        if (in.pos == before && o.pos < o.size && remaining != 0 && in.pos == in.size) {
            VYX_WARNING("KTX 2 file '%s': the Zstandard stream of level %u ends early", name, level);
            return false;
        }
    }
    out.resize(produced);
    return true;
}

} // namespace Tavren::Vyx
