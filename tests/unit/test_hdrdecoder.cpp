#include "gl/textureio/hdrdecoder.h"

#include "support/messagecapture.h"
#include "support/testenvironment.h"

#include <gtest/gtest.h>

#include <vector>

#define STB_IMAGE_STATIC
#define STB_IMAGE_IMPLEMENTATION
#define STBI_ONLY_HDR
#include <stb/stb_image.h>

using namespace Tavren::Vyx;
using VyxTest::bytes;
using VyxTest::MessageCapture;

namespace {

QByteArray picture(const char* resolution, const QByteArray& pixels, const char* header = "FORMAT=32-bit_rle_rgbe\n")
{
    return QByteArray("#?RADIANCE\n") + header + "\n" + resolution + "\n" + pixels;
}

// stb_image insists on a FORMAT line.
float* loadWithStb(QByteArray data, int* w, int* h)
{
    if (!data.contains("FORMAT="))
        data.insert(11, "FORMAT=32-bit_rle_rgbe\n");
    int n = 0;
    return stbi_loadf_from_memory(bytes(data), data.size(), w, h, &n, 3);
}

// Unregisters the aborting handler so a scanline overrun fails the decode instead.
void returningHandler() {}

} // namespace

// Every file decodes and its RGBE and float paths agree. Where stb_image can read it (all but
// old-style repeat markers) it matches exactly, in file row order; old-style markers repeat the
// pixel before them and leave none behind. Files without a signature are refused as they are.
TEST(HDRDecoder, FilesMatchIndependentDecoder)
{
    const std::pair<const char*, bool> files[] = {
        {"astcenc_tile_hdr_8x8.hdr", true}, {"commonsimg_body_wave_blender.hdr", true},
        {"imagers_overexposed_gradient.hdr", true}, {"imagers_rgbr4x4_flat.hdr", true},
        {"imagers_scale_flat_256x8.hdr", true}, {"imagesize_test_gamma_primaries.hdr", true},
        {"loadersgl_royal_esplanade_256_latlong.hdr", true}, {"loadersgl_simple-rle.hdr", true},
        {"radiance_mesh_cyl_padded-res.hdr", true}, {"radiance_mixtex_def_padded-res.hdr", true},
        {"radiance_pinterp_nested-header.hdr", true}, {"radiance_v_gradient_noformat.hdr", true},
        {"radiance_pinebark_flat_nosig.hdr", true}, {"imagers_old-rle.hdr", false},
        {"radiance_richgrove_oldrle_nosig.hdr", false}, {"radiance_shingle_mixed_nosig.hdr", false}};
    for (const auto& [file, stbReads] : files) {
        SCOPED_TRACE(file);
        QByteArray data = VyxTest::readTestData(QStringLiteral("hdr/") + file);
        if (!data.startsWith("#?RADIANCE\n")) {
            EXPECT_FALSE(HDRDecoder(bytes(data), data.size()).valid());
            data.prepend("#?RADIANCE\n");
        }
        HDRDecoder decoder(bytes(data), data.size(), file);
        ASSERT_TRUE(decoder.valid());
        const size_t pixels = size_t(decoder.width()) * decoder.height();
        std::vector<float> ours(pixels * 3, -1.0f), converted(pixels * 3);
        std::vector<unsigned char> rgbe(pixels * 4);
        ASSERT_TRUE(decoder.decodeFloat(ours.data(), HDRDecoder::RowOrder::File));
        ASSERT_TRUE(decoder.decodeRGBE(rgbe.data(), HDRDecoder::RowOrder::File));
        HDRDecoder::rgbeToFloat(rgbe.data(), converted.data(), pixels);
        EXPECT_EQ(converted, ours);
        for (size_t i = 0; !stbReads && i < rgbe.size(); i += 4)
            ASSERT_FALSE(rgbe[i] == 1 && rgbe[i + 1] == 1 && rgbe[i + 2] == 1) << "marker left at pixel " << i / 4;
        if (!stbReads)
            continue;
        int w = 0, h = 0;
        float* reference = loadWithStb(data, &w, &h);
        ASSERT_NE(reference, nullptr);
        ASSERT_EQ(std::make_pair(decoder.width(), decoder.height()), std::make_pair(uint32_t(w), uint32_t(h)));
        EXPECT_EQ(0, memcmp(ours.data(), reference, ours.size() * sizeof(float)));
        stbi_image_free(reference);
    }

    // Two markers combine: 2 + (1 << 8) repeats of the first pixel fill a 259-wide row.
    const QByteArray combined = picture("-Y 1 +X 259", QByteArray::fromHex("80404081" "01010102" "01010101"));
    HDRDecoder repeated(bytes(combined), combined.size());
    std::vector<float> row(259 * 3);
    ASSERT_TRUE(repeated.decodeFloat(row.data()));
    EXPECT_EQ(row[258 * 3 + 0], 1.0f);
    EXPECT_EQ(row[258 * 3 + 1], 0.5f);
}

