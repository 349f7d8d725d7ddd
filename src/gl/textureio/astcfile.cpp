#include "gl/textureio/astcfile.h"

#include "core/logging.h"
#include "core/memory.h"
#include "gl/platform/generated/glenums.h"

#include <QHash>
#include <QMutex>
#include <QMutexLocker>

// The Debian library exports its API with C linkage, but its header does not say so.
extern "C" {
#include <astcenc.h>
}

#include <cstring>

namespace Tavren::Vyx {

namespace {

uint32_t read24(const unsigned char* p)
{
    return uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16;
}

// The 2D footprints, in the order of their GL enums.
const unsigned char footprints[14][2] = {{4, 4},  {5, 4},  {5, 5},   {6, 5},   {6, 6},   {8, 5},   {8, 6},
                                         {8, 8},  {10, 5}, {10, 6}, {10, 8}, {10, 10}, {12, 10}, {12, 12}};

bool isFootprint3D(unsigned int x, unsigned int y, unsigned int z)
{
    // 3x3x3 ... 6x6x6: each step grows one axis at a time.
    return x >= 3 && x <= 6 && y >= 3 && y <= 6 && z >= 3 && z <= 6 && x >= y && y >= z && x - z <= 1;
}

// Setting up a decoder builds large tables (tens of milliseconds), so decode-only contexts are
// made once per profile and footprint and kept for the process. A context decodes one image at
// a time: users hold the cache's lock while they work with it.
class DecoderCache
{
public:
    ~DecoderCache()
    {
        for (astcenc_context* context : std::as_const(_contexts))
            astcenc_context_free(context);
    }

    QMutex mutex;

