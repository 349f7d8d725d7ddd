#pragma once

#include "core/vyxexport.h"
#include "gl/objects/textureformat.h"

#include <QHash>
#include <QList>

namespace Tavren::Vyx {

class Texture;

// Temporary render textures, recycled by exact format and size instead of being made per frame.
// The pool owns every texture it makes; a texture is either in use (with a reference count) or
// on the free list of its key.
class VYXGL_EXPORT TexturePool
{
public:
    // depth -1 is a 2D texture, 1 or more a 2D array of that many layers.
    struct PoolKey
    {
        TextureFormat format;
        int width;
        int height;
        int depth;
        bool operator==(const PoolKey& other) const
        {
            return format == other.format && width == other.width && height == other.height && depth == other.depth;
        }
    };

    TexturePool() = default;
    // Deletes every texture the pool made, in use or not.
    ~TexturePool();
    TexturePool(const TexturePool&) = delete;
    TexturePool& operator=(const TexturePool&) = delete;

    // A free texture of the key with one reference, else a new one; null for depth 0 or below -1.
    Texture* texture(TextureFormat format, int width, int height, int depth = -1);
    void addRef(Texture* texture, int count);
    // At zero references the texture goes back on its free list; it is kept, not deleted.
    void releaseRef(Texture* texture, int count);
    void deleteUnused();
    void printSummary() const;

    // Whether the pool made the texture (in use or free).
    bool owns(Texture* texture) const { return _descriptors.contains(texture); }
    // 0 for a texture that is not in use.
    int referenceCount(Texture* texture) const { return _referenceCounts.value(texture); }

private:
    QHash<PoolKey, QList<Texture*>> _freeLists;
    QHash<Texture*, int> _referenceCounts;
    QHash<Texture*, PoolKey> _descriptors;
};

VYXGL_EXPORT uint qHash(const TexturePool::PoolKey& key, uint seed = 0);

} // namespace Tavren::Vyx
