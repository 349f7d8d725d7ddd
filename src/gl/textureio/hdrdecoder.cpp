#include "gl/textureio/hdrdecoder.h"

#include "core/logging.h"
#include "core/memory.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace Tavren::Vyx {

namespace {

const char magic[] = "#?RADIANCE\n";
const uint64_t magicLength = 11;

HDRDecoder::OverrunHandler overrunHandler = &std::abort;

bool startsWith(const unsigned char* p, const unsigned char* end, const char* text, size_t length)
{
    return size_t(end - p) >= length && std::memcmp(p, text, length) == 0;
}

// Copies the line at p (without its line feed) into a terminated buffer for sscanf.
void copyLine(const unsigned char* p, const unsigned char* end, char* buffer, size_t capacity)
{
    size_t n = 0;
    while (p + n < end && p[n] != '\n' && n + 1 < capacity) {
        buffer[n] = char(p[n]);
        ++n;
    }
    buffer[n] = '\0';
}

// Position after the line feed that ends the line at p, or null when the data ends first.
const unsigned char* nextLine(const unsigned char* p, const unsigned char* end)
{
    const void* feed = std::memchr(p, '\n', size_t(end - p));
    return feed ? static_cast<const unsigned char*>(feed) + 1 : nullptr;
}

struct ExponentTable
{
    float values[256];
    ExponentTable()
    {
        values[0] = 0.0f;
        for (int e = 1; e < 256; ++e) {
            // 2^(e - 136) built from its bits: normal floats down to 2^-126, subnormal below.
            const int power = e - 136;
            uint32_t bits = power >= -126 ? uint32_t(power + 127) << 23 : uint32_t(1) << (power + 149);
            std::memcpy(&values[e], &bits, sizeof bits);
        }
    }
};

const ExponentTable exponents;

// Writes decoded scanlines as RGB floats.
struct FloatSink
{
    float* out;
    uint32_t width;
    const float* table = exponents.values;

    float* row(uint32_t y) const { return out + uint64_t(y) * width * 3; }
    void clearRow(uint32_t y) const { std::memset(row(y), 0, sizeof(float) * 3 * width); }
    void planar(uint32_t y, const unsigned char* channels) const
    {
        const unsigned char* r = channels;
        const unsigned char* g = r + width;
        const unsigned char* b = g + width;
        const unsigned char* e = b + width;
        float* o = row(y);
        for (uint32_t x = 0; x < width; ++x) {
            const float f = table[e[x]];
            o[0] = float(r[x]) * f;
            o[1] = float(g[x]) * f;
            o[2] = float(b[x]) * f;
            o += 3;
        }
    }
    void repeat(uint32_t y, uint32_t x, const unsigned char* rgbe, uint32_t count) const
    {
        const float f = table[rgbe[3]];
        const float r = float(rgbe[0]) * f, g = float(rgbe[1]) * f, b = float(rgbe[2]) * f;
        float* o = row(y) + uint64_t(x) * 3;
        for (uint32_t i = 0; i < count; ++i, o += 3) {
            o[0] = r;
            o[1] = g;
            o[2] = b;
        }
    }
};

// Writes decoded scanlines as interleaved RGBE bytes.
struct RGBESink
{
    unsigned char* out;
    uint32_t width;

    unsigned char* row(uint32_t y) const { return out + uint64_t(y) * width * 4; }
    void clearRow(uint32_t y) const { std::memset(row(y), 0, size_t(4) * width); }
    void planar(uint32_t y, const unsigned char* channels) const
    {
        unsigned char* o = row(y);
        for (uint32_t x = 0; x < width; ++x, o += 4) {
            o[0] = channels[x];
            o[1] = channels[width + x];
            o[2] = channels[2 * size_t(width) + x];
            o[3] = channels[3 * size_t(width) + x];
        }
    }
    void repeat(uint32_t y, uint32_t x, const unsigned char* rgbe, uint32_t count) const
    {
        unsigned char* o = row(y) + uint64_t(x) * 4;
        for (uint32_t i = 0; i < count; ++i, o += 4)
            std::memcpy(o, rgbe, 4);
    }
};

} // namespace

HDRDecoder::HDRDecoder(const unsigned char* data, uint64_t size, const QString& name)
    : _begin(data)
    , _size(data ? size : 0)
    , _name(name)
{
    parseHeader();
}

