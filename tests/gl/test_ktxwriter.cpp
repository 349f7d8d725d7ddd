#include "core/memory.h"
#include "gl/glloader.h"
#include "gl/objects/texture.h"
#include "gl/textureio/ktxparser.h"
#include "gl/textureio/ktxwriter.h"
#include "gl/textureio/textureio.h"
#include "support/glhelpers.h"
#include "support/gltest.h"
#include "support/ktx2builder.h"
#include "support/messagecapture.h"
#include "support/testenvironment.h"

#include <QTemporaryDir>

#include <memory>
#include <vector>

using namespace Tavren::Vyx;

namespace {

struct Case { GLenum target, internalFormat, format, type; uint32_t vkFormat; int width, height, levels, bytesPerPixel; };

std::vector<char> readBack(GLenum imageTarget, int level, const Case& c, int w, int h)
{
    std::vector<char> bytes(size_t(((w * c.bytesPerPixel + 3) & ~3) * h));
    glPixelStorei(GL_PACK_ALIGNMENT, 4);
    glGetTexImage(imageTarget, level, c.format, c.type, bytes.data());
    return bytes;
}

// The KTX 2 equivalent of a KTX 1 file: the same images with their rows unpadded.
VyxTest::KTX2File fromKTX1(const KTXParser& parser, const Case& c)
{
    VyxTest::KTX2File file;
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

using KTXWriterTest = VyxTest::GLTest;

} // namespace

// What the writer saves holds every level and face as GL holds them and loads back; its KTX 2
// equivalent, plain or supercompressed, loads the same with the file's levels and format.
TEST_F(KTXWriterTest, FilesHoldEveryLevelAndLoadBack)
{
    QTemporaryDir dir;
    // RGB8 rows of 15 bytes need padding; the float cases carry mip levels.
    for (const Case& c : {Case{GL_TEXTURE_2D, GL_RGB8, GL_RGB, GL_UNSIGNED_BYTE, 23, 5, 3, 1, 3},
                          Case{GL_TEXTURE_2D, GL_RGBA32F, GL_RGBA, GL_FLOAT, 109, 8, 4, 3, 16},
                          Case{GL_TEXTURE_2D, GL_RG16F, GL_RG, GL_HALF_FLOAT, 83, 6, 6, 1, 4},
                          Case{GL_TEXTURE_CUBE_MAP, GL_RGBA16F, GL_RGBA, GL_HALF_FLOAT, 97, 4, 4, 3, 8},
                          Case{GL_TEXTURE_CUBE_MAP, GL_SRGB8_ALPHA8, GL_RGBA, GL_UNSIGNED_BYTE, 43, 4, 4, 1, 4}}) {
        SCOPED_TRACE(c.vkFormat);
        Texture texture;
        texture.setTarget(c.target);
        texture.bind();
        glPixelStorei(GL_UNPACK_ALIGNMENT, 4);
        const int faces = c.target == GL_TEXTURE_CUBE_MAP ? 6 : 1;
        std::vector<std::vector<char>> expected; // per level and face, as GL reads them back
        for (int level = 0; level < c.levels; ++level) {
            const int w = qMax(1, c.width >> level), h = qMax(1, c.height >> level);
            for (int face = 0; face < faces; ++face) {
                std::vector<unsigned char> bytes(size_t(((w * c.bytesPerPixel + 3) & ~3) * h));
                for (size_t i = 0; i < bytes.size(); ++i)
                    bytes[i] = c.type == GL_UNSIGNED_BYTE ? (i * 7 + face * 31 + level) % 251
                                                          : ((i & 1) ? 0x3c : (i * 13 + face + level * 5) % 256);
                const GLenum imageTarget = faces == 6 ? GL_TEXTURE_CUBE_MAP_POSITIVE_X + face : c.target;
                glTexImage2D(imageTarget, level, GLint(c.internalFormat), w, h, 0, c.format, c.type, bytes.data());
                expected.push_back(readBack(imageTarget, level, c, w, h));
            }
        }
        glTexParameteri(c.target, GL_TEXTURE_MAX_LEVEL, c.levels - 1);
        texture.unbind();

        const QString path = dir.filePath(QStringLiteral("t%1.ktx").arg(c.internalFormat));
        ASSERT_TRUE(SaveTextureAsKTX(&texture, path));
        MemoryMappedFile file(path);
        KTXParser parser(&file, path);
        ASSERT_TRUE(parser.valid() && parser.parseImages());
        EXPECT_EQ(parser.header().glInternalFormat, c.internalFormat);
        // Stored as GL holds them, as the orientation key tells other loaders: a 2D file's first
        // row is the picture's bottom, a cube face's the top of the face seen from inside.
        EXPECT_EQ(parser.orientation().t, faces == 6 ? 'd' : 'u');
        ASSERT_EQ(parser.images().size(), expected.size());
        for (size_t i = 0; i < expected.size(); ++i) {
            const KTXImage& image = parser.images()[i];
            EXPECT_EQ(std::vector<char>(image.data, image.data + image.size), expected[i])
                << std::hex << c.internalFormat << " image " << i;
        }

        std::unique_ptr<Texture> loaded(LoadTextureFromFile(path, TextureFileInfo()));
        ASSERT_TRUE(loaded);
        loaded->bind();
        for (int face = 0; face < faces; ++face)
            EXPECT_EQ(readBack(faces == 6 ? GL_TEXTURE_CUBE_MAP_POSITIVE_X + face : c.target, 0, c, c.width, c.height),
                      expected[size_t(face)]);
        loaded->unbind();

        VyxTest::KTX2File ktx2 = fromKTX1(parser, c);
        for (uint32_t scheme : {0u, 2u, 3u}) {
            SCOPED_TRACE(scheme);
            ktx2.supercompression = scheme;
            QByteArray bytes = ktx2.bytes();
            std::unique_ptr<Texture> viaKTX2(LoadTextureFromMemory(VyxTest::bytes(bytes), uint64_t(bytes.size()), {}));
            ASSERT_TRUE(viaKTX2);
            EXPECT_EQ(viaKTX2->target(), c.target);
            EXPECT_EQ(VyxTest::levelParameter(viaKTX2.get(), GL_TEXTURE_INTERNAL_FORMAT, faces == 6 ? GL_TEXTURE_CUBE_MAP_POSITIVE_X : 0),
                      int(c.internalFormat));
            viaKTX2->bind();
            for (int level = 0, i = 0; level < c.levels; ++level)
                for (int face = 0; face < faces; ++face, ++i)
                    EXPECT_EQ(readBack(faces == 6 ? GL_TEXTURE_CUBE_MAP_POSITIVE_X + face : c.target, level, c,
                                       qMax(1, c.width >> level), qMax(1, c.height >> level)),
                              expected[size_t(i)]) << "level " << level << " face " << face;
            viaKTX2->unbind();
        }
    }
}

TEST_F(KTXWriterTest, UnwritableTexturesAndFilesFail)
{
    Texture volume, empty;
    volume.create3D(GL_TEXTURE_3D, GL_RGBA8, 2, 2, 2);
    empty.setTarget(GL_TEXTURE_2D);
    Texture fine;
    fine.create2D(GL_TEXTURE_2D, GL_RGBA8, 2, 2);
    for (Texture* bad : {static_cast<Texture*>(nullptr), &volume, &empty}) {
        VyxTest::MessageCapture capture;
        EXPECT_TRUE(TextureToKTX(bad).isEmpty());
        EXPECT_EQ(capture.texts(QtCriticalMsg).size(), 1);
    }
    VyxTest::MessageCapture capture;
    EXPECT_FALSE(SaveTextureAsKTX(&fine, QStringLiteral("/nonexistent-folder/x.ktx")));
    EXPECT_EQ(capture.texts(QtCriticalMsg).size(), 1);

    // A level that does not halve the one before ends what a file can hold.
    fine.bind();
    glTexImage2D(GL_TEXTURE_2D, 1, GL_RGBA8, 3, 1, 0, GL_RGBA, GL_UNSIGNED_BYTE, nullptr);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MAX_LEVEL, 1);
    fine.unbind();
    QByteArray bytes = TextureToKTX(&fine);
    RawMemory memory(reinterpret_cast<unsigned char*>(bytes.data()), uint64_t(bytes.size()));
    KTXParser parser(&memory);
    EXPECT_TRUE(parser.parseImages());
    EXPECT_EQ(parser.mipmapLevels(), 1u);
}
