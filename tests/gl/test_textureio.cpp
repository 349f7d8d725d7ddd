#include "core/memory.h"
#include "gl/drawing/opengldevicecontext.h"
#include "gl/glloader.h"
#include "gl/objects/texture.h"
#include "gl/platform/glutilities.h"
#include "gl/textureio/astcreader.h"
#include "gl/textureio/hdrreader.h"
#include "gl/textureio/ktx2reader.h"
#include "gl/textureio/ktxparser.h"
#include "gl/textureio/ktxreader.h"
#include "gl/textureio/textureio.h"
#include "support/callrecorder.h"
#include "support/glhelpers.h"
#include "support/gltest.h"
#include "support/messagecapture.h"
#include "support/testenvironment.h"

#include <QImage>
#include <QTemporaryDir>

#include <cmath>
#include <functional>
#include <memory>
#include <vector>

#define STB_IMAGE_STATIC
#define STB_IMAGE_IMPLEMENTATION
#define STBI_ONLY_HDR
#include <stb/stb_image.h>

using namespace Tavren::Vyx;
using VyxTest::bytes;
using VyxTest::levelParameter;
using VyxTest::MessageCapture;
using VyxTest::testDataPath;
using VyxTest::texImage;
using VyxTest::writeFile;

namespace {

using TextureIOTest = VyxTest::GLTest;

// Rows of `rowBytes` taken `stride` apart, unpadded; last row first is what FlipY leaves in GL.
std::vector<unsigned char> rows(const unsigned char* file, int count, int rowBytes, int stride, bool lastFirst = true)
{
    std::vector<unsigned char> out;
    for (int i = 0; i < count; ++i) {
        const int y = lastFirst ? count - 1 - i : i;
        out.insert(out.end(), file + size_t(y) * stride, file + size_t(y) * stride + rowBytes);
    }
    return out;
}

// Largest per-byte difference; the GPU path rounds its flip pass through floats.
void expectClose(const std::vector<unsigned char>& actual, const std::vector<unsigned char>& expected)
{
    ASSERT_EQ(actual.size(), expected.size());
    int worst = 0;
    for (size_t i = 0; i < actual.size(); ++i)
        worst = std::max(worst, std::abs(int(actual[i]) - int(expected[i])));
    EXPECT_LE(worst, 1);
}

struct DecliningRecogniser : TextureRecogniser
{
    mutable int asked = 0;
    TextureLoader* recognise(Memory*, const QString&) const override { return ++asked, nullptr; }
};

PFNVYXGLTEXIMAGE2DPROC realTexImage2D = nullptr;
void VYX_APIENTRY failingTexImage2D(GLenum, GLint l, GLint f, GLsizei w, GLsizei h, GLint b, GLenum fo, GLenum t,
                                const void* p)
{
    realTexImage2D(0, l, f, w, h, b, fo, t, p);
}

} // namespace

TEST_F(TextureIOTest, RegistryListsBuiltinsOnceAndMapsExtensions)
{
    const QList<TextureRecogniser*> builtins = RegisteredTextureRecognisers();
    ASSERT_EQ(builtins.size(), 4);
    EXPECT_NE(dynamic_cast<HDRRecogniser*>(builtins[0]), nullptr);
    EXPECT_NE(dynamic_cast<KTXRecogniser*>(builtins[1]), nullptr);
    EXPECT_NE(dynamic_cast<ASTCRecogniser*>(builtins[2]), nullptr);
    EXPECT_EQ(TextureRecogniserForExtension("HDR"), builtins[0]);
    EXPECT_EQ(TextureRecogniserForExtension("astc"), builtins[2]);
    EXPECT_NE(dynamic_cast<KTX2Recogniser*>(builtins[3]), nullptr);
    EXPECT_EQ(TextureRecogniserForExtension("KTX2"), builtins[3]);

    static DecliningRecogniser declining;
    RegisterTextureRecogniser(&declining, "Foo");
    RegisterTextureRecogniser(&declining, "bar");
    EXPECT_EQ(RegisteredTextureRecognisers().size(), 5);
    EXPECT_EQ(TextureRecogniserForExtension("foo"), &declining);
    EXPECT_EQ(TextureRecogniserForExtension("BAR"), &declining);

    // A KTX named .png is found by content; a PNG named .hdr falls through every recogniser to Qt.
    QTemporaryDir dir;
    std::unique_ptr<TextureLoader> ktx(
        IdentifyTextureFromFile(writeFile(dir.filePath("k.png"), VyxTest::readTestData("ktx/ktxsw_rgba-reference.ktx"))));
    EXPECT_NE(dynamic_cast<KTXReader*>(ktx.get()), nullptr);
    QImage(4, 2, QImage::Format_ARGB32).save(dir.filePath("p.hdr"), "PNG");
    EXPECT_EQ(IdentifyTextureFromFile(dir.filePath("p.hdr")), nullptr);
    EXPECT_EQ(declining.asked, 1);
    Texture* png = LoadTextureFromFile(dir.filePath("p.hdr"), {});
    ASSERT_NE(png, nullptr);
    EXPECT_EQ(levelParameter(png, GL_TEXTURE_WIDTH), 4);
    delete png;
}