HDRDecoder::HDRDecoder(Memory* memory, const QString& name)
    : _memory(memory)
    , _name(name)
{
    if (memory) {
        _size = memory->size();
        _block = memory->get(0, _size);
        _begin = _block;
        if (!_begin)
            _size = 0;
    }
    parseHeader();
}

HDRDecoder::~HDRDecoder()
{
    if (_memory && _block)
        _memory->release(_block);
}

bool HDRDecoder::hasMagic(const unsigned char* data, uint64_t size)
{
    return data && size >= magicLength && std::memcmp(data, magic, magicLength) == 0;
}

const float* HDRDecoder::exponentTable()
{
    return exponents.values;
}

void HDRDecoder::rgbeToFloat(const unsigned char* rgbe, float* rgb, uint64_t pixelCount)
{
    for (uint64_t i = 0; i < pixelCount; ++i, rgbe += 4, rgb += 3) {
        const float f = exponents.values[rgbe[3]];
        rgb[0] = float(rgbe[0]) * f;
        rgb[1] = float(rgbe[1]) * f;
        rgb[2] = float(rgbe[2]) * f;
    }
}

HDRDecoder::OverrunHandler HDRDecoder::setOverrunHandler(OverrunHandler handler)
{
    OverrunHandler previous = overrunHandler;
    overrunHandler = handler ? handler : &std::abort;
    return previous;
}

void HDRDecoder::parseHeader()
{
    _valid = _size > magicLength && hasMagic(_begin, _size);
    if (!_valid)
        return;
    const unsigned char* end = _begin + _size;
    const unsigned char* p = _begin + magicLength;

    while (_valid) {
        if (p >= end) {
            VYX_WARNING("HDR header of '%s' ends before its resolution line", printableName(_name).constData());
            _valid = false;
            return;
        }
        if (*p == '\n')
            break;
        if (*p == '\0') {
            _valid = false;
            break;
        }
        if (startsWith(p, end, "FORMAT=", 7)) {
            p += 7;
            if (startsWith(p, end, "32-bit_rle_rgbe\n", 16)) {
                _format = 1;
                p += 16;
            } else if (startsWith(p, end, "32-bit_rle_xyze\n", 16)) {
                _format = 2;
                p += 16;
            } else {
                _format = 0;
                _valid = false;
            }
            continue;
        }
        if (startsWith(p, end, "EXPOSURE=", 9)) {
            char text[256];
            copyLine(p + 9, end, text, sizeof text);
            float value = 0.0f;
            _valid = std::sscanf(text, "%f", &value) == 1;
            _exposure *= value;
        }
        p = nextLine(p, end);
        if (!p)
            p = end;
    }
    if (!_valid)
        return;
    ++p; // the empty line

    char line[256];
    copyLine(p, end, line, sizeof line);
    unsigned int first = 0, second = 0;
    _valid = std::sscanf(line, "%c%c %u %c%c %u", &_firstSign, &_firstAxis, &first, &_secondSign, &_secondAxis,
                         &second) == 6;
    _valid = _valid && (_firstSign == '+' || _firstSign == '-') && (_secondSign == '+' || _secondSign == '-');
    _valid = _valid && (_firstAxis == 'X' || _firstAxis == 'Y') && (_secondAxis == 'X' || _secondAxis == 'Y');
    _valid = _valid && _firstAxis != _secondAxis;
    if (!_valid)
        return;
    _height = first;
    _width = second;
    p = nextLine(p, end);
    if (!p) {
        VYX_WARNING("HDR picture '%s' has no line feed after its resolution line", printableName(_name).constData());
        _valid = false;
        return;
    }
    _dataOffset = uint64_t(p - _begin);

    if (_width == 0 || _height == 0 || uint64_t(_width) * _height > maxPixels) {
        VYX_WARNING("HDR picture '%s' has an unusable size of %u x %u pixels", printableName(_name).constData(),
                    _width, _height);
        _valid = false;
        return;
    }
    // Every scanline takes at least one 4-byte group, however well it compresses.
    if (_size - _dataOffset < uint64_t(_height) * 4) {
        VYX_WARNING("HDR picture '%s' claims %u scanlines but holds only %llu bytes of pixel data",
                    printableName(_name).constData(), _height, (unsigned long long)(_size - _dataOffset));
        _valid = false;
    }
}

