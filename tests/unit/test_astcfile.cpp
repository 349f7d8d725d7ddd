#include "gl/textureio/astcfile.h"

#include "support/messagecapture.h"
#include "support/testenvironment.h"

#include <gtest/gtest.h>

#include <vector>

using namespace Tavren::Vyx;
using VyxTest::bytes;
using VyxTest::MessageCapture;

namespace {

QByteArray astc(unsigned bx, unsigned by, unsigned bz, uint32_t x, uint32_t y, uint32_t z, int blocks)
{
    QByteArray data = QByteArray::fromHex("13ABA15C");
    data += char(bx);
    data += char(by);
    data += char(bz);
    for (uint32_t v : {x, y, z}) {
        data += char(v & 0xFF);
        data += char((v >> 8) & 0xFF);
        data += char(v >> 16);
    }
    return data + QByteArray(blocks * 16, '\0');
}

} // namespace

// Each valid file decodes to what the reference encoder's own decoder produces.
TEST(ASTCFile, FilesMatchReferenceDecoder)
{
    struct Case { const char* file; unsigned int blockWidth, blockHeight, width, height, glFormat; bool hdr; };
    const Case cases[] = {
        {"astcenc_LDR-A-1x1.astc", 6, 6, 1, 1, 0x93B4, false},
        {"astcenc_Tiles_ldr.astc", 4, 4, 8, 8, 0x93B0, false},
        {"astcenc_Tiles_hdr.astc", 4, 4, 8, 8, 0x93B0, false},
        {"imagesize_test_4x4_690x298.astc", 4, 4, 690, 298, 0x93B0, false},
        {"tacent_ASTC10X6_LDR.astc", 10, 6, 1280, 720, 0x93B9, false},
        {"tacent_ASTC12X10_HDR.astc", 12, 10, 644, 874, 0x93BC, true},
        {"tacent_ASTC12X12_LDR.astc", 12, 12, 1280, 720, 0x93BD, false},
    };
    bool compared = false;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.file);
        const QByteArray data = VyxTest::readTestData(QStringLiteral("astc/") + c.file);
        ASTCFile file(bytes(data), data.size(), c.file);
        ASSERT_TRUE(file.valid());
        EXPECT_EQ(std::vector<unsigned>({file.blockWidth(), file.blockHeight(), file.width(), file.height()}),
                  std::vector<unsigned>({c.blockWidth, c.blockHeight, c.width, c.height}));
        EXPECT_EQ(file.glInternalFormat(), c.glFormat);
        EXPECT_EQ(file.glInternalFormat(true), c.glFormat + 0x20);
        EXPECT_EQ(file.hasHDRBlocks(), c.hdr);
        std::vector<unsigned char> rgba(size_t(c.width) * c.height * 4);
        ASSERT_TRUE(file.decodeRGBA8(rgba.data()));
        const std::vector<unsigned char> reference =
            c.hdr ? std::vector<unsigned char>() : VyxTest::referenceASTCDecode(VyxTest::testDataPath(QStringLiteral("astc/") + c.file));
        compared |= !reference.empty();
        EXPECT_TRUE(reference.empty() || rgba == reference);
    }
    if (!compared)
        GTEST_SKIP() << "astcenc is not installed; decoded texels were not compared";
}

TEST(ASTCFile, BrokenFilesAreReported)
{
    MessageCapture capture;
    const char* files[] = {"astcenc_negative_block_size.astc", "astcenc_negative_huge.astc",
                           "astcenc_negative_magic.astc", "astcenc_negative_overflow.astc",
                           "astcenc_negative_short.astc"};
    for (const char* file : files) {
        const QByteArray data = VyxTest::readTestData(QStringLiteral("astc/invalid/") + file);
        EXPECT_FALSE(ASTCFile(bytes(data), data.size(), "f").valid()) << file;
    }
    const QByteArray synthetic[] = {astc(4, 4, 4, 8, 8, 8, 8), astc(4, 4, 1, 0, 8, 1, 4), astc(4, 4, 1, 8, 8, 2, 8),
                                    astc(8, 8, 1, 17, 8, 1, 2), astc(4, 4, 1, 8, 8, 1, 4).left(15)};
    for (const QByteArray& data : synthetic)
        EXPECT_FALSE(ASTCFile(bytes(data), data.size(), "f").valid());
    EXPECT_EQ(capture.bodies(QtWarningMsg),
              (QStringList{"ASTC file 'f' has an invalid block footprint 5x6",
                           "ASTC file 'f' is too large: 16777215 x 16777215",
                           "ASTC file 'f' has no ASTC header",
                           "ASTC file 'f' has an invalid block footprint 1x1",
                           "ASTC file 'f' needs 1 blocks of data but holds 15 bytes after its header",
                           "ASTC file 'f' has 3D blocks of 4x4x4 texels; only 2D files are supported",
                           "ASTC file 'f' has no texels: 0 x 8 x 1",
                           "ASTC file 'f' holds 2 slices; only 2D files are supported",
                           "ASTC file 'f' needs 3 blocks of data but holds 32 bytes after its header",
                           "ASTC file 'f' has no ASTC header"}));
}