TEST(HDRDecoder, HeaderAndRowOrder)
{
    // -Y 2 +X 3: the file's first row becomes the second row in GL order; +Y keeps the order.
    const QByteArray six = QByteArray::fromHex("80000081" "40000081" "00000000" "00800081" "00400081" "00000000");
    const QByteArray downData = picture("-Y 2 +X 3", six);
    HDRDecoder minusY(bytes(downData), downData.size());
    ASSERT_EQ(std::make_pair(minusY.width(), minusY.height()), std::make_pair(3u, 2u));
    float rgb[18];
    ASSERT_TRUE(minusY.decodeFloat(rgb));
    EXPECT_EQ(rgb[9], 1.0f); // (128, 0, 0, 129) -> red 1.0, now in row 1
    EXPECT_EQ(rgb[1], 1.0f);
    const QByteArray upData = picture("+Y 2 +X 3", six);
    HDRDecoder plusY(bytes(upData), upData.size());
    ASSERT_TRUE(plusY.decodeFloat(rgb));
    EXPECT_EQ(rgb[0], 1.0f);
    EXPECT_EQ(rgb[3], 0.5f);

    // The conversion rule: (128, 64, 0, 129) -> (1.0, 0.5, 0.0); exponent 0 is black.
    const unsigned char pixel[8] = {128, 64, 0, 129, 255, 255, 255, 0};
    HDRDecoder::rgbeToFloat(pixel, rgb, 2);
    EXPECT_EQ(rgb[0], 1.0f);
    EXPECT_EQ(rgb[1], 0.5f);
    EXPECT_EQ(rgb[2], 0.0f);
    EXPECT_EQ(rgb[3], 0.0f);

    // Exposures multiply and are kept, not applied; the format code follows the FORMAT line.
    const QByteArray exposed = picture("-Y 2 +X 3", six, "FORMAT=32-bit_rle_xyze\nEXPOSURE=2\nEXPOSURE= 0.5\n");
    HDRDecoder exposure(bytes(exposed), exposed.size());
    EXPECT_EQ(exposure.format(), 2);
    EXPECT_EQ(exposure.exposure(), 1.0f);
    ASSERT_TRUE(exposure.decodeFloat(rgb));
    EXPECT_EQ(rgb[9], 1.0f);

    // Header failures make the decoder invalid without a message.
    MessageCapture capture;
    const QByteArray invalid[] = {picture("-Y 4 -Y 4", six), picture("*Y 2 +X 3", six), picture("-Y 2 +Z 3", six),
                                  picture("-Y 2", six), picture("-Y 2 +X 3", six, "FORMAT=32-bit_rle_rgba\n"),
                                  picture("-Y 2 +X 3", six, "EXPOSURE=bright\n"),
                                  QByteArray("#?RADIANCE")};
    for (const QByteArray& data : invalid)
        EXPECT_FALSE(HDRDecoder(bytes(data), data.size()).valid()) << data.constData();
    const QByteArray nul = QByteArray("#?RADIANCE\n") + QByteArray("\0oops\n\n-Y 1 +X 1\n", 18) + "AAAA";
    EXPECT_FALSE(HDRDecoder(bytes(nul), nul.size()).valid());
    EXPECT_TRUE(capture.texts().isEmpty());
}