template <class Sink>
bool HDRDecoder::decode(Sink& sink, RowOrder order) const
{
    VYX_CHECK_RETURN(_valid, false, "HDR picture '%s' is not valid", printableName(_name).constData());
    const unsigned char* p = _begin + _dataOffset;
    const unsigned char* const end = _begin + _size;
    const uint32_t width = _width;
    std::vector<unsigned char> channels(size_t(width) * 4);
    unsigned char previous[4] = {0, 0, 0, 0};
    bool havePrevious = false;

    auto truncated = [&](uint32_t y) {
        VYX_WARNING("HDR data of '%s' ends in scanline %u of %u", printableName(_name).constData(), y, _height);
        return false;
    };

    for (uint32_t y = 0; y < _height; ++y) {
        const uint32_t row = order == RowOrder::File || _firstSign == '+' ? y : _height - 1 - y;
        if (end - p < 4)
            return truncated(y);

        if (p[0] == 2 && p[1] == 2) {
            const uint32_t lineWidth = uint32_t(p[2]) * 256 + p[3];
            p += 4;
            if (lineWidth != width) {
                VYX_WARNING("HDR format error: bad scanline width");
                sink.clearRow(row);
                continue;
            }
            for (int c = 0; c < 4; ++c) {
                unsigned char* out = channels.data() + size_t(c) * width;
                uint32_t x = 0;
                while (x < width) {
                    if (p >= end)
                        return truncated(y);
                    const uint32_t count = *p++;
                    if (count > 128) {
                        const uint32_t length = count - 128;
                        if (x + length > width) {
                            VYX_WARNING("Bad scanline: RLE run starting at %u ends at %u, but width is only %u", x,
                                        x + length, width);
                            overrunHandler();
                            return false;
                        }
                        if (p >= end)
                            return truncated(y);
                        std::memset(out + x, *p++, length);
                        x += length;
                    } else {
                        if (x + count > width) {
                            VYX_WARNING("Bad scanline: literal run starting at %u ends at %u, but width is only %u",
                                        x, x + count, width);
                            return false;
                        }
                        if (uint64_t(end - p) < count)
                            return truncated(y);
                        std::memcpy(out + x, p, count);
                        p += count;
                        x += count;
                    }
                }
            }
            sink.planar(row, channels.data());
            previous[0] = channels[width - 1];
            previous[1] = channels[2 * size_t(width) - 1];
            previous[2] = channels[3 * size_t(width) - 1];
            previous[3] = channels[4 * size_t(width) - 1];
            havePrevious = true;
            continue;
        }

        // Flat pixels, with old-style repeat markers (1, 1, 1, n) that repeat the pixel before
        // them; consecutive markers scale their counts by 256 each.
        uint32_t x = 0;
        unsigned shift = 0;
        while (x < width) {
            if (end - p < 4)
                return truncated(y);
            if (p[0] == 1 && p[1] == 1 && p[2] == 1) {
                if (!havePrevious) {
                    VYX_WARNING("Bad scanline: repeat marker in '%s' has no pixel before it to repeat",
                                printableName(_name).constData());
                    return false;
                }
                const uint64_t count = shift < 32 ? uint64_t(p[3]) << shift : ~uint64_t(0);
                if (count > width - x) {
                    VYX_WARNING("Bad scanline: repeat starting at %u ends at %llu, but width is only %u", x,
                                (unsigned long long)(x + count), width);
                    return false;
                }
                sink.repeat(row, x, previous, uint32_t(count));
                x += uint32_t(count);
                shift += 8;
            } else {
                std::memcpy(previous, p, 4);
                havePrevious = true;
                sink.repeat(row, x, previous, 1);
                ++x;
                shift = 0;
            }
            p += 4;
        }
    }
    return true;
}

bool HDRDecoder::decodeFloat(float* rgb, RowOrder order) const
{
    VYX_CHECK_RETURN(rgb != nullptr, false, "No output buffer");
    FloatSink sink{rgb, _width};
    return decode(sink, order);
}

bool HDRDecoder::decodeRGBE(unsigned char* rgbe, RowOrder order) const
{
    VYX_CHECK_RETURN(rgbe != nullptr, false, "No output buffer");
    RGBESink sink{rgbe, _width};
    return decode(sink, order);
}

} // namespace Tavren::Vyx
