#pragma once

#include "core/vyxexport.h"
#include "gl/objects/texture.h"

namespace Tavren::Vyx {

// A texture of RGBA32F texels backed by a buffer it owns, read in GLSL through a samplerBuffer
// with texelFetch: the way to hand a shader arrays longer than a uniform block holds (joint
// matrices, morph target deltas). Texture buffers are core since GL 3.1, so this works on every
// context the library supports. The buffer keeps its storage when an upload fits.
class VYXGL_EXPORT TextureBuffer : public Texture
{
    Q_OBJECT

public:
    explicit TextureBuffer(QObject* parent = nullptr);
    ~TextureBuffer() override;

    // Replaces the contents with `texels` texels of four floats each; false (with a warning)
    // without a current context, past the context's limit or on a GL error.
    bool upload(const float* data, int texels);
    // Replaces `texels` texels from `first` on, inside what the last upload() made.
    bool update(int first, const float* data, int texels);
    int texelCount() const { return _texels; }

private:
    unsigned int _buffer = 0;
    int _capacity = 0; // texels the buffer's storage holds
    int _texels = 0;
};

} // namespace Tavren::Vyx
