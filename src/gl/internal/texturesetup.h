#pragma once

#include <QSharedPointer>

#include <functional>
#include <memory>

namespace Tavren::Vyx {

class OpenGLDeviceContext;
class Texture;

// The device context whose quad, cube and buffers a render pass draws with; a host that has not
// installed one gets one here, so passes work after initializeGLFunctions() alone.
QSharedPointer<OpenGLDeviceContext> passDeviceContext();

// Sets a pixel-store parameter (GL_UNPACK_ALIGNMENT, ...) for the length of a scope and puts
// back the value it found.
class PixelStoreGuard
{
public:
    PixelStoreGuard(unsigned int parameter, int value);
    ~PixelStoreGuard();
    PixelStoreGuard(const PixelStoreGuard&) = delete;
    PixelStoreGuard& operator=(const PixelStoreGuard&) = delete;

private:
    unsigned int _parameter;
    int _saved = 0;
};

// Filters, wraps and level range of a texture, in the order GL is told them. A field left at
// kUnset is not set, so GL keeps its own value.
struct SamplerSettings
{
    static constexpr int kUnset = -1;
    int minFilter = kUnset;
    int magFilter = kUnset;
    int wrapS = kUnset;
    int wrapT = kUnset;
    int baseLevel = kUnset;
    int maxLevel = kUnset;

    // Both filters GL_NEAREST, the rest left alone: render targets and plain storage.
    static SamplerSettings nearest();
    // The six values of the texture bound to target.
    static SamplerSettings of(unsigned int target);
    // Sets the fields that are set on the texture bound to target.
    void apply(unsigned int target) const;
};

// Sets the texture's target, binds it, applies the sampler settings and runs `storage`, which
// makes its levels and answers whether that worked; then unbinds. False when the texture could
// not be bound or `storage` failed.
bool makeTextureStorage(Texture& texture, unsigned int target, const SamplerSettings& sampler,
                        const std::function<bool()>& storage);
// The same on a new managed texture; null, with the texture gone again, on failure.
std::unique_ptr<Texture> newTextureWithStorage(unsigned int target, const SamplerSettings& sampler,
                                               const std::function<bool()>& storage);

} // namespace Tavren::Vyx
