#include "gl/textures/texturepool.h"

#include "core/logging.h"
#include "gl/glloader.h"
#include "gl/objects/texture.h"

#include <QDebug>

namespace Tavren::Vyx {

namespace {

// The format's name, padded to 8 characters; the two longest names stay whole.
const char* formatLabel(TextureFormat format)
{
    static const char* const labels[] = {
        "R       ", "RG      ", "RGB     ", "RGBA    ", "R16F    ", "RG16F   ", "RGB16F  ", "RGBA16F ",
        "R32F    ", "RG32F   ", "RGB32F  ", "RGBA32F ", "R16I    ", "RG16I   ", "RGB16I  ", "RGBA16I ",
        "R32I    ", "RG32I   ", "RGB32I  ", "RGBA32I ", "DEPTH32F", "DEPTH24_STENCIL8", "DEPTH32F_STENCIL8"};
    const int index = int(format);
    return index >= 0 && index < int(sizeof(labels) / sizeof(labels[0])) ? labels[index] : "UNKNOWN ";
}

void hashCombine(uint& seed, uint value)
{
    seed ^= value + 0x9E3779B9u + (seed << 6) + (seed >> 2);
}

} // namespace

uint qHash(const TexturePool::PoolKey& key, uint seed)
{
    uint hash = uint(key.format);
    hashCombine(hash, uint(key.format));
    hashCombine(hash, uint(key.width));
    hashCombine(hash, uint(key.height));
    hashCombine(hash, uint(key.depth));
    return hash ^ seed;
}

TexturePool::~TexturePool()
{
    for (auto it = _descriptors.cbegin(); it != _descriptors.cend(); ++it)
        delete it.key();
}

Texture* TexturePool::texture(TextureFormat format, int width, int height, int depth)
{
    VYX_CHECK_CONTINUE(0 < width && 0 < height, "TexturePool asked for texture of size (%dx%d)", width, height);
    const PoolKey key{format, width, height, depth};
    auto freeList = _freeLists.find(key);
    if (freeList != _freeLists.end() && !freeList->isEmpty()) {
        Texture* texture = freeList->takeLast();
        if (freeList->isEmpty())
            _freeLists.erase(freeList);
        _referenceCounts.insert(texture, 1);
        return texture;
    }
    if (depth == 0 || depth < -1)
        return nullptr;

    auto* texture = new Texture();
    const bool is2D = depth == -1;
    texture->setTarget(is2D ? GL_TEXTURE_2D : GL_TEXTURE_2D_ARRAY);
    if (!texture->bind()) {
        delete texture;
        return nullptr;
    }
    const GLenum target = texture->target();
    glTexParameteri(target, GL_TEXTURE_MAG_FILTER, GL_NEAREST);
    glTexParameteri(target, GL_TEXTURE_MIN_FILTER, GL_NEAREST);
    if (is2D)
        glTexImage2D(target, 0, internalFormat(format), width, height, 0, GLenum(externalFormat(format)),
                     GLenum(externalType(format)), nullptr);
    else
        glTexImage3D(target, 0, internalFormat(format), width, height, depth, 0, GLenum(externalFormat(format)),
                     GLenum(externalType(format)), nullptr);
    texture->unbind();
    _descriptors.insert(texture, key);
    _referenceCounts.insert(texture, 1);
    return texture;
}

void TexturePool::addRef(Texture* texture, int count)
{
    auto it = _referenceCounts.find(texture);
    if (!texture || it == _referenceCounts.end() || count < 1)
        return;
    *it += count;
}

void TexturePool::releaseRef(Texture* texture, int count)
{
    auto it = _referenceCounts.find(texture);
    if (!texture || it == _referenceCounts.end())
        return;
    const int remaining = *it - count;
    if (remaining > 0) {
        *it = remaining;
        return;
    }
    _referenceCounts.erase(it);
    _freeLists[_descriptors.value(texture)].append(texture);
}

void TexturePool::deleteUnused()
{
    for (const QList<Texture*>& list : qAsConst(_freeLists)) {
        for (Texture* texture : list) {
            _descriptors.remove(texture);
            delete texture;
        }
    }
    _freeLists.clear();
}

void TexturePool::printSummary() const
{
    int freeCount = 0;
    for (const QList<Texture*>& list : _freeLists)
        freeCount += list.size();
    qDebug("%d managed textures:", int(_descriptors.size()));
    qDebug("- %d active textures", int(_referenceCounts.size()));
    qDebug("- %d free textures", freeCount);
    qDebug("- breakdown by texture format, width and height:");

    // Per key: free count, then every other texture of the key (those in use).
    QHash<PoolKey, QPair<int, int>> perKey;
    for (auto it = _descriptors.cbegin(); it != _descriptors.cend(); ++it) {
        const bool isFree = !_referenceCounts.contains(it.key());
        QPair<int, int>& counts = perKey[it.value()];
        (isFree ? counts.first : counts.second) += 1;
    }
    for (auto it = perKey.cbegin(); it != perKey.cend(); ++it)
        qDebug("  - %s %dx%d: %d free, %d active", formatLabel(it.key().format), it.key().width, it.key().height,
               it.value().first, it.value().second);
}

} // namespace Tavren::Vyx
