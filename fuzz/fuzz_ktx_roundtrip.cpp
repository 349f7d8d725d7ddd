#include "core/memory.h"
#include "gl/glloader.h"
#include "gl/textureio/internal/ktxencoder.h"
#include "gl/textureio/ktxparser.h"

#include "quiet.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

using namespace Tavren::Vyx;

static void expect(bool condition, const char* what)
{
    if (condition)
        return;
    std::fprintf(stderr, "KTX round trip: %s\n", what);
    std::abort();
}

// Writes a file the way the KTX writer does and reads it back: the parser must accept what the
// writer wrote, with the same header and the same bytes in every image.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    silenceMessages();
    if (size < 6)
        return 0;
    static const uint32_t formats[] = {GL_RGBA8,  GL_SRGB8_ALPHA8, GL_RGB8,    GL_SRGB8,  GL_RG8,    GL_R8,
                                       GL_RGBA16F, GL_RGB16F,      GL_RG16F,   GL_R16F,   GL_RGBA32F, GL_RGB32F,
                                       GL_RG32F,   GL_R32F,        GL_RGBA16, GL_DEPTH_COMPONENT24};
    const uint32_t internalFormat = formats[data[0] % (sizeof formats / sizeof formats[0])];
    const bool cubeMap = data[1] & 1;
    const uint32_t width = data[2] % 40, height = cubeMap ? width : data[3] % 40, levels = data[4] % 8;
    const uint8_t* pixels = data + 5;
    const size_t pixelBytes = size - 5;

    KTXEncoder encoder(internalFormat, width, height, cubeMap, levels);
    if (!encoder.valid())
        return 0;
    std::vector<std::vector<char>> images;
    size_t next = 0;
    for (uint32_t level = 0; level < encoder.levels(); ++level)
        for (uint32_t face = 0; face < encoder.faces(); ++face) {
            std::vector<char> image(encoder.imageSize(level));
            for (char& byte : image)
                byte = char(pixels[next++ % pixelBytes]);
            encoder.addImage(image.data());
            images.push_back(std::move(image));
        }
    QByteArray file = encoder.bytes();
    expect(!file.isEmpty(), "a valid encoder wrote no file");

    RawMemory memory(reinterpret_cast<unsigned char*>(file.data()), uint64_t(file.size()));
    KTXParser parser(&memory);
    expect(parser.valid() && parser.parseImages(), "the parser refused the file");
    expect(parser.images().size() == images.size(), "image count differs");
    const KTXHeader& h = parser.header();
    if (h.glInternalFormat != internalFormat || h.glFormat != encoder.format() || h.glType != encoder.type() ||
        parser.width() != width || parser.height() != height || parser.mipmapLevels() != levels ||
        parser.cubeFaces() != encoder.faces() || parser.target() != (cubeMap ? GL_TEXTURE_CUBE_MAP : GL_TEXTURE_2D))
        expect(false, "header differs");
    for (size_t i = 0; i < images.size(); ++i) {
        const KTXImage& image = parser.images()[i];
        const std::vector<char>& expected = images[i];
        if (image.size != expected.size() || image.level != i / encoder.faces() ||
            image.width != encoder.levelWidth(image.level) || image.height != encoder.levelHeight(image.level))
            expect(false, "image layout differs");
        expect(std::memcmp(image.data, expected.data(), expected.size()) == 0, "pixels differ");
    }
    // Stored as GL holds them, which the orientation key says.
    const KTXOrientation orientation = parser.orientation();
    expect(orientation.valid && orientation.s == 'r' && orientation.t == (cubeMap ? 'd' : 'u'), "orientation key");
    return 0;
}