TEST(HDRDecoder, NewRunLengthScanlines)
{
    // Width 8: red = run 0x81 of 7 then literal 7 bytes, green/blue runs of 8, exponent run of 8.
    const QByteArray line = QByteArray::fromHex("02020008" "8107" "0701020304050607" "8800" "8800" "8881");
    const QByteArray data = picture("-Y 1 +X 8", line);
    HDRDecoder decoder(bytes(data), data.size());
    unsigned char rgbe[32];
    ASSERT_TRUE(decoder.decodeRGBE(rgbe));
    EXPECT_EQ(rgbe[0], 7);
    EXPECT_EQ(rgbe[4], 1);
    EXPECT_EQ(rgbe[28], 7);
    EXPECT_EQ(rgbe[31], 0x81);

    // A scanline of the wrong width is reported and left black; decoding goes on.
    MessageCapture capture;
    const QByteArray twoRows = picture("-Y 2 +X 8", QByteArray::fromHex("02020009") + line);
    HDRDecoder mismatch(bytes(twoRows), twoRows.size());
    std::vector<float> rgb(2 * 8 * 3, -1.0f);
    EXPECT_TRUE(mismatch.decodeFloat(rgb.data(), HDRDecoder::RowOrder::File));
    EXPECT_EQ(capture.bodies(QtWarningMsg), QStringList{"HDR format error: bad scanline width"});
    EXPECT_EQ(rgb[0], 0.0f);
    EXPECT_EQ(rgb[24], 7.0f / 128.0f);

    // A literal run past the scanline and data ending mid-scanline fail with a message.
    capture.clear();
    const QByteArray literal = picture("-Y 1 +X 8", QByteArray::fromHex("02020008" "8107" "0801020304050607"));
    EXPECT_FALSE(HDRDecoder(bytes(literal), literal.size()).decodeRGBE(rgbe));
    const QByteArray cut = picture("-Y 1 +X 8", line.left(12));
    EXPECT_FALSE(HDRDecoder(bytes(cut), cut.size()).decodeRGBE(rgbe));
    EXPECT_EQ(capture.bodies(QtWarningMsg),
              (QStringList{"Bad scanline: literal run starting at 1 ends at 9, but width is only 8",
                           "HDR data of '<unnamed>' ends in scanline 0 of 1"}));
}

TEST(HDRDecoder, RunPastScanlineAborts)
{
    const QByteArray data = picture("-Y 1 +X 8", QByteArray::fromHex("02020008" "8507" "8407"));
    HDRDecoder decoder(bytes(data), data.size());
    unsigned char rgbe[32];
    EXPECT_DEATH(decoder.decodeRGBE(rgbe), "Bad scanline: RLE run starting at 5 ends at 9, but width is only 8");

    // With a returning handler (as the fuzzers install) the decode fails instead.
    MessageCapture capture;
    HDRDecoder::setOverrunHandler(&returningHandler);
    EXPECT_FALSE(decoder.decodeRGBE(rgbe));
    HDRDecoder::setOverrunHandler(nullptr);
    EXPECT_EQ(capture.bodies(QtWarningMsg).size(), 1);
}

TEST(HDRDecoder, BrokenFiles)
{
    MessageCapture capture;
    const QByteArray truncated = VyxTest::readTestData("hdr/invalid/commonsimg_timeout_truncated.hdr");
    HDRDecoder cut(bytes(truncated), truncated.size(), "cut");
    ASSERT_TRUE(cut.valid());
    std::vector<float> rgb(size_t(cut.width()) * cut.height() * 3);
    EXPECT_FALSE(cut.decodeFloat(rgb.data()));
    EXPECT_TRUE(capture.bodies(QtWarningMsg).last().startsWith("HDR data of 'cut' ends in scanline "));

    capture.clear();
    const QByteArray bomb = VyxTest::readTestData("hdr/invalid/oiio_bomb-40000.hdr");
    EXPECT_FALSE(HDRDecoder(bytes(bomb), bomb.size(), "bomb").valid());
    const QByteArray big = picture("-Y 16384 +X 16", QByteArray(64, '\x7f'));
    EXPECT_FALSE(HDRDecoder(bytes(big), big.size(), "big").valid());
    const QByteArray empty = picture("-Y 0 +X 16", QByteArray(64, '\x7f'));
    EXPECT_FALSE(HDRDecoder(bytes(empty), empty.size(), "empty").valid());
    EXPECT_EQ(capture.bodies(QtWarningMsg),
              (QStringList{"HDR picture 'bomb' has an unusable size of 40000 x 40000 pixels",
                           "HDR picture 'big' claims 16384 scanlines but holds only 64 bytes of pixel data",
                           "HDR picture 'empty' has an unusable size of 16 x 0 pixels"}));

    // No signature: not this format at all.
    const QByteArray crash = VyxTest::readTestData("hdr/invalid/oiio_crash-res.hdr");
    EXPECT_FALSE(HDRDecoder(bytes(crash), crash.size()).valid());
    EXPECT_FALSE(HDRDecoder::hasMagic(bytes(crash), crash.size()));
}
