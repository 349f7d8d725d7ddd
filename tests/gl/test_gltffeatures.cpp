// glTF material and geometry features, each proved on a row of unit quads seen by an
// orthographic camera: one quad per primitive, probed at the middle of its quarters.
#include "gl/drawing/camera.h"
#include "gl/drawing/drawbuffers.h"
#include "gl/glloader.h"
#include "gl/model/gpumodel.h"
#include "gl/textures/samplertexturemanager.h"
#include "render/gltfimporter.h"
#include "render/scenerenderer.h"
#include "support/gltfbuilder.h"
#include "support/ktx2builder.h"
#include "support/messagecapture.h"
#include "support/scenetest.h"
#include "support/testenvironment.h"

#include <QBuffer>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <cmath>

using namespace Tavren::Vyx;
using VyxTest::MessageCapture;

namespace {

constexpr int kQuadPixels = 32;
// Top-left red, top-right green, bottom-left blue, bottom-right white.
const QRgb kCorners[4] = {qRgb(255, 0, 0), qRgb(0, 255, 0), qRgb(0, 0, 255), qRgb(255, 255, 255)};

QImage cornersImage(const QRgb colours[4] = kCorners)
{
    QImage image(2, 2, QImage::Format_RGB32);
    for (int i = 0; i < 4; ++i)
        image.setPixel(i % 2, i / 2, colours[i]);
    return image;
}

QJsonObject unlit(const QJsonObject& pbr)
{
    return {{"pbrMetallicRoughness", pbr}, {"extensions", QJsonObject{{"KHR_materials_unlit", QJsonObject{}}}}};
}

// Builds a glTF scene of quads side by side (quad i spans x in [i, i + 1], y in [0, 1]) with one
// buffer, nearest-filtered clamped textures and a camera that sees exactly the row.
class QuadScene : public VyxTest::GLTFBuilder
{
public:
    int texture(const QImage& image, const QJsonObject& extra = {})
    {
        QByteArray png;
        QBuffer out(&png);
        out.open(QIODevice::WriteOnly);
        image.save(&out, "PNG");
        _images.append(QJsonObject{{"uri", QString::fromLatin1("data:image/png;base64," + png.toBase64())}});
        QJsonObject t{{"source", _images.size() - 1}, {"sampler", 0}};
        for (auto it = extra.begin(); it != extra.end(); ++it)
            t.insert(it.key(), it.value());
        _textures.append(t);
        return _textures.size() - 1;
    }
    // A KTX 2 file in the buffer, named through KHR_texture_basisu alone.
    int ktx2Texture(const QByteArray& file)
    {
        _images.append(QJsonObject{{"bufferView", view(file)}, {"mimeType", "image/ktx2"}});
        const QJsonObject basisu{{"KHR_texture_basisu", QJsonObject{{"source", _images.size() - 1}}}};
        _textures.append(QJsonObject{{"sampler", 0}, {"extensions", basisu}});
        return _textures.size() - 1;
    }
    // A quad whose texture coordinates put the picture upright (glTF's v runs down the picture).
    void quad(const QJsonObject& material, QJsonObject attributes = {})
    {
        const float x = float(_quads++);
        const float positions[12] = {x, 0, 0, x + 1, 0, 0, x + 1, 1, 0, x, 1, 0};
        const float normals[12] = {0, 0, 1, 0, 0, 1, 0, 0, 1, 0, 0, 1};
        const float uv[8] = {0, 1, 1, 1, 1, 0, 0, 0};
        const quint16 indices[6] = {0, 1, 2, 0, 2, 3};
        attributes.insert("POSITION", accessor(positions, sizeof(positions), 5126, 4, "VEC3"));
        attributes.insert("NORMAL", accessor(normals, sizeof(normals), 5126, 4, "VEC3"));
        if (!attributes.contains("TEXCOORD_0"))
            attributes.insert("TEXCOORD_0", accessor(uv, sizeof(uv), 5126, 4, "VEC2"));
        _materials.append(material);
        primitives.append(QJsonObject{{"attributes", attributes},
                                      {"indices", accessor(indices, sizeof(indices), 5123, 6, "SCALAR")},
                                      {"material", _materials.size() - 1}});
    }
    // The camera sees `columns` quads' width (default: all quads).
    QByteArray json(const QJsonObject& meshNodeExtra = {}, int columns = 0) const
    {
        const double half = (columns > 0 ? columns : _quads) * 0.5;
        QJsonObject meshNode{{"mesh", 0}};
        for (auto it = meshNodeExtra.begin(); it != meshNodeExtra.end(); ++it)
            meshNode.insert(it.key(), it.value());
        QJsonObject root{
            {"asset", QJsonObject{{"version", "2.0"}}},
            {"scene", 0},
            {"scenes", QJsonArray{QJsonObject{{"nodes", _sun ? QJsonArray{0, 1, 2} : QJsonArray{0, 1}}}}},
            {"cameras", QJsonArray{QJsonObject{
                            {"type", "orthographic"},
                            {"orthographic", QJsonObject{{"xmag", half}, {"ymag", 0.5}, {"znear", 0.1}, {"zfar", 10}}}}}},
            {"meshes", QJsonArray{QJsonObject{{"primitives", primitives}}}},
            {"materials", _materials},
            {"accessors", accessors},
            {"bufferViews", views},
            {"buffers", embeddedBuffer()}};
        QJsonArray nodes{meshNode, QJsonObject{{"camera", 0}, {"translation", QJsonArray{half, 0.5, 2}}}};
        // The sun shines down -Z turned 45 degrees about X: from above and in front.
        if (_sun)
            nodes.append(QJsonObject{{"rotation", QJsonArray{-0.3826834, 0, 0, 0.9238795}},
                                     {"extensions", QJsonObject{{"KHR_lights_punctual", QJsonObject{{"light", 0}}}}}});
        root.insert("nodes", nodes);
        if (_sun)
            root.insert("extensions", QJsonObject{{"KHR_lights_punctual",
                                                   QJsonObject{{"lights", QJsonArray{QJsonObject{{"type", "directional"}}}}}}});
        if (!_textures.isEmpty()) {
            root.insert("images", _images);
            root.insert("textures", _textures);
            root.insert("samplers", QJsonArray{QJsonObject{
                                        {"magFilter", 9728}, {"minFilter", 9728}, {"wrapS", 33071}, {"wrapT", 33071}}});
        }
        return QJsonDocument(root).toJson(QJsonDocument::Compact);
    }
    int quads() const { return _quads; }
    // A white directional light from above the row and in front of it.
    void addSun() { _sun = true; }

private:
    QJsonArray _images, _textures, _materials;
    int _quads = 0;
    bool _sun = false;
};

class GLTFFeaturesTest : public VyxTest::SceneTest
{
protected:
    // Renders the scene through its camera; the image is kQuadPixels high.
    QImage render(const QByteArray& json, int quads)
    {
        if (!importer.loadFromMemory(json, QString(), model, &lights)) {
            ADD_FAILURE() << qPrintable(importer.errorString());
            return QImage();
        }
        renderer->setSamples(1);
        renderer->setShadowsEnabled(false);
        return renderer->renderToImage(model, fileCamera(), QSize(quads * kQuadPixels, kQuadPixels));
    }
    QImage render(const QuadScene& scene) { return render(scene.json(), scene.quads()); }