// Qt's reader: bottom row first, 8-bit grey widened to BGRA, sRGB on request.
TEST_F(TextureIOTest, QtPicturesLoadBottomRowFirst)
{
    QTemporaryDir dir;
    QImage picture(3, 2, QImage::Format_RGB32);
    const QRgb colours[6] = {qRgb(255, 0, 0), qRgb(0, 255, 0), qRgb(0, 0, 255),
                             qRgb(10, 20, 30), qRgb(200, 100, 50), qRgb(255, 255, 255)};
    std::vector<unsigned char> expected;
    for (int i = 0; i < 6; ++i) {
        picture.setPixel(i % 3, i / 3, colours[i]);
        const QRgb c = colours[(1 - i / 3) * 3 + i % 3];
        expected.insert(expected.end(), {uchar(qRed(c)), uchar(qGreen(c)), uchar(qBlue(c)), 255});
    }
    ASSERT_TRUE(picture.save(dir.filePath("rgb.png")));
    QImage grey(2, 1, QImage::Format_Grayscale8);
    grey.fill(0);
    grey.scanLine(0)[1] = 200;
    ASSERT_TRUE(grey.save(dir.filePath("grey.png")));

    Texture* texture = LoadTextureFromFile(dir.filePath("rgb.png"), {});
    ASSERT_NE(texture, nullptr);
    EXPECT_EQ(texImage<unsigned char>(texture, GL_RGBA, GL_UNSIGNED_BYTE, 24), expected);
    EXPECT_EQ(levelParameter(texture, GL_TEXTURE_INTERNAL_FORMAT), GL_RGBA);
    delete texture;

    texture = LoadTextureFromFile(dir.filePath("grey.png"), {});
    ASSERT_NE(texture, nullptr);
    EXPECT_EQ(texImage<unsigned char>(texture, GL_RGBA, GL_UNSIGNED_BYTE, 8),
              (std::vector<unsigned char>{0, 0, 0, 255, 200, 200, 200, 255}));
    delete texture;

    texture = LoadTextureFromQImageFile(dir.filePath("rgb.png"), {0.0f, 1.0f, true});
    EXPECT_EQ(levelParameter(texture, GL_TEXTURE_INTERNAL_FORMAT), GL_SRGB8_ALPHA8);
    delete texture;
    texture = QImageToTexture(picture, true, {0.0f, 1.0f, true});
    EXPECT_EQ(levelParameter(texture, GL_TEXTURE_INTERNAL_FORMAT), GL_RG16F);
    delete texture;
    texture = MakeColorTexture(QColor(255, 128, 0, 64));
    EXPECT_EQ(texImage<unsigned char>(texture, GL_RGBA, GL_UNSIGNED_BYTE, 4),
              (std::vector<unsigned char>{255, 128, 0, 64}));
    delete texture;
}

