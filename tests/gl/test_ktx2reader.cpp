#include "core/memory.h"
#include "gl/glloader.h"
#include "gl/objects/texture.h"
#include "gl/textureio/ktx2parser.h"
#include "gl/textureio/ktx2reader.h"
#include "gl/textureio/ktxparser.h"
#include "gl/textureio/ktxreader.h"
#include "gl/textureio/ktxwriter.h"
#include "gl/textureio/textureio.h"
#include "support/glhelpers.h"
#include "support/gltest.h"
#include "support/ktx2builder.h"
#include "support/messagecapture.h"
#include "support/testenvironment.h"

#include <memory>
#include <vector>

using namespace Tavren::Vyx;
using VyxTest::KTX2File;
using VyxTest::levelParameter;
using VyxTest::MessageCapture;
using VyxTest::texImage;

namespace {

using KTX2ReaderTest = VyxTest::GLTest;

struct Case { GLenum target, internalFormat, format, type; uint32_t vkFormat; int size, levels, bytesPerPixel; };

// A texture of the case's shape whose every face holds a different pattern. Cube-map levels
// hold their own; 2D levels are generated, as the KTX 1 reader makes them again before its
// flip pass samples them.
std::unique_ptr<Texture> patterned(const Case& c)
{
    auto texture = std::make_unique<Texture>();
    texture->setTarget(c.target);
    texture->bind();
    glPixelStorei(GL_UNPACK_ALIGNMENT, 1);
    const int faces = c.target == GL_TEXTURE_CUBE_MAP ? 6 : 1;
    for (int level = 0; level < (faces == 6 ? c.levels : 1); ++level) {
        const int w = std::max(1, c.size >> level), h = std::max(1, (c.size - 2) >> level);
        for (int face = 0; face < faces; ++face) {
            std::vector<unsigned char> bytes(size_t(w * (faces == 6 ? w : h) * c.bytesPerPixel));
            for (size_t i = 0; i < bytes.size(); ++i)
                bytes[i] = c.type == GL_UNSIGNED_BYTE ? (i * 7 + face * 31 + level) % 251 : ((i & 1) ? 0x3c : i * 13 + face);
            const GLenum imageTarget = faces == 6 ? GL_TEXTURE_CUBE_MAP_POSITIVE_X + face : c.target;
            glTexImage2D(imageTarget, level, GLint(c.internalFormat), w, faces == 6 ? w : h, 0, c.format, c.type,
                         bytes.data());
        }
    }
    glTexParameteri(c.target, GL_TEXTURE_MAX_LEVEL, c.levels - 1);
    if (faces == 1)
        glGenerateMipmap(c.target);
    texture->unbind();
    return texture;
}

// The KTX 2 equivalent of a KTX 1 file: the same images with their rows unpadded.
KTX2File fromKTX1(QByteArray& ktx1, const Case& c)
{
    RawMemory memory(VyxTest::bytes(ktx1), uint64_t(ktx1.size()));
    KTXParser parser(&memory);
    EXPECT_TRUE(parser.parseImages());
    KTX2File file;
    file.vkFormat = c.vkFormat;
    file.width = parser.width(), file.height = parser.height(), file.faces = parser.cubeFaces();
    file.levelCount = parser.mipmapLevels();
    file.blockBytes = uint32_t(c.bytesPerPixel);
    file.levels.resize(file.levelCount);
    const KTXOrientation orientation = parser.orientation();
    if (orientation.valid)
        file.keyValues.emplace_back("KTXorientation", QByteArray(1, orientation.s) + orientation.t + '\0');
    for (const KTXImage& image : parser.images()) {
        const int row = int(image.width) * c.bytesPerPixel, stride = (row + 3) & ~3;
        for (unsigned int y = 0; y < image.height; ++y)
            file.levels[image.level] += QByteArray(reinterpret_cast<const char*>(image.data) + y * stride, row);
    }
    return file;
}

Texture* load(QByteArray bytes, const TextureFileInfo& info = {})
{
    return LoadTextureFromMemory(VyxTest::bytes(bytes), uint64_t(bytes.size()), info);
}

} // namespace

