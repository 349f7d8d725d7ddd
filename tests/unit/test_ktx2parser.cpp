#include "gl/textureio/ktx2parser.h"

#include "core/memory.h"
#include "support/ktx2builder.h"
#include "support/messagecapture.h"
#include "support/testenvironment.h"

#include <gtest/gtest.h>

#include <functional>

using namespace Tavren::Vyx;
using VyxTest::KTX2File;
using VyxTest::MessageCapture;
using VyxTest::patchWord;

namespace {

struct Parsed
{
    explicit Parsed(QByteArray bytes, const QString& name = QStringLiteral("f"))
        : data(std::move(bytes)), memory(VyxTest::bytes(data), uint64_t(data.size())), parser(&memory, name)
    {
    }
    QByteArray data;
    RawMemory memory;
    KTX2Parser parser;
};

QByteArray pattern(int size, int seed)
{
    QByteArray bytes(size, '\0');
    for (int i = 0; i < size; ++i)
        bytes[i] = char((i * 7 + seed * 31) % 251);
    return bytes;
}

// An 8 x 4 RGBA8 picture with all four levels.
KTX2File mipmapped(uint32_t scheme)
{
    KTX2File file;
    file.supercompression = scheme;
    file.width = 8;
    file.levelCount = 4;
    for (uint32_t level = 0; level < file.levelCount; ++level)
        file.levels.push_back(pattern(int(std::max(8u >> level, 1u) * std::max(4u >> level, 1u) * 4), int(level)));
    file.keyValues = {{"KTXorientation", QByteArray("rd", 3)}, {"KTXwriter", "test"}};
    return file;
}

} // namespace

TEST(KTX2Parser, DescribesShapeFormatAndMetadata)
{
    Parsed parsed(mipmapped(KTX2Parser::None).bytes());
    const KTX2Parser& p = parsed.parser;
    EXPECT_EQ(p.target(), 0x0DE1u); // GL_TEXTURE_2D
    EXPECT_EQ(p.dataFormat().colorModel, KTX2DataFormat::ModelRGBSDA);
    EXPECT_EQ(p.dataFormat().transferFunction, KTX2DataFormat::TransferLinear);
    ASSERT_EQ(p.numMetadataEntries(), 2u);
    EXPECT_EQ(p.key(1), "KTXwriter");
    EXPECT_EQ(p.valueBytes(0), QByteArray("rd", 3));
    EXPECT_STREQ(p.rawValue(0), "rd");
    EXPECT_STREQ(p.rawValue(1), ""); // a value without its NUL is not read past its entry
    EXPECT_EQ(KTX2Parser::formatName(43), "VK_FORMAT_R8G8B8A8_SRGB");
    EXPECT_EQ(KTX2Parser::formatName(1000066013), "VK_FORMAT_ASTC_12x12_SFLOAT_BLOCK");
    EXPECT_EQ(KTX2Parser::formatName(5), "5");
    EXPECT_EQ(KTX2Parser::format(184)->internalFormat, 0x93DDu); // SRGB8_ALPHA8_ASTC_12x12
    EXPECT_EQ(KTX2Parser::format(146)->internalFormat, 0x8E8Du); // SRGB_ALPHA_BPTC_UNORM

    // Shapes: layers and depth decide the target; cube arrays and arrays of volumes have none.
    const struct { uint32_t height, depth, layers, faces, target; } shapes[] = {
        {0, 0, 0, 1, 0x0DE0}, {0, 0, 3, 1, 0x8C18}, {4, 0, 3, 1, 0x8C1A},
        {4, 0, 0, 6, 0x8513}, {4, 2, 0, 1, 0x806F}, {4, 0, 2, 6, 0}, {4, 2, 2, 1, 0}, {4, 0, 0, 2, 0},
    };
    for (const auto& s : shapes) {
        KTX2File file;
        file.height = s.height, file.depth = s.depth, file.layers = s.layers, file.faces = s.faces;
        file.levels = {pattern(int(4 * std::max(s.height, 1u) * std::max(s.depth, 1u) * std::max(s.layers, 1u) * s.faces * 4), 0)};
        Parsed shaped(file.bytes());
        EXPECT_EQ(shaped.parser.target(), s.target) << s.height << s.depth << s.layers << s.faces;
        MessageCapture capture;
        EXPECT_EQ(shaped.parser.parseImages(), s.target != 0);
    }
}