// Levels made on the CPU stand in for GL's own: the same texels within rounding, and none where
// GL would weight odd sizes unevenly or the levels do not fit the picture.
TEST_F(TextureIOTest, CPUMipmapLevelsMatchGL)
{
    const struct
    {
        int width, height;
        bool srgb;
        int levels;
        int block; // texels of one value across and down: flat areas
        QImage::Format format;
    } cases[] = {{64, 32, false, 4, 1, QImage::Format_ARGB32},   {64, 32, true, 4, 1, QImage::Format_ARGB32},
                 {64, 32, true, 4, 1, QImage::Format_RGBA8888},  {32, 32, true, 4, 2, QImage::Format_RGBA8888},
                 {8, 1, true, 3, 1, QImage::Format_ARGB32},      {2, 2, false, 1, 1, QImage::Format_RGBA8888},
                 {1, 1, true, 0, 1, QImage::Format_ARGB32},      {48, 20, false, 0, 1, QImage::Format_ARGB32},
                 {6, 4, true, 0, 1, QImage::Format_ARGB32},      {16, 16, true, 0, 1, QImage::Format_RGB16}};
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.width << "x" << c.height << (c.srgb ? " sRGB" : "") << " in blocks of "
                                        << c.block << ", format " << c.format);
        QImage picture(c.width, c.height, c.format);
        for (int y = 0; y < c.height; ++y)
            for (int x = 0; x < c.width; ++x) {
                quint32 value = quint32(x / c.block * 7919 + y / c.block * 104729);
                for (int round = 0; round < 3; ++round)
                    value = value * 1664525u + 1013904223u;
                picture.setPixel(x, y, value);
            }
        const QList<QImage> levels = MipmapLevels(picture, c.srgb);
        ASSERT_EQ(levels.size(), c.levels);
        const TextureFileInfo info{0.0f, 1.0f, c.srgb};
        std::unique_ptr<Texture> generated(QImageToTexture(picture, QList<QImage>(), info)); // GL makes them
        std::unique_ptr<Texture> given(QImageToTexture(picture, levels, info));
        // Whatever order the bytes go up in, the texels are the picture's.
        const QImage argb = picture.convertToFormat(QImage::Format_ARGB32);
        std::unique_ptr<Texture> reference(QImageToTexture(argb, false, info));
        std::unique_ptr<Texture> plain(QImageToTexture(picture, false, info));
        ASSERT_TRUE(generated && given && reference && plain);
        const size_t texels = 4 * size_t(c.width) * size_t(c.height);
        const auto texelsOf = [&](Texture* t) { return texImage<unsigned char>(t, GL_BGRA, GL_UNSIGNED_BYTE, texels); };
        EXPECT_EQ(texelsOf(given.get()), texelsOf(reference.get()));
        EXPECT_EQ(texelsOf(plain.get()), texelsOf(reference.get()));
        for (int level = 1; level <= c.levels; ++level) {
            const size_t count = 4 * size_t(levels[level - 1].width()) * size_t(levels[level - 1].height());
            expectClose(texImage<unsigned char>(given.get(), GL_BGRA, GL_UNSIGNED_BYTE, count, 0, level),
                        texImage<unsigned char>(generated.get(), GL_BGRA, GL_UNSIGNED_BYTE, count, 0, level));
        }
    }
    QImage picture(16, 16, QImage::Format_ARGB32);
    picture.fill(Qt::red);
    QList<QImage> wrong = MipmapLevels(picture, false);
    wrong.removeLast();
    std::unique_ptr<Texture> texture(QImageToTexture(picture, wrong, {}));
    ASSERT_TRUE(texture);
    EXPECT_EQ(texImage<unsigned char>(texture.get(), GL_RGBA, GL_UNSIGNED_BYTE, 4, 0, 4),
              (std::vector<unsigned char>{255, 0, 0, 255}));
}

QByteArray withMipmapLevels(QByteArray file, uint32_t levels)
{
    return file.replace(56, 4, QByteArray(reinterpret_cast<const char*>(&levels), 4));
}

