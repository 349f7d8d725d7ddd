#include "core/memory.h"
#include "gl/glloader.h"
#include "gl/objects/texture.h"
#include "gl/textureio/ktx2reader.h"
#include "gl/textureio/ktxparser.h"
#include "gl/textureio/ktxreader.h"
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

Texture* load(QByteArray bytes, const TextureFileInfo& info = {})
{
    return LoadTextureFromMemory(VyxTest::bytes(bytes), uint64_t(bytes.size()), info);
}

} // namespace

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