// Each broken file gives one clear message and a failure value.
TEST(KTX2Parser, MalformedFilesSayWhy)
{
    const KTX2File base = mipmapped(KTX2Parser::None);
    const QByteArray good = base.bytes();
    auto changed = [&](const std::function<void(QByteArray&)>& change) {
        QByteArray bytes = good;
        change(bytes);
        return bytes;
    };
    auto file = [](const std::function<void(KTX2File&)>& change, uint32_t scheme = 0) {
        KTX2File f = mipmapped(scheme);
        change(f);
        return f.bytes();
    };
    QByteArray basis = VyxTest::readTestData("ktx/invalid/loadersgl_test_etc1s_KTX2-not-KTX1.ktx2");
    const QByteArray zstd = file([](KTX2File&) {}, KTX2Parser::Zstandard);
    const struct { QByteArray bytes; bool valid; QString message; } cases[] = {
        {good.left(79), false, "KTX 2 file 'f' is shorter than its 80-byte header"},
        {good.left(120), false, "KTX 2 file 'f' ends inside its level index: 4 levels need 96 bytes, 40 remain"},
        {changed([](QByteArray& b) { patchWord(b, VyxTest::kLevelCount, 40); }), false,
         "KTX 2 file 'f' has 40 levels; at most 32 are possible"},
        {changed([](QByteArray& b) { patchWord(b, VyxTest::kLevelIndex + 8, 1u << 20, 8); }), false,
         QString("KTX 2 file 'f': level 0 (1048576 bytes at %1) runs past the end of the file (%2 bytes)")
             .arg(good.size() - 128).arg(good.size())},
        {changed([](QByteArray& b) { patchWord(b, VyxTest::kDfdLength, 1u << 30); }), false,
         QString("KTX 2 file 'f': its data format descriptor (1073741824 bytes at 176) runs past the end of the "
                 "file (%1 bytes)").arg(good.size())},
        {changed([](QByteArray& b) { patchWord(b, 176, 12); }), false,
         "KTX 2 file 'f' has a data format descriptor of 28 bytes that does not hold a basic block"},
        {changed([](QByteArray& b) { patchWord(b, 204, 400); }), false,
         "KTX 2 file 'f': key/value entry 0 runs past the end of its block"},
        {basis, true, "KTX 2 file 'f' holds a Basis Universal payload (ETC1S/BasisLZ), which is not supported: the "
                      "library has no Basis Universal transcoder"},
        {file([](KTX2File& f) { f.vkFormat = 0, f.colorModel = KTX2DataFormat::ModelUASTC; }), true,
         "KTX 2 file 'f' holds a Basis Universal payload (UASTC), which is not supported: the library has no Basis "
         "Universal transcoder"},
        {changed([](QByteArray& b) { patchWord(b, VyxTest::kScheme, 7); }), true,
         "KTX 2 file 'f' uses supercompression scheme 7, which is unknown"},
        {changed([](QByteArray& b) { patchWord(b, VyxTest::kVkFormat, 1000054000); }), true,
         "KTX 2 file 'f' has vkFormat 1000054000, which has no GL upload here"},
        {file([](KTX2File& f) { f.width = f.height = 70000; f.levelCount = 1; f.levels.resize(1); }), true,
         "KTX 2 file 'f' is too large: 70000 x 70000 x 0 with 0 layers and 1 faces"},
        {file([](KTX2File& f) { f.width = 4; }), true,
         "KTX 2 file 'f' has 4 levels but a 4 texel side allows only 3"},
        {file([](KTX2File& f) { f.levels[1].chop(4); }), true,
         "KTX 2 file 'f': level 1 holds 28 bytes (28 uncompressed) but its texels need 32"},
        {file([](KTX2File& f) { f.levels[2].chop(4); }, KTX2Parser::Zstandard), true,
         QString("KTX 2 file 'f': level 2 holds %1 bytes (4 uncompressed) but its texels need 8")
             .arg(Parsed(file([](KTX2File& f) { f.levels[2].chop(4); }, 2)).parser.levels()[2].byteLength)},
        // A stream shorter or longer than the level index says, and one that is not Zstandard at all.
        {changed([&](QByteArray& b) { b = zstd; patchWord(b, VyxTest::kLevelIndex + 16, 132, 8); }), true,
         "KTX 2 file 'f': level 0 holds"},
        {[&] {
             KTX2File f = mipmapped(KTX2Parser::Zstandard);
             f.levels[0].chop(8);
             QByteArray b = f.bytes();
             patchWord(b, VyxTest::kLevelIndex + 16, 128, 8);
             return b;
         }(), true, "KTX 2 file 'f': level 0 decompresses to 120 bytes, not its uncompressedByteLength of 128"},
        {changed([&](QByteArray& b) { b = zstd; patchWord(b, VyxTest::kLevelIndex + 8, 6, 8); }), true,
         "KTX 2 file 'f': the Zstandard stream of level 0 ends early"},
        {changed([&](QByteArray& b) { b = zstd; b[int(Parsed(zstd).parser.levels()[0].byteOffset)] = 'x'; }), true,
         "KTX 2 file 'f': level 0 is not a valid Zstandard stream: Unknown frame descriptor"},
        {changed([&](QByteArray& b) {
             b = file([](KTX2File&) {}, KTX2Parser::ZLIB);
             const int at = int(Parsed(b).parser.levels()[0].byteOffset) + 2;
             b[at] = char(b.at(at) ^ 0x55);
         }), true, "KTX 2 file 'f': level 0 is not a valid ZLIB stream"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.message.toStdString());
        MessageCapture capture;
        Parsed parsed(c.bytes);
        EXPECT_EQ(parsed.parser.valid(), c.valid);
        EXPECT_FALSE(parsed.parser.parseImages());
        EXPECT_TRUE(parsed.parser.images().empty());
        const QStringList warnings = capture.bodies(QtWarningMsg);
        ASSERT_FALSE(warnings.isEmpty());
        // Qt adds its own line for a broken ZLIB stream.
        EXPECT_TRUE(warnings.last().startsWith(c.message)) << warnings.join('\n').toStdString();
    }

    // Every truncation of a supercompressed file fails or parses without reading outside it.
    MessageCapture quiet;
    for (int size = 0; size < zstd.size(); size += 3) {
        Parsed cut(zstd.left(size));
        EXPECT_FALSE(cut.parser.parseImages());
    }
}