// Real KTX files: texels match the file's bytes (2D ones turned over by the final pass, unless
// their orientation key says the rows already run bottom first).
TEST_F(TextureIOTest, KTXFilesLoadAsStored)
{
    struct Case { const char* file; GLenum target, format, type; int bytesPerTexel; bool flipped; };
    const Case cases[] = {
        {"ktxsw_rgba-reference.ktx", GL_TEXTURE_2D, GL_RGBA, GL_UNSIGNED_BYTE, 4, true},
        {"astcenc_ldr-tile_rgba8.ktx", GL_TEXTURE_2D, GL_RGBA, GL_UNSIGNED_BYTE, 4, true},
        {"ktxsw_rgb-reference.ktx", GL_TEXTURE_2D, GL_RGB, GL_UNSIGNED_BYTE, 3, true},
        {"ktxsw_orient-down-metadata.ktx", GL_TEXTURE_2D, GL_RGB, GL_UNSIGNED_BYTE, 3, true},
        {"ktxsw_orient-up-metadata.ktx", GL_TEXTURE_2D, GL_RGB, GL_UNSIGNED_BYTE, 3, false},
        {"ktxsw_not4_rgb888_srgb.ktx", GL_TEXTURE_2D, GL_RGB, GL_UNSIGNED_BYTE, 3, true},
        {"sevmeyer_format_raw_r32_sfloat.ktx", GL_TEXTURE_2D, GL_RED, GL_FLOAT, 4, true},
        {"sascha_particle_gradient_rgba_1d.ktx", GL_TEXTURE_1D, GL_RGBA, GL_UNSIGNED_BYTE, 4, false},
        {"sevmeyer_size_3d_13x23x7.ktx", GL_TEXTURE_3D, GL_RED, GL_UNSIGNED_BYTE, 1, false},
        {"sevmeyer_cubemap_6_faces.ktx", GL_TEXTURE_CUBE_MAP, GL_RGB, GL_UNSIGNED_BYTE, 3, false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.file);
        const QString path = testDataPath(QStringLiteral("ktx/") + c.file);
        Texture* texture = LoadTextureFromFile(path, {});
        ASSERT_NE(texture, nullptr);
        EXPECT_EQ(texture->target(), c.target);
        MemoryMappedFile memory(path);
        KTXParser parser(&memory);
        ASSERT_TRUE(parser.parseImages());
        const KTXImage& first = parser.images()[0];
        const int w = int(first.width), h = int(std::max(first.height, 1u)), d = int(std::max(first.depth, 1u));
        const int rowBytes = w * c.bytesPerTexel, stride = (rowBytes + 3) / 4 * 4;
        const unsigned int faces = parser.isCubeMapTexture() ? 6 : 1;
        for (unsigned int face = 0; face < faces; ++face) {
            const GLenum faceTarget = faces == 6 ? GL_TEXTURE_CUBE_MAP_POSITIVE_X + face : 0;
            const std::vector<unsigned char> expected = rows(parser.images()[face].data, h * d, rowBytes, stride, c.flipped);
            EXPECT_EQ(texImage<unsigned char>(texture, c.format, c.type, expected.size(), faceTarget), expected);
        }
        // Levels past the first are (re)generated whenever the file has more than one.
        const GLenum face0 = faces == 6 ? GL_TEXTURE_CUBE_MAP_POSITIVE_X : 0;
        EXPECT_EQ(levelParameter(texture, GL_TEXTURE_WIDTH, face0, 1), parser.hasMipMaps() ? w / 2 : 0);
        delete texture;
    }
    // No level count: one level read, the rest generated.
    QByteArray file = withMipmapLevels(VyxTest::readTestData("ktx/ktxsw_rgba-reference.ktx"), 0);
    Texture* texture = LoadTextureFromMemory(bytes(file), file.size(), {});
    ASSERT_NE(texture, nullptr);
    EXPECT_EQ(levelParameter(texture, GL_TEXTURE_WIDTH, 0, 7), 1);
    delete texture;
}

