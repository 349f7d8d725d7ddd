#include "gl/drawing/camera.h"
#include "gl/glloader.h"
#include "gl/model/gpumodel.h"
#include "gl/textures/samplertexturemanager.h"
#include "render/gltfimporter.h"
#include "render/scenerenderer.h"
#include "support/glhelpers.h"
#include "support/scenetest.h"
#include "support/testenvironment.h"

#include <QBuffer>

#include <algorithm>

using namespace Tavren::Vyx;

namespace {

class ScenePassesTest : public VyxTest::SceneTest
{
protected:
    // Renders the loaded model once, the renderer living only for its frame.
    QImage render(const Camera& camera)
    {
        SceneRenderer renderer(&manager);
        renderer.setSamples(1);
        renderer.setShadowMapSize(512);
        const QImage image = renderer.renderToImage(model, camera, size);
        EXPECT_FALSE(image.isNull()) << qPrintable(renderer.errorString());
        EXPECT_EQ(glGetError(), GLenum(GL_NO_ERROR));
        return image.convertToFormat(QImage::Format_RGB32);
    }

    // Where a world point lands in the image (top row first).
    QPoint pixel(const Camera& camera, const QVector3D& world) const
    {
        const QVector3D ndc = (camera.projectionMatrix(float(size.width()) / size.height()) * camera.viewMatrix()).map(world);
        return QPoint(int((ndc.x() + 1) * 0.5f * size.width()), int((1 - ndc.y()) * 0.5f * size.height()));
    }

    // A sample scene seen from `eye`, looking at `centre`.
    QImage sample(const char* name, const QVector3D& eye, const QVector3D& centre, Camera& camera)
    {
        const QString path = VyxTest::testDataPath(QStringLiteral("gltf/%1/glTF-Binary/%1.glb").arg(QLatin1String(name)));
        EXPECT_TRUE(importer.load(path, model, &lights)) << qPrintable(importer.errorString());
        camera.lookAt(eye, centre, QVector3D(0, 1, 0));
        camera.setNearFar(0.5f, 50);
        size = QSize(320, 180);
        return render(camera);
    }

    QSize size{160, 90};
};

// Horizontal quads facing up over a white ground, lit by a sun whose light travels along
// (1, -1, 0): a masked quad (its texture's right half transparent) at y = 1 around x = -2, then
// blended quads at x = 2, red at y = 2 and green below it at y = 1, each of alpha 0.4.
QByteArray quadScene()
{
    QImage halves(2, 1, QImage::Format_RGBA8888);
    halves.fill(Qt::white);
    halves.setPixelColor(1, 0, Qt::transparent);
    QBuffer png;
    png.open(QIODevice::WriteOnly);
    halves.save(&png, "PNG");
    // Positions, normals and texture coordinates of one quad, then its indices.
    const float vertices[] = {-0.5f, 0, -0.5f, -0.5f, 0, 0.5f, 0.5f, 0, 0.5f, 0.5f, 0, -0.5f, 0, 1, 0, 0, 1, 0,
                              0, 1, 0, 0, 1, 0, 0, 0, 0, 1, 1, 1, 1, 0};
    const quint16 indices[] = {0, 1, 2, 0, 2, 3};
    const QByteArray bin = QByteArray(reinterpret_cast<const char*>(vertices), sizeof(vertices)) +
                           QByteArray(reinterpret_cast<const char*>(indices), sizeof(indices));
    QStringList meshes, materials;
    for (const char* material : {R"("baseColorFactor": [0.8, 0.8, 0.8, 1]})", R"("baseColorTexture": {"index": 0}}, "alphaMode": "MASK")",
                                 R"("baseColorFactor": [1, 0, 0, 0.4]}, "alphaMode": "BLEND")", R"("baseColorFactor": [0, 1, 0, 0.4]}, "alphaMode": "BLEND")"}) {
        meshes << QStringLiteral(R"({"primitives": [{"attributes": {"POSITION": 0, "NORMAL": 1, "TEXCOORD_0": 2}, "indices": 3, "material": %1}]})")
                      .arg(meshes.size());
        materials << QStringLiteral(R"({"pbrMetallicRoughness": {"metallicFactor": 0, %1})").arg(QLatin1String(material));
    }
    return QStringLiteral(R"({"asset": {"version": "2.0"}, "extensionsUsed": ["KHR_lights_punctual"],
 "extensions": {"KHR_lights_punctual": {"lights": [{"type": "directional", "intensity": 3}]}},
 "scenes": [{"nodes": [0, 1, 2, 3, 4]}],
 "nodes": [{"mesh": 0, "scale": [12, 1, 12]}, {"mesh": 1, "translation": [-2, 1, 0], "scale": [2, 1, 2]},
   {"mesh": 2, "translation": [2, 2, 0], "scale": [2, 1, 2]}, {"mesh": 3, "translation": [2, 1, 0], "scale": [2, 1, 2]},
   {"rotation": [-0.5, -0.5, 0, 0.70710678], "extensions": {"KHR_lights_punctual": {"light": 0}}}],
 "meshes": [%1], "materials": [%2],
 "textures": [{"source": 0, "sampler": 0}], "samplers": [{"magFilter": 9728, "minFilter": 9728}],
 "images": [{"uri": "data:image/png;base64,%3"}],
 "accessors": [{"bufferView": 0, "componentType": 5126, "count": 4, "type": "VEC3", "min": [-0.5, 0, -0.5], "max": [0.5, 0, 0.5]},
   {"bufferView": 0, "byteOffset": 48, "componentType": 5126, "count": 4, "type": "VEC3"},
   {"bufferView": 0, "byteOffset": 96, "componentType": 5126, "count": 4, "type": "VEC2"},
   {"bufferView": 1, "componentType": 5123, "count": 6, "type": "SCALAR"}],
 "bufferViews": [{"buffer": 0, "byteLength": 128}, {"buffer": 0, "byteOffset": 128, "byteLength": 12}],
 "buffers": [{"byteLength": 140, "uri": "data:application/octet-stream;base64,%4"}]})")
        .arg(meshes.join(','), materials.join(','), QString::fromLatin1(png.data().toBase64()), QString::fromLatin1(bin.toBase64()))
        .toUtf8();
}

} // namespace

