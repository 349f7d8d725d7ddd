#pragma once

#include "core/vyxexport.h"
#include "gl/textureio/textureio.h"

#include <memory>

namespace Tavren::Vyx {

class HDRDecoder;

// Reads Radiance RGBE pictures into one GL_RGB32F 2D texture, the picture's bottom row first
// for the usual "-Y" files. Exposure and XYZE primaries are kept by the decoder, not applied.
class VYXGL_EXPORT HDRReader : public TextureLoader2DHelper
{
public:
    // Takes ownership of the memory.
    HDRReader(Memory* memory, const QString& name);
    ~HDRReader() override;
    HDRReader(const HDRReader&) = delete;
    HDRReader& operator=(const HDRReader&) = delete;

    bool valid() const override;
    unsigned int width() const override;
    unsigned int height() const override;
    Texture* load(const TextureFileInfo& info) override;

    const HDRDecoder& decoder() const { return *_decoder; }

private:
    // Declared first so it outlives _decoder, which gives its blocks back to it.
    std::unique_ptr<Memory> _memory;
    QString _name;
    std::unique_ptr<HDRDecoder> _decoder;
};

class VYXGL_EXPORT HDRRecogniser : public TextureRecogniser
{
public:
    TextureLoader* recognise(Memory* memory, const QString& name) const override;
};

} // namespace Tavren::Vyx
