#include "gl/textureio/textureio.h"

#include "core/logging.h"
#include "core/memory.h"
#include "gl/glloader.h"
#include "gl/objects/internal/texturesetup.h"
#include "gl/objects/texture.h"
#include "gl/textureio/textureutilities.h"

#include <QElapsedTimer>
#include <QFileInfo>
#include <QHash>
#include <QSysInfo>

#include <algorithm>
#include <array>
#include <cmath>
#include <memory>
#include <vector>

namespace Tavren::Vyx {

namespace {

// Filled during initialisation, read while loading; both on the GL thread.
struct Registry
{
    QList<TextureRecogniser*> recognisers;
    QHash<QString, TextureRecogniser*> byExtension;
};

Registry& registry()
{
    static Registry instance;
    return instance;
}

TextureLoader* askRecognisers(Memory* memory, const QString& name)
{
    for (TextureRecogniser* recogniser : registry().recognisers) {
        if (TextureLoader* loader = recogniser->recognise(memory, name))
            return loader;
    }
    return nullptr;
}

// At most five levels are ever sampled.
constexpr int kMaxLevel = 4;
// Linear light in this many steps resolves every sRGB value, the darkest included.
constexpr int kLinearSteps = 1 << 16;

const std::array<float, 256>& srgbToLinear()
{
    static const std::array<float, 256> table = [] {
        std::array<float, 256> t{};
        for (size_t i = 0; i < t.size(); ++i) {
            const double c = double(i) / 255;
            t[i] = float(c <= 0.04045 ? c / 12.92 : std::pow((c + 0.055) / 1.055, 2.4));
        }
        return t;
    }();
    return table;
}

const std::vector<quint8>& linearToSrgb()
{
    static const std::vector<quint8> table = [] {
        std::vector<quint8> t(kLinearSteps);
        for (size_t i = 0; i < t.size(); ++i) {
            const double l = double(i) / (kLinearSteps - 1);
            const double c = l <= 0.0031308 ? l * 12.92 : 1.055 * std::pow(l, 1 / 2.4) - 0.055;
            t[i] = quint8(std::lround(std::clamp(c, 0.0, 1.0) * 255));
        }
        return t;
    }();
    return table;
}

// Each byte's average rounded up, the four bytes at once.
quint32 roundedAverage(quint32 x, quint32 y)
{
    return (x | y) - (((x ^ y) & 0xfefefefeu) >> 1);
}

// Two rounded halvings, across then down, as GL's 8-bit filter does.
struct AverageLinear
{
    quint32 operator()(quint32 a, quint32 b, quint32 c, quint32 d) const
    {
        return roundedAverage(roundedAverage(a, b), roundedAverage(c, d));
    }
};

// Colour averaged in linear light; alpha through GL's float filter, rounded to even. alphaShift:
// where a texel read as one number keeps its alpha.
template <int alphaShift>
struct AverageSrgb
{
    const std::array<float, 256>& toLinear = srgbToLinear();
    const std::vector<quint8>& toSrgb = linearToSrgb();