// What the KTX writer saves loads the same through KTX 1 and through KTX 2, plain or supercompressed.
TEST_F(KTX2ReaderTest, LoadsAsTheKTX1EquivalentDoes)
{
    const Case cases[] = {
        {GL_TEXTURE_2D, GL_RGB8, GL_RGB, GL_UNSIGNED_BYTE, 23, 5, 1, 3},
        {GL_TEXTURE_2D, GL_RGBA32F, GL_RGBA, GL_FLOAT, 109, 8, 3, 16},
        {GL_TEXTURE_2D, GL_RG16F, GL_RG, GL_HALF_FLOAT, 83, 6, 1, 4},
        {GL_TEXTURE_CUBE_MAP, GL_RGBA16F, GL_RGBA, GL_HALF_FLOAT, 97, 4, 3, 8},
        {GL_TEXTURE_CUBE_MAP, GL_SRGB8_ALPHA8, GL_RGBA, GL_UNSIGNED_BYTE, 43, 4, 1, 4},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.vkFormat);
        std::unique_ptr<Texture> source = patterned(c);
        QByteArray ktx1 = TextureToKTX(source.get());
        ASSERT_FALSE(ktx1.isEmpty());
        std::unique_ptr<Texture> viaKTX1(load(ktx1));
        ASSERT_TRUE(viaKTX1);
        KTX2File file = fromKTX1(ktx1, c);
        const int faces = c.target == GL_TEXTURE_CUBE_MAP ? 6 : 1;
        const size_t count = file.levels[0].size() / size_t(faces);
        for (uint32_t scheme : {0u, 2u, 3u}) {
            SCOPED_TRACE(scheme);
            file.supercompression = scheme;
            std::unique_ptr<Texture> viaKTX2(load(file.bytes()));
            ASSERT_TRUE(viaKTX2);
            EXPECT_EQ(viaKTX2->target(), c.target);
            for (int face = 0; face < faces; ++face) {
                const GLenum target = faces == 6 ? GL_TEXTURE_CUBE_MAP_POSITIVE_X + face : 0;
                EXPECT_EQ(texImage<unsigned char>(viaKTX2.get(), c.format, c.type, count, target),
                          texImage<unsigned char>(viaKTX1.get(), c.format, c.type, count, target));
            }
            // Cube maps keep the file's levels and sRGB format; the KTX 1 reader regenerates levels.
            if (faces == 6) {
                EXPECT_EQ(levelParameter(viaKTX2.get(), GL_TEXTURE_INTERNAL_FORMAT, GL_TEXTURE_CUBE_MAP_POSITIVE_X),
                          int(c.internalFormat));
                if (c.levels > 1)
                    EXPECT_EQ(texImage<unsigned char>(viaKTX2.get(), c.format, c.type, count / 4,
                                                      GL_TEXTURE_CUBE_MAP_NEGATIVE_Z, 1),
                              texImage<unsigned char>(source.get(), c.format, c.type, count / 4,
                                                      GL_TEXTURE_CUBE_MAP_NEGATIVE_Z, 1));
            }
        }
    }
}

