#include "gl/textureio/ktxparser.h"

#include "core/memory.h"
#include "support/messagecapture.h"
#include "support/testenvironment.h"

#include <QDir>

#include <gtest/gtest.h>

#include <vector>

using namespace Tavren::Vyx;
using VyxTest::MessageCapture;

namespace {

QByteArray word(uint32_t v)
{
    return QByteArray(reinterpret_cast<const char*>(&v), 4);
}

// A little-endian KTX file: the header words after the identifier, then key/value block and data.
QByteArray ktx(std::vector<uint32_t> fields, const QByteArray& keyValues, const QByteArray& images)
{
    QByteArray data(reinterpret_cast<const char*>(KTXParser::identifier), 12);
    data += word(0x04030201);
    fields.push_back(uint32_t(keyValues.size()));
    for (uint32_t f : fields)
        data += word(f);
    return data + keyValues + images;
}

// glType, glTypeSize, glFormat, glInternalFormat, glBaseInternalFormat, w, h, d, arrays, faces, levels
const std::vector<uint32_t> r8x4x4 = {0x1401, 1, 0x1903, 0x8229, 0x1903, 4, 4, 0, 0, 1, 1};
const std::vector<uint32_t> dxt1x8x8 = {0, 1, 0, 0x83F1, 0x1908, 8, 8, 0, 0, 1, 2};

struct Parsed
{
    explicit Parsed(QByteArray bytes, const QString& name = QString())
        : data(std::move(bytes)), memory(VyxTest::bytes(data), uint64_t(data.size())), parser(&memory, name)
    {
    }
    QByteArray data;
    RawMemory memory;
    KTXParser parser;
};

} // namespace

// Every valid file walks to its end: the images found cover the file exactly.
TEST(KTXParser, ValidFilesWalkToTheirEnd)
{
    const QStringList files = QDir(VyxTest::testDataPath("ktx")).entryList({"*.ktx"}, QDir::Files);
    ASSERT_GT(files.size(), 40);
    for (const QString& file : files) {
        SCOPED_TRACE(file.toStdString());
        MemoryMappedFile memory(VyxTest::testDataPath("ktx/" + file));
        KTXParser parser(&memory, file);
        ASSERT_TRUE(parser.headerReadable());
        if (parser.header().bytesOfKeyValueData == 0)
            EXPECT_TRUE(parser.valid());
        if (file.startsWith("sevmeyer_endian_big") || file == "sevmeyer_size_0.ktx") {
            // Image sizes of opposite-endian files are read as they stand and do not fit.
            MessageCapture capture;
            EXPECT_FALSE(parser.parseImages());
            EXPECT_EQ(capture.bodies(QtWarningMsg).size(), 1);
            EXPECT_EQ(parser.byteSwapped(), file.startsWith("sevmeyer_endian_big"));
            continue;
        }
        ASSERT_TRUE(parser.parseImages());
        const KTXImage& last = parser.images().back();
        EXPECT_EQ(last.offset + last.size + (4 - last.size % 4) % 4, memory.size());
        const unsigned int levels = std::max(1u, parser.mipmapLevels());
        const unsigned int perLevel = parser.isCubeMapTexture() && !parser.isArrayTexture() ? 6 : 1;
        EXPECT_EQ(parser.images().size(), levels * perLevel);
    }
}