    quint32 operator()(quint32 a, quint32 b, quint32 c, quint32 d) const
    {
        if (a == b && a == c && a == d)
            return a; // flat areas, common in masks and emission, need no filtering
        quint32 out = 0;
        for (int shift = 0; shift < 32; shift += 8)
            out |= shift == alphaShift ? alpha(a, b, c, d) : colour(a, b, c, d, shift);
        return out;
    }
    quint32 colour(quint32 a, quint32 b, quint32 c, quint32 d, int shift) const
    {
        const float top = lerp(toLinear[(a >> shift) & 0xff], toLinear[(b >> shift) & 0xff]);
        const float bottom = lerp(toLinear[(c >> shift) & 0xff], toLinear[(d >> shift) & 0xff]);
        return quint32(toSrgb[unsigned(int(lerp(top, bottom) * (kLinearSteps - 1) + 0.5f))]) << shift;
    }
    static float lerp(float x, float y) { return x + 0.5f * (y - x); }
    quint32 alpha(quint32 a, quint32 b, quint32 c, quint32 d) const
    {
        const quint32 mask = 0xffu << alphaShift;
        if ((a & mask) == (b & mask) && (a & mask) == (c & mask) && (a & mask) == (d & mask))
            return a & mask; // opaque pictures
        const auto value = [](quint32 texel) { return float((texel >> alphaShift) & 0xff) * (1.0f / 255); };
        return quint32(std::nearbyint(lerp(lerp(value(a), value(b)), lerp(value(c), value(d))) * 255)) << alphaShift;
    }
};

// The level below a 32-bit image of even sides (or sides of one), each texel from the two by two
// block above it; a side of one pairs each texel with itself.
template <typename Average>
QImage halved(const QImage& above, const Average& average)
{
    QImage next(std::max(1, above.width() / 2), std::max(1, above.height() / 2), above.format());
    if (next.isNull())
        return next;
    const int across = above.width() > 1 ? 1 : 0, down = above.height() > 1 ? 1 : 0;
    const int width = next.width(), height = next.height();
    for (int y = 0; y < height; ++y) {
        const auto* top = reinterpret_cast<const quint32*>(above.constScanLine(y << down));
        const auto* bottom = reinterpret_cast<const quint32*>(above.constScanLine((y << down) + down));
        auto* out = reinterpret_cast<quint32*>(next.scanLine(y));
        for (int x = 0; x < width; ++x) {
            const int left = x << across, right = left + across;
            out[x] = average(top[left], top[right], bottom[left], bottom[right]);
        }
    }
    return next;
}

// Levels that fill the chain below the image, or none, which GL then makes.
QList<QImage> fitting(const QList<QImage>& levels, const QImage& image)
{
    int count = 0;
    while (count < kMaxLevel && ((image.width() >> count) > 1 || (image.height() >> count) > 1))
        ++count;
    if (levels.size() != count)
        return {};
    for (int level = 1; level <= levels.size(); ++level) {
        const QImage& below = levels[level - 1];
        if (below.format() != image.format() || below.width() != std::max(1, image.width() >> level) ||
            below.height() != std::max(1, image.height() >> level))
            return {};
    }
    return levels;
}

// RGBA8888 goes up as RGBA bytes, every other 32-bit image as BGRA bytes.
Texture* upload(const QImage& source, bool asRG16F, const QList<QImage>& given, const TextureFileInfo& info)
{
    VYX_CHECK_RETURN(!source.isNull(), nullptr, "Cannot make a texture of a null image");
    // Both uploads read four bytes a texel without row padding, which only 32-bit images have.
    QImage image = source;
    if (image.depth() != 32) {
        VYX_CHECK_RETURN(!asRG16F, nullptr, "A GL_RG16F upload needs a 32-bit image, not %d bits", image.depth());
        image = image.convertToFormat(QImage::Format_ARGB32);
    }
    const QList<QImage> levels = fitting(given, image);

    const SamplerSettings sampler = {GL_LINEAR_MIPMAP_LINEAR, GL_LINEAR, GL_CLAMP_TO_EDGE, GL_CLAMP_TO_EDGE, 0,
                                     kMaxLevel};
    std::unique_ptr<Texture> texture = newTextureWithStorage(GL_TEXTURE_2D, sampler, [&] {
        PixelStoreGuard alignment(GL_UNPACK_ALIGNMENT, 1);
        if (asRG16F) {
            VYX_DEBUG("Loading image as GL_RG16F...");
            glTexImage2D(GL_TEXTURE_2D, 0, GL_RG16F, image.width(), image.height(), 0, GL_RG, GL_HALF_FLOAT,
                         image.constBits());
        } else {
            const GLint internalFormat = info.srgb ? GL_SRGB8_ALPHA8 : GL_RGBA;
            const GLenum order = image.format() == QImage::Format_RGBA8888 ? GL_RGBA : GL_BGRA;
            glTexImage2D(GL_TEXTURE_2D, 0, internalFormat, image.width(), image.height(), 0, order,
                         GL_UNSIGNED_BYTE, image.constBits());
            for (int level = 1; level <= levels.size(); ++level) {
                const QImage& below = levels[level - 1];
                glTexImage2D(GL_TEXTURE_2D, level, internalFormat, below.width(), below.height(), 0, order,
                             GL_UNSIGNED_BYTE, below.constBits());
            }
        }
        if (levels.isEmpty())
            glGenerateMipmap(GL_TEXTURE_2D);
        return true;
    });
    Texture* loaded = texture.release();
    RemapColorRange(loaded, info.lowValue, info.highValue);
    return loaded;
}

} // namespace

TextureLoader::~TextureLoader() = default;

TextureRecogniser::~TextureRecogniser() = default;

QString TextureLoader::metadataText(const char* raw)
{
    return raw ? QString::fromUtf8(raw) : QString();
}

QString TextureLoader2DHelper::key(unsigned int index)
{
    return metadataText(rawKey(index));
}

QString TextureLoader2DHelper::value(unsigned int index)
{
    return metadataText(rawValue(index));
}

void RegisterTextureRecogniser(TextureRecogniser* recogniser, const QString& extension)
{
    VYX_CHECK_RETURN(recogniser != nullptr, , "Cannot register a NULL texture recogniser");
    Registry& r = registry();
    if (!r.recognisers.contains(recogniser))
        r.recognisers.append(recogniser);
    if (!extension.isEmpty())
        r.byExtension.insert(extension.toLower(), recogniser);
}

QList<TextureRecogniser*> RegisteredTextureRecognisers()
{
    return registry().recognisers;
}

TextureRecogniser* TextureRecogniserForExtension(const QString& extension)
{
    return registry().byExtension.value(extension.toLower(), nullptr);
}

TextureLoader* IdentifyTextureFromFile(const QString& path)
{
    auto memory = std::make_unique<MemoryMappedFile>(path);
    TextureLoader* loader = nullptr;
    // The extension's recogniser is asked again in its turn; cheap, as it only peeks at the header.
    if (TextureRecogniser* preferred = TextureRecogniserForExtension(QFileInfo(path).suffix()))
        loader = preferred->recognise(memory.get(), path);
    if (!loader)
        loader = askRecognisers(memory.get(), path);
    // A loader owns the memory it was given.
    if (loader)
        memory.release();
    return loader;
}

TextureLoader* IdentifyTextureFromMemory(unsigned char* data, uint64_t size, const QString& name)
{
    auto memory = std::make_unique<RawMemory>(data, size);
    TextureLoader* loader = askRecognisers(memory.get(), name);
    if (loader)
        memory.release();
    return loader;
}

Texture* LoadTextureFromFile(const QString& path, const TextureFileInfo& info)
{
    const QFileInfo fileInfo(path);
    if (!fileInfo.exists() || !fileInfo.isFile()) {
        VYX_WARNING("File %s not found", qPrintable(path));
        return nullptr;
    }
    QElapsedTimer timer;
    timer.start();
    const std::unique_ptr<TextureLoader> loader(IdentifyTextureFromFile(path));
    Texture* texture = nullptr;
    if (loader) {
        if (!loader->valid())
            VYX_DEBUG("Data appears invalid for texture file '%s'", qPrintable(path));
        else
            texture = loader->load(info);
    } else {
        texture = LoadTextureFromQImageFile(path, info);
    }
    if (texture)
        VYX_DEBUG("Texture %s loaded in %lld ms", qPrintable(path), (long long)timer.elapsed());
    return texture;
}

Texture* LoadTextureFromMemory(unsigned char* data, uint64_t size, const TextureFileInfo& info, const QString& name)
{
    const QByteArray printable = printableName(name);
    QElapsedTimer timer;
    timer.start();
    const std::unique_ptr<TextureLoader> loader(IdentifyTextureFromMemory(data, size, name));
    if (!loader) {
        VYX_DEBUG("Unable to recognise the file format for texture data '%s'", printable.constData());
        return nullptr;
    }
    Texture* texture = nullptr;
    if (!loader->valid())
        VYX_DEBUG("Data appears invalid for texture data '%s'", printable.constData());
    else
        texture = loader->load(info);
    if (texture)
        VYX_DEBUG("Texture %s loaded in %lld ms", printable.constData(), (long long)timer.elapsed());
    return texture;
}

Texture* LoadTextureFromQImageFile(const QString& path, const TextureFileInfo& info)
{
    QImage image;
    if (!image.load(path)) {
        VYX_WARNING("Failed to load %s", qPrintable(path));
        return nullptr;
    }
    // GL's first row is the picture's bottom row.
    image = image.mirrored(false, true);
    if (image.depth() != 32)
        image = image.convertToFormat(QImage::Format_ARGB32);
    return QImageToTexture(image, false, info);
}

Texture* QImageToTexture(const QImage& source, bool asRG16F, const TextureFileInfo& info)
{
    return upload(source, asRG16F, {}, info);
}

Texture* QImageToTexture(const QImage& image, const QList<QImage>& levels, const TextureFileInfo& info)
{
    return upload(image, false, levels, info);
}

QList<QImage> MipmapLevels(const QImage& image, bool srgb)
{
    QList<QImage> levels;
    // Formats of four 8-bit channels, alpha the top byte of a texel read as one number or, for
    // byte-ordered RGBA on big-endian machines, the bottom one.
    int alphaShift = 24;
    switch (image.format()) {
    case QImage::Format_RGBA8888:
        alphaShift = QSysInfo::ByteOrder == QSysInfo::LittleEndian ? 24 : 0;
        break;
    case QImage::Format_ARGB32:
    case QImage::Format_RGB32:
        break;
    default:
        return levels;
    }
    const QImage* above = &image;
    for (int level = 1; level <= kMaxLevel && (above->width() > 1 || above->height() > 1); ++level) {
        const int w = above->width(), h = above->height();
        // Odd sizes are filtered with uneven weights, which a plain average would not match.
        if ((w % 2 && w > 1) || (h % 2 && h > 1))
            return {};
        const QImage next = !srgb            ? halved(*above, AverageLinear())
                            : alphaShift == 24 ? halved(*above, AverageSrgb<24>())
                                               : halved(*above, AverageSrgb<0>());
        if (next.isNull())
            return {};
        levels.append(next);
        above = &levels.last();
    }
    return levels;
}

Texture* MakeColorTexture(const QColor& color)
{
    QImage image(1, 1, QImage::Format_ARGB32);
    image.fill(color);
    return QImageToTexture(image, false, TextureFileInfo());
}

} // namespace Tavren::Vyx