// Compressed KTX: ASTC matches the reference decoder where GL has ASTC, and is refused where not;
// other block formats end as GL_RGBA pictures of the file's size after the final pass.
TEST_F(TextureIOTest, CompressedKTXFiles)
{
    const bool astc = hasGLExtension("GL_KHR_texture_compression_astc_ldr");
    const QString path = testDataPath("ktx/sevmeyer_format_astc_8x5_unorm.ktx");
    QByteArray file = withMipmapLevels(VyxTest::readTestData("ktx/sevmeyer_format_astc_8x5_unorm.ktx"), 1);
    MessageCapture capture;
    // GL cannot build levels of ASTC blocks, so files asking for them are refused.
    EXPECT_EQ(LoadTextureFromFile(path, {}), nullptr);
    Texture* texture = LoadTextureFromMemory(bytes(file), file.size(), {}, "one");
    EXPECT_EQ(capture.bodies(QtWarningMsg).mid(0, 2),
              (QStringList{"Compressed texture " + path + " failed to load.", "Compressed texture one failed to load."})
                  .mid(0, astc ? 1 : 2));
    if (astc) {
        ASSERT_NE(texture, nullptr);
        // The level-0 blocks (8x13 of them) as an .astc file for the reference decoder.
        QTemporaryDir dir;
        const std::vector<unsigned char> reference = VyxTest::referenceASTCDecode(writeFile(
            dir.filePath("a.astc"), QByteArray::fromHex("13ABA15C080501400000400000010000") + file.mid(68, 8 * 13 * 16)), true);
        if (!reference.empty())
            expectClose(texImage<unsigned char>(texture, GL_RGBA, GL_UNSIGNED_BYTE, reference.size()), reference);
        delete texture;
    }
    const char* blockFiles[] = {"ktxsw_etc2-rgba8.ktx", "ktxsw_conftestimage_R11_EAC.ktx",
                                "sevmeyer_format_bc1_rgb_unorm.ktx", "tacent_ETC2RGB_RGB_1281x721.ktx"};
    for (const char* name : blockFiles) {
        SCOPED_TRACE(name);
        std::unique_ptr<TextureLoader> reader(IdentifyTextureFromFile(testDataPath(QStringLiteral("ktx/") + name)));
        ASSERT_TRUE(reader && reader->valid() && reader->isCompressed());
        Texture* loaded = reader->load({});
        ASSERT_NE(loaded, nullptr);
        EXPECT_EQ(levelParameter(loaded, GL_TEXTURE_INTERNAL_FORMAT), GL_RGBA);
        EXPECT_EQ(levelParameter(loaded, GL_TEXTURE_WIDTH), int(reader->width()));
        EXPECT_EQ(levelParameter(loaded, GL_TEXTURE_HEIGHT), int(reader->height()));
        delete loaded;
    }
}