TEST(KTXParser, DescribesLevelsFacesAndLayers)
{
    Parsed cube(VyxTest::readTestData("ktx/ktxsw_cubemap_yokohama_astc_8x8_unorm.ktx"));
    ASSERT_TRUE(cube.parser.parseImages());
    EXPECT_TRUE(cube.parser.isCompressed());
    const KTXImage& negativeZ = cube.parser.images()[5];
    EXPECT_EQ(std::vector<uint64_t>({negativeZ.face, negativeZ.size, negativeZ.offset}),
              std::vector<uint64_t>({5u, 65536u, 64 + 32 + 4 + 5 * 65536u}));
    EXPECT_EQ(cube.parser.images().back().level, 9u);
    EXPECT_EQ(cube.parser.images().back().width, 1u);

    Parsed volume(VyxTest::readTestData("ktx/sevmeyer_size_3d_13x23x7.ktx"));
    ASSERT_TRUE(volume.parser.parseImages());
    EXPECT_EQ(volume.parser.images()[1].depth, 3u);
    EXPECT_EQ(volume.parser.images()[4].depth, 1u);
    Parsed array(VyxTest::readTestData("ktx/ktxsw_texturearray_astc_8x8_unorm.ktx"));
    ASSERT_TRUE(array.parser.parseImages());
    EXPECT_TRUE(array.parser.isArrayTexture());
    EXPECT_EQ(array.parser.images()[0].layers, 7u);

    // Levels: 0 counts as one level that has mipmaps; an imageSize of 5 advances 8 bytes.
    Parsed amg(VyxTest::readTestData("ktx/ktxsw_rgb-amg-reference.ktx"));
    ASSERT_TRUE(amg.parser.parseImages());
    EXPECT_TRUE(amg.parser.hasMipMaps());
    EXPECT_EQ(amg.parser.images().size(), 1u);
    Parsed padded(ktx(dxt1x8x8, {}, word(5) + QByteArray(8, 'x') + word(8) + QByteArray(8, 'y')));
    ASSERT_TRUE(padded.parser.parseImages());
    EXPECT_EQ(padded.parser.images()[1].offset, 64u + 4 + 8 + 4);
    EXPECT_EQ(padded.parser.images()[1].width, 4u);
}

TEST(KTXParser, ByteOrderIsFixedInPlace)
{
    Parsed little(VyxTest::readTestData("ktx/sevmeyer_format_raw_r32_sfloat.ktx"));
    Parsed big(VyxTest::readTestData("ktx/sevmeyer_endian_big_type_float_r32.ktx"));
    ASSERT_TRUE(big.parser.valid());
    EXPECT_TRUE(big.parser.byteSwapped());
    EXPECT_EQ(0, memcmp(&big.parser.header(), &little.parser.header(), 64));
    EXPECT_EQ(0, memcmp(big.data.constData(), little.data.constData(), 64));

    MessageCapture capture;
    EXPECT_FALSE(Parsed(VyxTest::readTestData("ktx/invalid/sevmeyer_endianness_invalid.ktx")).parser.valid());
    EXPECT_FALSE(Parsed(VyxTest::readTestData("ktx/invalid/sevmeyer_identifier_invalid.ktx")).parser.valid());
    EXPECT_TRUE(capture.texts().isEmpty());
}

TEST(KTXParser, KeyValueEntries)
{
    // Entries are stepped without their padding: the first is read right, the next count is
    // taken from the padding and reaches past the block, so the flag stays true.
    Parsed utf8(VyxTest::readTestData("ktx/sevmeyer_metadata_custom_utf8.ktx"));
    KTXParser& parser = utf8.parser;
    EXPECT_TRUE(parser.valid());
    ASSERT_EQ(parser.numMetadataEntries(), 2u);
    EXPECT_EQ(parser.key(0), "utf8Nul");
    EXPECT_EQ(parser.valueBytes(0), QByteArray("Hello,", 7));
    EXPECT_EQ(parser.rawValue(0), parser.rawKey(0) + 7); // the key's own NUL
    EXPECT_EQ(parser.entrySize(1), 4096u);
    EXPECT_EQ(parser.rawKey(2), nullptr);

    auto orientation = [](const char* file) { return Parsed(VyxTest::readTestData(file)).parser.orientation(); };
    const KTXOrientation ruo = orientation("ktx/sevmeyer_metadata_ktxorient_ruo.ktx");
    EXPECT_TRUE(ruo.valid);
    EXPECT_EQ(QByteArray() + ruo.s + ruo.t + ruo.r, "ruo");
    EXPECT_EQ(orientation("ktx/sascha_dummy_bc2_mips.ktx").t, 'd');
    EXPECT_FALSE(orientation("ktx/sevmeyer_metadata_edgecase_key_unofficial.ktx").present);
    const KTXOrientation swappedAxes = orientation("ktx/invalid/sevmeyer_metadata_ktxorient_invalid.ktx");
    EXPECT_TRUE(swappedAxes.present);
    EXPECT_FALSE(swappedAxes.valid);

    // One entry of 8 bytes in a block of 12 ends exactly: not valid. An entry reaching past the
    // block (but not the file) leaves it valid.
    const QByteArray entry = word(8) + QByteArray("key\0val\0", 8);
    const QByteArray pixels = word(16) + QByteArray(16, 'p');
    EXPECT_FALSE(Parsed(ktx(r8x4x4, entry, pixels)).parser.valid());
    Parsed over(ktx(r8x4x4, entry.left(8), pixels));
    EXPECT_TRUE(over.parser.valid());
    EXPECT_EQ(over.parser.numMetadataEntries(), 1u);
    // A count past the end of the file is cut at the file's end; a key without NUL reads as none.
    Parsed longEntry(ktx(r8x4x4, word(4096) + QByteArray(4, 'k'), {}));
    EXPECT_TRUE(longEntry.parser.valid());
    EXPECT_EQ(longEntry.parser.entrySize(0), 4u);
    EXPECT_EQ(longEntry.parser.rawKey(0), nullptr);
    EXPECT_EQ(longEntry.parser.rawValue(0), nullptr);
}

