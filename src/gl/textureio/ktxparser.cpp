#include "gl/textureio/ktxparser.h"

#include "core/logging.h"
#include "core/memory.h"
#include "gl/platform/generated/glenums.h"

#include <QList>

#include <algorithm>
#include <cstring>

namespace Tavren::Vyx {

namespace {

const uint32_t nativeOrder = 0x04030201;

uint32_t swapped(uint32_t v)
{
    return (v >> 24) | ((v >> 8) & 0xFF00u) | ((v << 8) & 0xFF0000u) | (v << 24);
}

uint32_t readWord(const unsigned char* p)
{
    uint32_t v;
    std::memcpy(&v, p, 4);
    return v;
}

uint32_t padding(uint64_t size)
{
    return uint32_t((4 - size % 4) % 4);
}

unsigned int componentCount(unsigned int format)
{
    switch (format) {
    case GL_RED: case GL_GREEN: case GL_BLUE: case GL_ALPHA: case GL_LUMINANCE:
    case GL_RED_INTEGER: case GL_GREEN_INTEGER: case GL_BLUE_INTEGER: case GL_ALPHA_INTEGER:
    case GL_DEPTH_COMPONENT: case GL_STENCIL_INDEX:
        return 1;
    case GL_RG: case GL_RG_INTEGER: case GL_LUMINANCE_ALPHA: case GL_DEPTH_STENCIL:
        return 2;
    case GL_RGB: case GL_BGR: case GL_RGB_INTEGER: case GL_BGR_INTEGER:
        return 3;
    case GL_RGBA: case GL_BGRA: case GL_RGBA_INTEGER: case GL_BGRA_INTEGER:
        return 4;
    default:
        return 0;
    }
}

} // namespace

const unsigned char KTXParser::identifier[12] = {0xAB, 0x4B, 0x54, 0x58, 0x20, 0x31, 0x31, 0xBB, 0x0D, 0x0A, 0x1A, 0x0A};

bool KTXParser::hasIdentifier(const unsigned char* data, uint64_t size)
{
    return data && size >= sizeof identifier && std::memcmp(data, identifier, sizeof identifier) == 0;
}

unsigned int KTXParser::texelBytes(unsigned int glFormat, unsigned int glType)
{
    switch (glType) {
    case GL_UNSIGNED_BYTE_3_3_2: case GL_UNSIGNED_BYTE_2_3_3_REV:
        return 1;
    case GL_UNSIGNED_SHORT_5_6_5: case GL_UNSIGNED_SHORT_5_6_5_REV:
    case GL_UNSIGNED_SHORT_4_4_4_4: case GL_UNSIGNED_SHORT_4_4_4_4_REV:
    case GL_UNSIGNED_SHORT_5_5_5_1: case GL_UNSIGNED_SHORT_1_5_5_5_REV:
        return 2;
    case GL_UNSIGNED_INT_8_8_8_8: case GL_UNSIGNED_INT_8_8_8_8_REV:
    case GL_UNSIGNED_INT_10_10_10_2: case GL_UNSIGNED_INT_2_10_10_10_REV:
    case GL_UNSIGNED_INT_10F_11F_11F_REV: case GL_UNSIGNED_INT_5_9_9_9_REV:
    case GL_UNSIGNED_INT_24_8:
        return 4;
    case GL_FLOAT_32_UNSIGNED_INT_24_8_REV:
        return 8;
    case GL_BYTE: case GL_UNSIGNED_BYTE:
        return componentCount(glFormat);
    case GL_SHORT: case GL_UNSIGNED_SHORT: case GL_HALF_FLOAT:
        return 2 * componentCount(glFormat);
    case GL_INT: case GL_UNSIGNED_INT: case GL_FLOAT:
        return 4 * componentCount(glFormat);
    default:
        return 0;
    }
}

KTXParser::KTXParser(Memory* memory, const QString& name)
    : _memory(memory)
    , _name(name)
{
    _headerBytes = memory ? memory->get(0, 64) : nullptr;
    if (!_headerBytes) {
        VYX_WARNING("KTX file '%s' is shorter than its 64-byte header", printableName(_name).constData());
        _valid = false;
        return;
    }
    _valid = hasIdentifier(_headerBytes, 64);
    std::memcpy(&_header, _headerBytes, 64);
    if (_valid && _header.endianness != nativeOrder) {
        // The mapping is private, so the header can be put in our byte order where it lies.
        uint32_t words[13];
        std::memcpy(words, _headerBytes + 12, sizeof words);
        for (uint32_t& word : words)
            word = swapped(word);
        std::memcpy(_headerBytes + 12, words, sizeof words);
        std::memcpy(&_header, _headerBytes, 64);
        _byteSwapped = true;
        _valid = _header.endianness == nativeOrder;
    }
    if (!_valid)
        return;

    _restSize = memory->size() - 64;
    _rest = memory->get(64, _restSize);
    if (!_rest || _header.bytesOfKeyValueData > _restSize) {
        VYX_WARNING("KTX file '%s' has a key/value block of %u bytes but only %llu bytes follow its header",
                    printableName(_name).constData(), _header.bytesOfKeyValueData, (unsigned long long)_restSize);
        _valid = false;
        return;
    }
    _headerReadable = true;
    if (_header.bytesOfKeyValueData == 0)
        return;

    // Entries are stepped by 4 + byte count exactly, without their padding.
    const uint64_t blockEnd = _header.bytesOfKeyValueData;
    uint64_t position = 0;
    while (position < blockEnd) {
        if (_restSize - position < 4) {
            VYX_WARNING("KTX file '%s' ends inside the byte count of key/value entry %u",
                        printableName(_name).constData(), unsigned(_entryStarts.size()));
            _valid = _headerReadable = false;
            return;
        }
        const uint32_t count = readWord(_rest + position);
        _entryStarts.push_back(_rest + position + 4);
        // Stepping without the padding can land on a count that reaches past the file; the
        // entry is then cut at the end of the file so its key and value stay readable.
        _entrySizes.push_back(uint32_t(std::min<uint64_t>(count, _restSize - position - 4)));
        position += 4 + uint64_t(count);
    }
    _valid = position != blockEnd;
}

KTXParser::~KTXParser()
{
    if (_imageData)
        _memory->release(_imageData);
    if (_rest)
        _memory->release(_rest);
    if (_headerBytes)
        _memory->release(_headerBytes);
}

bool KTXParser::is1DTexture() const
{
    return _header.pixelWidth != 0 && _header.pixelHeight == 0 && _header.pixelDepth == 0;
}

bool KTXParser::is2DTexture() const
{
    return _header.pixelWidth != 0 && _header.pixelHeight != 0 && _header.pixelDepth == 0;
}

bool KTXParser::is3DTexture() const
{
    return _header.pixelWidth != 0 && _header.pixelHeight != 0 && _header.pixelDepth != 0;
}

unsigned int KTXParser::target() const
{
    if (isCubeMapTexture())
        return GL_TEXTURE_CUBE_MAP;
    if (is1DTexture())
        return GL_TEXTURE_1D;
    if (is2DTexture())
        return GL_TEXTURE_2D;
    if (is3DTexture())
        return GL_TEXTURE_3D;
    return 0;
}

const char* KTXParser::rawKey(unsigned int index) const
{
    if (index >= _entryStarts.size())
        return nullptr;
    const unsigned char* start = _entryStarts[index];
    return std::memchr(start, 0, _entrySizes[index]) ? reinterpret_cast<const char*>(start) : nullptr;
}

const char* KTXParser::rawValue(unsigned int index) const
{
    if (index >= _entryStarts.size() || _entrySizes[index] == 0)
        return nullptr;
    const unsigned char* q = _entryStarts[index];
    const unsigned char* last = q + _entrySizes[index] - 1;
    while (q < last && *q != 0)
        ++q;
    return *q == 0 ? reinterpret_cast<const char*>(q) : nullptr;
}

uint32_t KTXParser::entrySize(unsigned int index) const
{
    return index < _entrySizes.size() ? _entrySizes[index] : 0;
}

QString KTXParser::key(unsigned int index) const
{
    const char* raw = rawKey(index);
    return raw ? QString::fromUtf8(raw) : QString();
}

QByteArray KTXParser::valueBytes(unsigned int index) const
{
    const char* raw = rawKey(index);
    if (!raw)
        return QByteArray();
    const size_t keyLength = std::strlen(raw) + 1;
    return QByteArray(raw + keyLength, int(_entrySizes[index] - keyLength));
}

KTXOrientation KTXParser::orientation() const
{
    KTXOrientation result;
    for (unsigned int i = 0; i < numMetadataEntries() && !result.present; ++i) {
        const char* raw = rawKey(i);
        // "KTXOrientation" is a common misspelling of the reserved key.
        if (!raw || (std::strcmp(raw, "KTXorientation") != 0 && std::strcmp(raw, "KTXOrientation") != 0))
            continue;
        result.present = true;
        QByteArray text = valueBytes(i);
        const int nul = text.indexOf('\0');
        if (nul >= 0)
            text.truncate(nul);
        const QList<QByteArray> parts = text.split(',');
        result.valid = parts.size() >= 2 && parts.size() <= 3;
        const char axes[3] = {'S', 'T', 'R'};
        const char* allowed[3] = {"rl", "ud", "io"};
        char* fields[3] = {&result.s, &result.t, &result.r};
        for (int a = 0; result.valid && a < parts.size(); ++a) {
            const QByteArray& part = parts[a];
            result.valid = part.size() == 3 && part[0] == axes[a] && part[1] == '=' && part[2] != 0 &&
                           std::strchr(allowed[a], part[2]) != nullptr;
            if (result.valid)
                *fields[a] = part[2];
        }
        if (!result.valid)
            result.s = result.t = result.r = 0;
    }
    return result;
}

bool KTXParser::parseImages()
{
    _images.clear();
    const QByteArray name = printableName(_name);
    VYX_CHECK_RETURN(_headerReadable, false, "KTX file '%s' has no readable header", name.constData());
    const KTXHeader& h = _header;
    const unsigned int faces = h.numberOfFaces;
    if (faces != 1 && faces != 6) {
        VYX_WARNING("KTX file '%s' has %u faces; 1 or 6 expected", name.constData(), faces);
        return false;
    }
    if (target() == 0 || (faces == 6 && !is2DTexture())) {
        VYX_WARNING("KTX file '%s' has no usable size: %u x %u x %u with %u faces", name.constData(), h.pixelWidth,
                    h.pixelHeight, h.pixelDepth, faces);
        return false;
    }
    const uint64_t layers = std::max<uint64_t>(h.numberOfArrayElements, 1);
    const unsigned int bytesPerTexel = isCompressed() ? 1 : texelBytes(h.glFormat, h.glType);
    if (bytesPerTexel == 0) {
        VYX_WARNING("KTX file '%s' has an unknown format 0x%X with type 0x%X", name.constData(), h.glFormat,
                    h.glType);
        return false;
    }
    // Compressed texels are counted at one byte each, more than any supported block format takes.
    const uint64_t limit = maxImageBytes / bytesPerTexel / faces / layers;
    const uint64_t area = uint64_t(h.pixelWidth) * std::max<uint32_t>(h.pixelHeight, 1);
    if (area > limit || std::max<uint32_t>(h.pixelDepth, 1) > limit / area) {
        VYX_WARNING("KTX file '%s' is too large: %u x %u x %u with %u faces and %u array elements",
                    name.constData(), h.pixelWidth, h.pixelHeight, h.pixelDepth, faces, h.numberOfArrayElements);
        return false;
    }
    const uint64_t largest = std::max({h.pixelWidth, h.pixelHeight, h.pixelDepth});
    unsigned int possibleLevels = 1;
    while ((largest >> possibleLevels) != 0)
        ++possibleLevels;
    const unsigned int levels = std::max<uint32_t>(h.numberOfMipmapLevels, 1);
    if (levels > possibleLevels) {
        VYX_WARNING("KTX file '%s' has %u mipmap levels but a %llu texel side allows only %u", name.constData(),
                    levels, (unsigned long long)largest, possibleLevels);
        return false;
    }

    const uint64_t offset = imageDataOffset();
    if (!_imageData)
        _imageData = _memory->get(offset, _memory->size() - offset);
    if (!_imageData)
        return false;
    const uint64_t available = _memory->size() - offset;
    const unsigned int imagesPerLevel = isCubeMapTexture() && !isArrayTexture() ? 6 : 1;

    uint64_t position = 0;
    uint32_t w = h.pixelWidth, ht = h.pixelHeight, d = h.pixelDepth;
    for (unsigned int level = 0; level < levels; ++level) {
        if (available - position < 4) {
            VYX_WARNING("KTX file '%s' ends before the image size of level %u", name.constData(), level);
            _images.clear();
            return false;
        }
        const uint32_t imageSize = readWord(_imageData + position);
        position += 4;

        uint64_t needed = 1;
        if (!isCompressed()) {
            // What GL reads with an unpack alignment of 4: padded rows, the last one unpadded.
            const uint64_t rowBytes = uint64_t(w) * bytesPerTexel;
            const uint64_t stride = rowBytes + padding(rowBytes);
            uint64_t rows = uint64_t(std::max<uint32_t>(ht, 1)) * std::max<uint32_t>(d, 1);
            if (isArrayTexture())
                rows *= layers * (isCubeMapTexture() ? 6 : 1);
            needed = (rows - 1) * stride + rowBytes;
        }
        for (unsigned int face = 0; face < imagesPerLevel; ++face) {
            if (imageSize < needed) {
                VYX_WARNING("KTX file '%s': image size %u of level %u is below the %llu bytes its %u x %u x %u "
                            "texels need",
                            name.constData(), imageSize, level, (unsigned long long)needed, w, ht, d);
                _images.clear();
                return false;
            }
            if (imageSize > available - position) {
                VYX_WARNING("KTX file '%s': level %u face %u needs %u bytes but only %llu remain", name.constData(),
                            level, face, imageSize, (unsigned long long)(available - position));
                _images.clear();
                return false;
            }
            KTXImage image;
            image.level = level;
            image.face = imagesPerLevel == 6 ? face : 0;
            image.width = w;
            image.height = ht;
            image.depth = d;
            image.layers = h.numberOfArrayElements;
            image.offset = offset + position;
            image.size = imageSize;
            image.data = _imageData + position;
            _images.push_back(image);
            position = std::min(available, position + imageSize + padding(imageSize));
        }
        if (w > 1)
            w /= 2;
        if (ht > 1)
            ht /= 2;
        if (d > 1)
            d /= 2;
    }
    return true;
}

} // namespace Tavren::Vyx