TEST_F(ScenePassesTest, MaskedQuadsCastCutOutShadowsBlendedOnesDrawBackToFrontAndStateIsRestored)
{
    ASSERT_TRUE(importer.loadFromMemory(quadScene(), QString(), model, &lights)) << qPrintable(importer.errorString());
    Camera camera;
    camera.lookAt(QVector3D(0, 8, 0), QVector3D(), QVector3D(0, 0, -1));
    camera.setNearFar(0.5f, 20);
    // State the passes change beyond what RenderStateGuard records must come back too, each set
    // unlike what the passes leave behind (their last draw turns the winding to CW).
    glBlendFunc(GL_ONE, GL_ZERO);
    glCullFace(GL_FRONT);
    glFrontFace(GL_CCW);
    const QImage image = render(camera);
    EXPECT_EQ((std::vector<int>{VyxTest::glInteger(GL_BLEND_SRC_RGB), VyxTest::glInteger(GL_BLEND_DST_ALPHA),
                                VyxTest::glInteger(GL_CULL_FACE_MODE), VyxTest::glInteger(GL_FRONT_FACE)}),
              (std::vector<int>{GL_ONE, GL_ZERO, GL_FRONT, GL_CCW}));

    const auto grey = [&](float x, float z) { return qGray(image.pixel(pixel(camera, QVector3D(x, 0, z)))); };
    // Seen through the hole, the shadow of the quad's opaque half; beside it, light that came through the hole.
    EXPECT_LT(grey(-1.5f, 0) + 25, grey(-0.5f, 3));
    EXPECT_NEAR(grey(-0.5f, 0), grey(-0.5f, 3), 12);
    // Blended quads below half coverage cast nothing.
    EXPECT_NEAR(grey(4.5f, 0), grey(4.5f, 3), 12);
    // The nearer red quad blends over the green one, though the green one's drawable comes later.
    const QRgb overlap = image.pixel(pixel(camera, QVector3D(2, 2, 0)));
    EXPECT_GT(qRed(overlap), qGreen(overlap) + 20);
}

TEST_F(ScenePassesTest, AlphaModesBlendOnlyWhenAskedAndCutAtTheirCutoffs)
{
    Camera camera;
    const QImage image = sample("AlphaBlendModeTest", QVector3D(0, 1.2f, 7), QVector3D(0, 1, 0), camera);
    // The boxes' texture holds teal and yellow stripes, greener than the bed behind, with an
    // alpha that falls from about 0.75 at y = 0.6 to 0.25 at y = 1.45 and below 0.2 at y = 1.6.
    // There the opaque box shows stripes and the blended one mostly the bed. At y = 1.25 (alpha
    // about 3/8) only the 0.25 cutoff keeps the texels, at y = 0.83 (5/8) only the 0.75 one drops them.
    const auto greener = [&](float x, float y) { // over 5 x 5 pixels, which cover a few stripes
        const QPoint centre = pixel(camera, QVector3D(x, y, 0));
        int sum = 0;
        for (int d = 0; d < 25; ++d) {
            const QRgb c = image.pixel(centre + QPoint(d % 5 - 2, d / 5 - 2));
            sum += qGreen(c) - qRed(c);
        }
        return sum;
    };
    // The bed alone, between the boxes; stripes are at least 20 levels a pixel greener.
    const int bed = std::max(greener(-2.25f, 1.6f), greener(2.25f, 1.6f)) + 25 * 20;
    const struct { float x, y; bool stripes; } probes[] = {{-3, 1.6f, true}, {-1.5f, 1.6f, false}, {0, 1.25f, true}, {1.5f, 1.25f, false},
                                                          {3, 1.25f, false}, {0, 0.83f, true}, {1.5f, 0.83f, true}, {3, 0.83f, false}};
    for (const auto& p : probes)
        EXPECT_EQ(greener(p.x, p.y) > bed, p.stripes) << "box at x = " << p.x << ", y = " << p.y << ": "
                                                      << greener(p.x, p.y) << " against the bed's " << bed;
}

TEST_F(ScenePassesTest, MirroredNodesShowTheirFrontFacesLitAsTheOthers)
{
    Camera camera;
    const QImage image = sample("NegativeScaleTest", QVector3D(0, 0, 13), QVector3D(), camera);
    // A culled front face or a drawn back face shows a red cross.
    int red = 0;
    for (int i = 0; i < image.width() * image.height(); ++i) {
        const QRgb p = image.pixel(i % image.width(), i / image.width());
        red += qRed(p) > 150 && qGreen(p) < 70 && qBlue(p) < 70;
    }
    EXPECT_EQ(red, 0);
    // The dark double-sided spheres at x = 1 (mirrored) and x = 3: a flipped normal lights one grey.
    const QVector3D below(0, -0.25f, 0.4f);
    EXPECT_NEAR(qGray(image.pixel(pixel(camera, QVector3D(1, -2.25f, 0) + below))),
                qGray(image.pixel(pixel(camera, QVector3D(3, -2.25f, 0) + below))), 16);
}