    // Call with `mutex` held. Null, with a warning, when the decoder cannot be set up.
    astcenc_context* context(astcenc_profile profile, unsigned int bx, unsigned int by, const QByteArray& name)
    {
        const quint64 key = quint64(profile) << 16 | bx << 8 | by;
        if (astcenc_context* cached = _contexts.value(key))
            return cached;
        astcenc_config config;
        astcenc_error status = astcenc_config_init(profile, bx, by, 1, ASTCENC_PRE_FASTEST,
                                                   ASTCENC_FLG_DECOMPRESS_ONLY, &config);
        astcenc_context* context = nullptr;
        if (status == ASTCENC_SUCCESS)
            status = astcenc_context_alloc(&config, 1, &context);
        if (status != ASTCENC_SUCCESS) {
            VYX_WARNING("ASTC file '%s': decoder set-up failed: %s", name.constData(),
                        astcenc_get_error_string(status));
            return nullptr;
        }
        _contexts.insert(key, context);
        return context;
    }

private:
    QHash<quint64, astcenc_context*> _contexts;
};

DecoderCache& decoderCache()
{
    static DecoderCache cache;
    return cache;
}

} // namespace

bool ASTCFile::hasMagic(const unsigned char* data, uint64_t size)
{
    return data && size >= 4 && (uint32_t(data[0]) | uint32_t(data[1]) << 8 | uint32_t(data[2]) << 16 |
                                 uint32_t(data[3]) << 24) == magic;
}

unsigned int ASTCFile::glInternalFormatFor(unsigned int blockWidth, unsigned int blockHeight, bool srgb)
{
    for (unsigned int i = 0; i < 14; ++i) {
        if (footprints[i][0] == blockWidth && footprints[i][1] == blockHeight)
            return (srgb ? GL_COMPRESSED_SRGB8_ALPHA8_ASTC_4x4_KHR : GL_COMPRESSED_RGBA_ASTC_4x4_KHR) + i;
    }
    return 0;
}

ASTCFile::ASTCFile(const unsigned char* data, uint64_t size, const QString& name)
    : _data(data)
    , _size(data ? size : 0)
    , _name(name)
{
    parse();
}

ASTCFile::ASTCFile(Memory* memory, const QString& name)
    : _memory(memory)
    , _name(name)
{
    if (memory) {
        _size = memory->size();
        _block = memory->get(0, _size);
        _data = _block;
        if (!_data)
            _size = 0;
    }
    parse();
}

ASTCFile::~ASTCFile()
{
    if (_memory && _block)
        _memory->release(_block);
}

unsigned int ASTCFile::glInternalFormat(bool srgb) const
{
    return _valid ? glInternalFormatFor(_blockWidth, _blockHeight, srgb) : 0;
}

void ASTCFile::parse()
{
    const QByteArray name = printableName(_name);
    if (_size < headerSize || !hasMagic(_data, _size)) {
        VYX_WARNING("ASTC file '%s' has no ASTC header", name.constData());
        return;
    }
    _blockWidth = _data[4];
    _blockHeight = _data[5];
    _blockDepth = _data[6];
    _width = read24(_data + 7);
    _height = read24(_data + 10);
    _depth = read24(_data + 13);

    if (_blockDepth != 1) {
        if (isFootprint3D(_blockWidth, _blockHeight, _blockDepth))
            VYX_WARNING("ASTC file '%s' has 3D blocks of %ux%ux%u texels; only 2D files are supported",
                        name.constData(), _blockWidth, _blockHeight, _blockDepth);
        else
            VYX_WARNING("ASTC file '%s' has an invalid block footprint %ux%ux%u", name.constData(), _blockWidth,
                        _blockHeight, _blockDepth);
        return;
    }
    if (glInternalFormatFor(_blockWidth, _blockHeight) == 0) {
        VYX_WARNING("ASTC file '%s' has an invalid block footprint %ux%u", name.constData(), _blockWidth,
                    _blockHeight);
        return;
    }
    if (_width == 0 || _height == 0 || _depth == 0) {
        VYX_WARNING("ASTC file '%s' has no texels: %u x %u x %u", name.constData(), _width, _height, _depth);
        return;
    }
    if (_depth != 1) {
        VYX_WARNING("ASTC file '%s' holds %u slices; only 2D files are supported", name.constData(), _depth);
        return;
    }
    if (uint64_t(_width) * _height > maxPixels) {
        VYX_WARNING("ASTC file '%s' is too large: %u x %u", name.constData(), _width, _height);
        return;
    }
    const uint64_t blocks = (uint64_t(_width) + _blockWidth - 1) / _blockWidth *
                            ((uint64_t(_height) + _blockHeight - 1) / _blockHeight);
    if (blocks > (_size - headerSize) / blockBytes) {
        VYX_WARNING("ASTC file '%s' needs %llu blocks of data but holds %llu bytes after its header",
                    name.constData(), (unsigned long long)blocks, (unsigned long long)(_size - headerSize));
        return;
    }
    _blockCount = blocks;
    _valid = true;
}

bool ASTCFile::hasHDRBlocks() const
{
    if (!_valid)
        return false;
    QMutexLocker locker(&decoderCache().mutex);
    astcenc_context* context = decoderCache().context(ASTCENC_PRF_HDR, _blockWidth, _blockHeight, printableName(_name));
    if (!context)
        return false;
    const unsigned char* block = blocks();
    for (uint64_t i = 0; i < _blockCount; ++i, block += blockBytes) {
        astcenc_block_info info;
        if (astcenc_get_block_info(context, block, &info) == ASTCENC_SUCCESS && info.is_hdr_block)
            return true;
    }
    return false;
}

bool ASTCFile::decodeRGBA8(unsigned char* rgba, bool srgb) const
{
    const QByteArray name = printableName(_name);
    VYX_CHECK_RETURN(_valid, false, "ASTC file '%s' is not valid", name.constData());
    VYX_CHECK_RETURN(rgba != nullptr, false, "No output buffer");
    const bool hdr = hasHDRBlocks();
    if (hdr)
        VYX_DEBUG("ASTC file '%s' holds HDR blocks; they are decoded clamped to [0, 1]", name.constData());
    const astcenc_profile profile = hdr ? ASTCENC_PRF_HDR : srgb ? ASTCENC_PRF_LDR_SRGB : ASTCENC_PRF_LDR;
    QMutexLocker locker(&decoderCache().mutex);
    astcenc_context* context = decoderCache().context(profile, _blockWidth, _blockHeight, name);
    if (!context)
        return false;

    void* slices[1] = {rgba};
    astcenc_image image;
    image.dim_x = _width;
    image.dim_y = _height;
    image.dim_z = 1;
    image.data_type = ASTCENC_TYPE_U8;
    image.data = slices;
    const astcenc_swizzle swizzle{ASTCENC_SWZ_R, ASTCENC_SWZ_G, ASTCENC_SWZ_B, ASTCENC_SWZ_A};
    const astcenc_error status = astcenc_decompress_image(context, blocks(), blocksSize(), &image, &swizzle, 0);
    astcenc_decompress_reset(context);
    if (status != ASTCENC_SUCCESS) {
        VYX_WARNING("ASTC file '%s' failed to decode: %s", name.constData(), astcenc_get_error_string(status));
        return false;
    }
    return true;
}

} // namespace Tavren::Vyx