// Each refused load says why, once, and claims no load time.
TEST_F(TextureIOTest, RefusedLoadsSayWhy)
{
    QTemporaryDir dir;
    const QString missing = dir.filePath("missing.png"), junk = writeFile(dir.filePath("junk.xyz"), "not a picture");
    const QString ktx = testDataPath("ktx/");
    // Its one key/value entry ends exactly on the block's end.
    const QString unaligned = ktx + "invalid/sevmeyer_metadata_unaligned.ktx";
    QByteArray unknown("not a picture at all"), unalignedBytes = VyxTest::readTestData("ktx/invalid/sevmeyer_metadata_unaligned.ktx");
    QByteArray radiance = QByteArray("#?RADIANCE\nFORMAT=32-bit_rle_rgbe\n\n-Y 2 +X 2\n") + QByteArray(16, '\x80');
    auto file = [](const QString& path) { return [path] { return LoadTextureFromFile(path, {}); }; };
    realTexImage2D = _ptrc_glTexImage2D;
    const struct { std::function<Texture*()> load; QtMsgType level; QString message; } cases[] = {
        {file(missing), QtWarningMsg, "File " + missing + " not found"},
        {file(junk), QtWarningMsg, "Failed to load " + junk},
        {[&] { return LoadTextureFromMemory(bytes(unknown), unknown.size(), {}); }, QtDebugMsg,
         "Unable to recognise the file format for texture data '<unnamed>'"},
        {file(unaligned), QtDebugMsg, "Data appears invalid for texture file '" + unaligned + "'"},
        {[&] { return LoadTextureFromMemory(bytes(unalignedBytes), unalignedBytes.size(), {}, "kv"); }, QtDebugMsg,
         "Data appears invalid for texture data 'kv'"},
        // The upload itself fails: the driver reports a real error.
        {[&] {
             VyxTest::PointerSwap<PFNVYXGLTEXIMAGE2DPROC> swap(_ptrc_glTexImage2D, failingTexImage2D);
             return LoadTextureFromMemory(bytes(radiance), radiance.size(), {}, "g");
         }, QtWarningMsg, "Texture g failed to load."},
        {file(ktx + "sevmeyer_array_2_elements_cubemap_6_faces.ktx"), QtWarningMsg, "Cubemap arrays not supported yet, sorry!"},
        {file(ktx + "sevmeyer_array_2_elements_2d.ktx"), QtWarningMsg, "Array textures not supported yet, sorry!"},
        // Neither llvmpipe's compressed formats nor core GL's plain formats have these.
        {file(ktx + "sevmeyer_format_pvrtc1_4bpp_unorm.ktx"), QtWarningMsg,
         "Compressed texture " + ktx + "sevmeyer_format_pvrtc1_4bpp_unorm.ktx failed to load."},
        {file(ktx + "ktxsw_luminance-reference-metadata.ktx"), QtWarningMsg,
         "Texture " + ktx + "ktxsw_luminance-reference-metadata.ktx failed to load."},
        // An opposite-endian file keeps its image sizes unconverted, so they run past the file.
        {file(ktx + "sevmeyer_endian_big_type_ubyte_r8g8.ktx"), QtWarningMsg,
         "KTX file '" + ktx + "sevmeyer_endian_big_type_ubyte_r8g8.ktx': level 0"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.message.toStdString());
        MessageCapture capture;
        EXPECT_EQ(c.load(), nullptr);
        const QStringList reports = capture.bodies(c.level);
        ASSERT_EQ(reports.size(), 1) << capture.texts().join('\n').toStdString();
        EXPECT_TRUE(reports[0].startsWith(c.message)) << reports[0].toStdString();
        EXPECT_FALSE(capture.texts(QtDebugMsg).join("\n").contains("loaded in"));
    }
}

// .astc files match the reference decoder on both paths (the reduced profile has no ASTC in GL).
TEST_F(TextureIOTest, ASTCFilesMatchReferenceDecoder)
{
    struct Case { const char* file; int width, height; };
    const Case cases[] = {{"astcenc_Tiles_ldr.astc", 8, 8}, {"tacent_ASTC12X12_LDR.astc", 1280, 720}};
    EXPECT_EQ(hasGLExtension("GL_KHR_texture_compression_astc_ldr"), !isReducedProfileRun());
    for (const Case& c : cases) {
        SCOPED_TRACE(c.file);
        const QString path = testDataPath(QStringLiteral("astc/") + c.file);
        Texture* texture = LoadTextureFromFile(path, {});
        ASSERT_NE(texture, nullptr);
        EXPECT_EQ(levelParameter(texture, GL_TEXTURE_WIDTH), c.width);
        EXPECT_EQ(levelParameter(texture, GL_TEXTURE_HEIGHT), c.height);
        const std::vector<unsigned char> reference = VyxTest::referenceASTCDecode(path, true);
        if (!reference.empty())
            expectClose(texImage<unsigned char>(texture, GL_RGBA, GL_UNSIGNED_BYTE, reference.size()), reference);
        delete texture;
    }
    EXPECT_EQ(LoadTextureFromFile(testDataPath("astc/invalid/astcenc_negative_huge.astc"), {}), nullptr);
}