    // The middle of quarter `corner` (0 top-left, 1 top-right, 2 bottom-left, 3 bottom-right).
    static QRgb quarter(const QImage& image, int quad, int corner)
    {
        return image.pixel(quad * kQuadPixels + kQuadPixels / 4 + (corner % 2) * kQuadPixels / 2,
                           kQuadPixels / 4 + (corner / 2) * kQuadPixels / 2);
    }
    static void expectNear(QRgb actual, QRgb expected, const char* what, int tolerance = 6)
    {
        EXPECT_TRUE(std::abs(qRed(actual) - qRed(expected)) <= tolerance &&
                    std::abs(qGreen(actual) - qGreen(expected)) <= tolerance &&
                    std::abs(qBlue(actual) - qBlue(expected)) <= tolerance)
            << what << ": got " << qPrintable(QColor(actual).name()) << ", expected "
            << qPrintable(QColor(expected).name());
    }
};

// Each map's coordinates: the set the material names, through its texture transform.
TEST_F(GLTFFeaturesTest, TextureCoordinateSetsAndTransforms)
{
    QuadScene scene;
    const int plain = scene.texture(cornersImage());
    const auto base = [](int texture, const QJsonObject& extra = {}) {
        QJsonObject info{{"index", texture}};
        for (auto it = extra.begin(); it != extra.end(); ++it)
            info.insert(it.key(), it.value());
        return unlit({{"baseColorTexture", info}});
    };
    const auto transform = [](const QJsonObject& t) { return QJsonObject{{"extensions", QJsonObject{{"KHR_texture_transform", t}}}}; };
    scene.quad(base(plain));
    // Set 0 is all zeros (top-left); set 1 holds the real coordinates.
    const float zeros[8] = {}, uv[8] = {0, 1, 1, 1, 1, 0, 0, 0};
    scene.quad(base(plain, {{"texCoord", 1}}),
               {{"TEXCOORD_0", scene.accessor(zeros, sizeof(zeros), 5126, 4, "VEC2")},
                {"TEXCOORD_1", scene.accessor(uv, sizeof(uv), 5126, 4, "VEC2")}});
    // Half the picture, shifted by half to the right: the left quarters show the right column.
    scene.quad(base(plain, transform({{"offset", QJsonArray{0.5, 0}}, {"scale", QJsonArray{0.5, 1}}})));
    // A quarter turn: u' = v, v' = -u + 1 with the offset, so the picture turns clockwise.
    scene.quad(base(plain, transform({{"rotation", M_PI / 2}, {"offset", QJsonArray{0, 1}}})));
    // The transform's texCoord overrides the texture info's.
    scene.quad(base(plain, transform({{"texCoord", 1}})),
               {{"TEXCOORD_0", scene.accessor(zeros, sizeof(zeros), 5126, 4, "VEC2")},
                {"TEXCOORD_1", scene.accessor(uv, sizeof(uv), 5126, 4, "VEC2")}});
    const QImage image = render(scene);
    ASSERT_FALSE(image.isNull());
    const QRgb red = kCorners[0], green = kCorners[1], blue = kCorners[2], white = kCorners[3];
    const QRgb expected[5][4] = {{red, green, blue, white},
                                 {red, green, blue, white},
                                 {green, green, white, white},
                                 {blue, red, white, green},
                                 {red, green, blue, white}};
    for (int q = 0; q < 5; ++q)
        for (int c = 0; c < 4; ++c)
            expectNear(quarter(image, q, c), expected[q][c], qPrintable(QStringLiteral("quad %1 quarter %2").arg(q).arg(c)));
}

// COLOR_0 multiplies the base colour, as float RGB and as normalised bytes; unlit shows the base
// colour as it is; emissive strength scales the emission.
TEST_F(GLTFFeaturesTest, VertexColoursUnlitAndEmissiveStrength)
{
    QuadScene scene;
    const float rgb[12] = {1, 0, 0, 1, 0, 0, 1, 0, 0, 1, 0, 0};
    scene.quad(unlit({}), {{"COLOR_0", scene.accessor(rgb, sizeof(rgb), 5126, 4, "VEC3")}});
    const quint8 rgba[16] = {0, 255, 0, 255, 0, 255, 0, 255, 0, 255, 0, 255, 0, 255, 0, 255};
    scene.quad(unlit({{"baseColorFactor", QJsonArray{0.5, 0.5, 0.5, 1}}}),
               {{"COLOR_0", scene.accessor(rgba, sizeof(rgba), 5121, 4, "VEC4", true)}});
    const auto emissive = [](double strength) {
        return QJsonObject{
            {"pbrMetallicRoughness", QJsonObject{{"baseColorFactor", QJsonArray{0, 0, 0, 1}}, {"roughnessFactor", 1}}},
            {"emissiveFactor", QJsonArray{0.1, 0, 0}},
            {"extensions", QJsonObject{{"KHR_materials_emissive_strength", QJsonObject{{"emissiveStrength", strength}}}}}};
    };
    scene.quad(emissive(1));
    scene.quad(emissive(8));
    const QImage image = render(scene);
    ASSERT_FALSE(image.isNull());
    expectNear(quarter(image, 0, 0), qRgb(255, 0, 0), "float vertex colour");
    expectNear(quarter(image, 1, 3), qRgb(0, 188, 0), "byte vertex colour times an unlit factor of 0.5");
    EXPECT_GT(qRed(quarter(image, 3, 0)), qRed(quarter(image, 2, 0)) + 60) << "emissive strength 8 against 1";
}

// A normal map tilted towards the picture's top lights a quad as if it faced the light above,
// with the file's tangents or generated ones; with the picture upside down (v running up the
// quad, tangent handedness -1) it faces away.
TEST_F(GLTFFeaturesTest, NormalMapsFollowThePictureUpwards)
{
    QuadScene scene;
    scene.addSun();
    const QRgb flat[4] = {qRgb(128, 128, 255), qRgb(128, 128, 255), qRgb(128, 128, 255), qRgb(128, 128, 255)};
    const QRgb up[4] = {qRgb(128, 218, 218), qRgb(128, 218, 218), qRgb(128, 218, 218), qRgb(128, 218, 218)};
    const auto material = [&](const QRgb colours[4]) {
        return QJsonObject{{"pbrMetallicRoughness", QJsonObject{{"metallicFactor", 0}, {"roughnessFactor", 1}}},
                           {"normalTexture", QJsonObject{{"index", scene.texture(cornersImage(colours))}}}};
    };
    const float uprightTangents[16] = {1, 0, 0, 1, 1, 0, 0, 1, 1, 0, 0, 1, 1, 0, 0, 1};
    const float flippedTangents[16] = {1, 0, 0, -1, 1, 0, 0, -1, 1, 0, 0, -1, 1, 0, 0, -1};
    const float flippedUV[8] = {0, 0, 1, 0, 1, 1, 0, 1};
    scene.quad(material(flat));
    scene.quad(material(up));
    scene.quad(material(up), {{"TANGENT", scene.accessor(uprightTangents, sizeof(uprightTangents), 5126, 4, "VEC4")}});
    scene.quad(material(up), {{"TEXCOORD_0", scene.accessor(flippedUV, sizeof(flippedUV), 5126, 4, "VEC2")}});
    scene.quad(material(up), {{"TEXCOORD_0", scene.accessor(flippedUV, sizeof(flippedUV), 5126, 4, "VEC2")},
                              {"TANGENT", scene.accessor(flippedTangents, sizeof(flippedTangents), 5126, 4, "VEC4")}});
    renderer->setEnvironmentIntensity(0); // the sun alone, whose direction the tilt must follow
    const QImage image = render(scene);
    ASSERT_FALSE(image.isNull());
    const int flatLevel = qGray(quarter(image, 0, 0));
    EXPECT_GT(qGray(quarter(image, 1, 0)), flatLevel + 10) << "generated tangents, upright picture";
    EXPECT_GT(qGray(quarter(image, 2, 0)), flatLevel + 10) << "file tangents, upright picture";
    EXPECT_LT(qGray(quarter(image, 3, 0)), flatLevel - 10) << "generated tangents, picture upside down";
    EXPECT_LT(qGray(quarter(image, 4, 0)), flatLevel - 10) << "file tangents with handedness -1, picture upside down";
}

// More textures than the sampler manager has slots: the import splits the draw, every quad shows
// its own texture and nothing asks for more slots than there are.
TEST_F(GLTFFeaturesTest, MoreTexturesThanSlots)
{
    manager.setMaxSlots(4);
    QuadScene scene;
    constexpr int kQuads = 10;
    for (int q = 0; q < kQuads; ++q) {
        const QRgb colour = qRgb(20 * q, 255 - 20 * q, (q % 3) * 100);
        const QRgb solid[4] = {colour, colour, colour, colour};
        scene.quad(unlit({{"baseColorTexture", QJsonObject{{"index", scene.texture(cornersImage(solid))}}}}));
    }
    MessageCapture messages;
    const QImage image = render(scene);
    ASSERT_FALSE(image.isNull());
    for (int q = 0; q < kQuads; ++q)
        expectNear(quarter(image, q, 0), qRgb(20 * q, 255 - 20 * q, (q % 3) * 100), qPrintable(QStringLiteral("quad %1").arg(q)));
    EXPECT_TRUE(messages.texts().filter(QStringLiteral("texture slots")).isEmpty()) << qPrintable(messages.texts().join('\n'));
}

// EXT_mesh_gpu_instancing: the mesh once per instance, each placed by the node and its own matrix.
TEST_F(GLTFFeaturesTest, GPUInstancesAreDrawnEach)
{
    QuadScene scene;
    scene.quad(unlit({{"baseColorFactor", QJsonArray{0, 0, 1, 1}}}));
    const float translations[6] = {0, 0, 0, 2, 0, 0};
    const int accessor = scene.accessor(translations, sizeof(translations), 5126, 2, "VEC3");
    const QJsonObject instancing{{"extensions", QJsonObject{{"EXT_mesh_gpu_instancing",
                                                             QJsonObject{{"attributes", QJsonObject{{"TRANSLATION", accessor}}}}}}}};
    const QImage image = render(scene.json(instancing, 3), 3);
    ASSERT_FALSE(image.isNull());
    const QRgb blue = qRgb(0, 0, 255);
    expectNear(quarter(image, 0, 0), blue, "first instance");
    EXPECT_NE(quarter(image, 1, 0), blue) << "between the instances";
    expectNear(quarter(image, 2, 3), blue, "second instance");
}

// A KTX 2 picture shows upright like a PNG one; a Basis Universal one renders white and says why.
TEST_F(GLTFFeaturesTest, KTX2ImagesThroughTextureBasisu)
{
    VyxTest::KTX2File corners;
    corners.width = corners.height = 2;
    corners.vkFormat = 43; // R8G8B8A8_SRGB
    QByteArray texels; // top row first, as glTF pictures are
    for (QRgb colour : kCorners)
        texels += QByteArray(1, char(qRed(colour))) + char(qGreen(colour)) + char(qBlue(colour)) + char(255);
    corners.levels = {texels};
    QuadScene scene;
    scene.quad(unlit({{"baseColorTexture", QJsonObject{{"index", scene.ktx2Texture(corners.bytes())}}}}));
    scene.quad(unlit({{"baseColorTexture", QJsonObject{{"index", scene.ktx2Texture(VyxTest::readTestData(
                                                                     "ktx/invalid/loadersgl_test_etc1s_KTX2-not-KTX1.ktx2"))}}}}));
    MessageCapture messages;
    const QImage image = render(scene);
    ASSERT_FALSE(image.isNull());
    for (int c = 0; c < 4; ++c) {
        expectNear(quarter(image, 0, c), kCorners[c], "KTX 2 corner");
        expectNear(quarter(image, 1, c), qRgb(255, 255, 255), "Basis Universal picture");
    }
    EXPECT_TRUE(messages.texts(QtWarningMsg).join('\n').contains("Basis Universal payload (ETC1S/BasisLZ), which is not supported"));
    EXPECT_EQ(importer.warnings(), QStringList{"Image 1 ('') could not be loaded; it renders white"});
}

// Every primitive mode reaches the GPU without a warning: strips, loops and fans as lists.
TEST_F(GLTFFeaturesTest, AllPrimitiveModesDraw)
{
    const QString path = VyxTest::testDataPath(QStringLiteral("gltf/MeshPrimitiveModes/glTF/MeshPrimitiveModes.gltf"));
    MessageCapture messages;
    ASSERT_TRUE(importer.load(path, model, &lights)) << qPrintable(importer.errorString());
    EXPECT_TRUE(messages.texts(QtWarningMsg).isEmpty()) << qPrintable(messages.texts(QtWarningMsg).join('\n'));
    QSet<GLenum> types;
    for (int d = 0; d < model.numDrawables(); ++d)
        types.insert(model.drawBuffers(d)->primitiveType());
    EXPECT_EQ(types, (QSet<GLenum>{GL_POINTS, GL_LINES, GL_TRIANGLES}));
}

} // namespace