// Shapes KTX 1 refuses or has no test for: arrays, volumes, block formats, rows kept as stored.
TEST_F(KTX2ReaderTest, ArraysVolumesAndBlocksLoad)
{
    KTX2File array;
    array.width = 3, array.height = 2, array.layers = 4;
    array.levels = {QByteArray(3 * 2 * 4 * 4, '\0')};
    for (int i = 0; i < array.levels[0].size(); ++i)
        array.levels[0][i] = char(i);
    KTX2File volume = array;
    volume.layers = 0, volume.depth = 4, volume.supercompression = 2;
    // The KTX 1 test file's DXT1 blocks as vkFormat BC1_RGB_UNORM_BLOCK.
    QByteArray bc1File = VyxTest::readTestData("ktx/sevmeyer_format_bc1_rgb_unorm.ktx");
    RawMemory memory(VyxTest::bytes(bc1File), uint64_t(bc1File.size()));
    KTXParser bc1(&memory);
    ASSERT_TRUE(bc1.parseImages());
    KTX2File blocks;
    blocks.vkFormat = 131, blocks.width = bc1.width(), blocks.height = bc1.height();
    blocks.colorModel = 128, blocks.blockWidth = blocks.blockHeight = 4, blocks.blockBytes = 8;
    blocks.levels = {QByteArray(reinterpret_cast<const char*>(bc1.images()[0].data), int(bc1.images()[0].size))};

    for (const KTX2File* file : {&array, &volume}) {
        std::unique_ptr<Texture> texture(load(file->bytes()));
        ASSERT_TRUE(texture);
        EXPECT_EQ(texture->target(), GLenum(file == &array ? GL_TEXTURE_2D_ARRAY : GL_TEXTURE_3D));
        EXPECT_EQ(levelParameter(texture.get(), GL_TEXTURE_DEPTH), 4);
        const std::vector<unsigned char> texels = texImage<unsigned char>(texture.get(), GL_RGBA, GL_UNSIGNED_BYTE, 96);
        EXPECT_EQ(QByteArray(reinterpret_cast<const char*>(texels.data()), 96), file->levels[0]);
    }
    std::unique_ptr<Texture> viaKTX1(LoadTextureFromFile(VyxTest::testDataPath("ktx/sevmeyer_format_bc1_rgb_unorm.ktx"), {}));
    std::unique_ptr<Texture> viaKTX2(load(blocks.bytes()));
    ASSERT_TRUE(viaKTX1 && viaKTX2);
    const size_t count = size_t(bc1.width() * bc1.height() * 4);
    EXPECT_EQ(texImage<unsigned char>(viaKTX2.get(), GL_RGBA, GL_UNSIGNED_BYTE, count),
              texImage<unsigned char>(viaKTX1.get(), GL_RGBA, GL_UNSIGNED_BYTE, count));

    // Top row first on request (glTF's way): the stored rows come back in the file's order.
    KTX2File picture = array;
    picture.layers = 0;
    picture.levels[0].truncate(3 * 2 * 4);
    TextureFileInfo info;
    info.topRowFirst = true;
    std::unique_ptr<Texture> kept(load(picture.bytes(), info));
    ASSERT_TRUE(kept);
    const std::vector<unsigned char> rows = texImage<unsigned char>(kept.get(), GL_RGBA, GL_UNSIGNED_BYTE, 24);
    EXPECT_EQ(QByteArray(reinterpret_cast<const char*>(rows.data()), 24), picture.levels[0]);
}

// Refused loads name the reason once; a KTX 2 file is not mistaken for a broken KTX 1 one.
TEST_F(KTX2ReaderTest, RefusedFilesSayWhy)
{
    const QString basis = VyxTest::testDataPath("ktx/invalid/loadersgl_test_etc1s_KTX2-not-KTX1.ktx2");
    MessageCapture capture;
    EXPECT_EQ(LoadTextureFromFile(basis, {}), nullptr);
    std::unique_ptr<TextureLoader> ktx2(IdentifyTextureFromFile(basis));
    EXPECT_NE(dynamic_cast<KTX2Reader*>(ktx2.get()), nullptr);
    EXPECT_TRUE(ktx2->valid() && ktx2->isCompressed());
    KTXReader ktx1(new MemoryMappedFile(basis), "b");
    EXPECT_FALSE(ktx1.valid());
    EXPECT_EQ(ktx1.load({}), nullptr);
    KTX2File cubeArray;
    cubeArray.faces = 6, cubeArray.layers = 2;
    cubeArray.levels = {QByteArray(4 * 4 * 4 * 12, '\0')};
    EXPECT_EQ(load(cubeArray.bytes()), nullptr);
    const QStringList warnings = capture.bodies(QtWarningMsg);
    ASSERT_EQ(warnings.size(), 2);
    EXPECT_TRUE(warnings[0].contains("holds a Basis Universal payload (ETC1S/BasisLZ), which is not supported"));
    EXPECT_EQ(warnings[1], "KTX 2 file '<unnamed>' is a cube-map array, which is not supported");
    EXPECT_TRUE(capture.texts(QtCriticalMsg).join('\n').contains("'b' is a KTX 2 file, which KTX2Reader reads"));
}