// A host that only made a context current and initialised the library: no device context until
// a load's final pass needs one, and the loads come out as they would with one installed.
TEST(TextureIOAfterInitialisationAlone, LoadsAndRemapsWithoutADeviceContext)
{
    HeadlessGLContext context;
    ASSERT_TRUE(context.create() && context.makeCurrent());
    ASSERT_TRUE(initializeGLFunctions());
    EXPECT_TRUE(OpenGLDeviceContext::current().isNull());
    QTemporaryDir dir;
    QImage picture(2, 2, QImage::Format_ARGB32);
    const QRgb colours[4] = {qRgba(255, 0, 0, 255), qRgba(0, 102, 0, 51), qRgba(10, 20, 30, 255), qRgba(255, 255, 255, 0)};
    for (int i = 0; i < 4; ++i)
        picture.setPixel(i % 2, i / 2, colours[i]);
    ASSERT_TRUE(picture.save(dir.filePath("p.png")));
    std::unique_ptr<Texture> plain(LoadTextureFromFile(dir.filePath("p.png"), {}));
    ASSERT_NE(plain, nullptr);
    EXPECT_TRUE(OpenGLDeviceContext::current().isNull()) << "nothing needed a pass yet";

    // KTX: the same texels as a load made once the device context exists.
    const QString ktxPath = testDataPath("ktx/ktxsw_rgba-reference.ktx");
    std::unique_ptr<Texture> ktx(LoadTextureFromFile(ktxPath, {}));
    ASSERT_NE(ktx, nullptr);
    EXPECT_FALSE(OpenGLDeviceContext::current().isNull());
    std::unique_ptr<Texture> again(LoadTextureFromFile(ktxPath, {}));
    const int size = levelParameter(ktx.get(), GL_TEXTURE_WIDTH) * levelParameter(ktx.get(), GL_TEXTURE_HEIGHT) * 4;
    EXPECT_EQ(texImage<unsigned char>(ktx.get(), GL_RGBA, GL_UNSIGNED_BYTE, size_t(size)),
              texImage<unsigned char>(again.get(), GL_RGBA, GL_UNSIGNED_BYTE, size_t(size)));

    // PNG remapped to [0.25, 0.75]: bottom row first, colour remapped, alpha kept.
    std::unique_ptr<Texture> png(LoadTextureFromFile(dir.filePath("p.png"), {0.25f, 0.75f, false}));
    ASSERT_NE(png, nullptr);
    std::vector<unsigned char> expected;
    for (int i : {2, 3, 0, 1}) {
        const QRgb c = colours[i];
        for (int channel : {qRed(c), qGreen(c), qBlue(c)})
            expected.push_back(static_cast<unsigned char>(std::lround((channel / 255.0 * 0.5 + 0.25) * 255.0)));
        expected.push_back(static_cast<unsigned char>(qAlpha(c)));
    }
    expectClose(texImage<unsigned char>(png.get(), GL_RGBA, GL_UNSIGNED_BYTE, 16), expected);

    // HDR doubled: stb_image's floats, bottom row first, times two.
    const char* hdrName = "hdr/imagers_rgbr4x4_flat.hdr";
    const QByteArray file = VyxTest::readTestData(hdrName);
    int w = 0, h = 0, n = 0;
    float* reference = stbi_loadf_from_memory(bytes(file), file.size(), &w, &h, &n, 3);
    ASSERT_NE(reference, nullptr);
    std::unique_ptr<Texture> hdr(LoadTextureFromFile(testDataPath(hdrName), {0.0f, 2.0f, false}));
    ASSERT_NE(hdr, nullptr);
    EXPECT_EQ(levelParameter(hdr.get(), GL_TEXTURE_INTERNAL_FORMAT), GL_RGB32F);
    const auto loaded = texImage<float>(hdr.get(), GL_RGB, GL_FLOAT, size_t(w) * h * 3);
    int mismatches = 0;
    for (int y = 0; y < h; ++y)
        for (int i = 0; i < w * 3; ++i)
            mismatches += loaded[size_t(y) * w * 3 + i] != 2.0f * reference[size_t(h - 1 - y) * w * 3 + i];
    EXPECT_EQ(mismatches, 0);
    stbi_image_free(reference);
}