TEST(KTXParser, BrokenFilesAreReported)
{
    struct Case { const char* file; bool parsesHeader; const char* message; };
    const Case cases[] = {
        {"sevmeyer_eof_at_0bytes.ktx", false, "KTX file 'f' is shorter than its 64-byte header"},
        {"sevmeyer_eof_at_31bytes.ktx", false, "KTX file 'f' is shorter than its 64-byte header"},
        {"sevmeyer_size_2d_width_0.ktx", true, "KTX file 'f' has no usable size: 0 x 16 x 0 with 1 faces"},
        {"sevmeyer_size_3d_height_0.ktx", true, "KTX file 'f' has no usable size: 16 x 0 x 16 with 1 faces"},
        {"sevmeyer_endianness_reversed.ktx", true, "KTX file 'f' has 16777216 faces; 1 or 6 expected"},
        {"sevmeyer_imagesize_overflows_file.ktx", true, "KTX file 'f': level 0 face 0 needs 1024 bytes but only "
                                                        "512 remain"},
        {"sevmeyer_imagesize_underflows_format.ktx", true, "KTX file 'f': image size 256 of level 0 is below the "
                                                           "1024 bytes its 16 x 16 x 0 texels need"},
        {"sevmeyer_cubemap_face_underflow.ktx", true, "KTX file 'f': level 0 face 3 needs 256 bytes but only 0 "
                                                      "remain"},
        {"sevmeyer_mipmap_level_underflow.ktx", true, "KTX file 'f' ends before the image size of level 1"},
        {"sevmeyer_metadata_kvbytesize_overflow.ktx", true, ""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.file);
        MessageCapture capture;
        Parsed parsed(VyxTest::readTestData(QStringLiteral("ktx/invalid/") + c.file), "f");
        EXPECT_EQ(parsed.parser.headerReadable(), c.parsesHeader);
        if (c.parsesHeader)
            EXPECT_EQ(parsed.parser.parseImages(), QByteArray(c.message).isEmpty());
        EXPECT_EQ(capture.bodies(QtWarningMsg).join('|'), c.message);
    }

    // Block longer than the file, absurd sizes, too many levels.
    MessageCapture capture;
    std::vector<uint32_t> huge = r8x4x4;
    huge[5] = huge[6] = 70000;
    std::vector<uint32_t> levels = r8x4x4;
    levels[10] = 4;
    Parsed longBlock(ktx(r8x4x4, {}, {}).left(60) + word(100) + QByteArray(8, 0));
    Parsed absurd(ktx(huge, {}, word(16)));
    Parsed deep(ktx(levels, {}, word(16)));
    EXPECT_FALSE(longBlock.parser.headerReadable());
    EXPECT_FALSE(absurd.parser.parseImages());
    EXPECT_FALSE(deep.parser.parseImages());
    EXPECT_EQ(capture.bodies(QtWarningMsg),
              (QStringList{"KTX file '<unnamed>' has a key/value block of 100 bytes but only 8 bytes follow its header",
                           "KTX file '<unnamed>' is too large: 70000 x 70000 x 0 with 1 faces and 0 array elements",
                           "KTX file '<unnamed>' has 4 mipmap levels but a 4 texel side allows only 3"}));

    // Every other broken file parses or fails without reading outside the file.
    for (const QString& file : QDir(VyxTest::testDataPath("ktx/invalid")).entryList(QDir::Files)) {
        Parsed parsed(VyxTest::readTestData("ktx/invalid/" + file));
        if (parsed.parser.headerReadable())
            parsed.parser.parseImages();
        for (unsigned int i = 0; i < parsed.parser.numMetadataEntries(); ++i)
            parsed.parser.key(i), parsed.parser.valueBytes(i);
    }
}
