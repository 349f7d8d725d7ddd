// Compressed glTF geometry on screen: each compressed sample renders like its uncompressed
// original, seen by the same camera.
#include "gl/drawing/camera.h"
#include "gl/model/gpumodel.h"
#include "gl/textures/samplertexturemanager.h"
#include "render/gltfimporter.h"
#include "render/punctuallight.h"
#include "render/sceneframing.h"
#include "render/scenerenderer.h"
#include "support/gltest.h"
#include "support/testenvironment.h"

#include <QFileInfo>

#include <cstdio>

using namespace Tavren::Vyx;

namespace {

const QSize kSize(160, 120);

class GLTFCompressionTest : public VyxTest::GLTest
{
protected:
    void TearDown() override
    {
        renderer.reset();
        manager.clear();
        GLTest::TearDown();
    }

    // The scene lit by a sun from above and to the right, seen by `camera`, which is first set to
    // one framing the scene when asked.
    QImage render(const QString& path, Camera* camera, bool frameTheScene)
    {
        GPUModel model;
        QObject lights;
        GLTFImporter importer(&manager);
        if (!importer.load(path, model, &lights)) {
            ADD_FAILURE() << qPrintable(path) << ": " << qPrintable(importer.errorString());
            return QImage();
        }
        auto* sun = new PunctualLight(&lights);
        sun->setType(ShadowMapLight::Directional);
        QMatrix4x4 turn; // the sun shines down its -Z
        turn.rotate(30, 0, 1, 0);
        turn.rotate(-50, 1, 0, 0);
        sun->setTransform(turn);
        sun->intensity = 3;
        model.addLight(QVariant::fromValue<QObject*>(sun), QStringLiteral("sun"));
        if (frameTheScene)
            *camera = SceneFraming::framingCamera(model.sceneBounds(), float(kSize.width()) / kSize.height());
        renderer->setSamples(1);
        const QImage image = renderer->renderToImage(model, *camera, kSize).convertToFormat(QImage::Format_RGB32);
        model.clear();
        return image;
    }

    // What the camera sees of an empty scene.
    QImage sky(const Camera& camera)
    {
        GPUModel empty;
        return renderer->renderToImage(empty, camera, kSize).convertToFormat(QImage::Format_RGB32);
    }

    SamplerTextureManager manager;
    std::unique_ptr<SceneRenderer> renderer = std::make_unique<SceneRenderer>(&manager);
};

} // namespace

// Quantization moves edges by a fraction of a pixel and shading by a level or two: the mean
// difference stays small and only a thin seam of pixels differs much.
TEST_F(GLTFCompressionTest, CompressedSamplesRenderLikeTheirOriginals)
{
    const QString assimp = QStringLiteral("/usr/share/assimp/models/glTF2/");
    const std::pair<QString, QString> pairs[] = {
        {VyxTest::testDataPath("gltf/Box/glTF-Draco/Box.gltf"), VyxTest::testDataPath("gltf/Box/glTF-Binary/Box.glb")},
        {VyxTest::testDataPath("gltf/Duck/glTF-Draco/Duck.gltf"), VyxTest::testDataPath("gltf/Duck/glTF-Binary/Duck.glb")},
        {VyxTest::testDataPath("gltf/CesiumMan/glTF-Draco/CesiumMan.gltf"), VyxTest::testDataPath("gltf/CesiumMan/glTF-Binary/CesiumMan.glb")},
        {VyxTest::testDataPath("gltf/MorphPrimitivesTest/glTF-Draco/MorphPrimitivesTest.gltf"),
         VyxTest::testDataPath("gltf/MorphPrimitivesTest/glTF-Binary/MorphPrimitivesTest.glb")},
        {assimp + "draco/2CylinderEngine.gltf", assimp + "2CylinderEngine-glTF-Binary/2CylinderEngine.glb"},
        {VyxTest::testSourcePath("data/duck-meshopt.glb"), VyxTest::testDataPath("gltf/Duck/glTF-Binary/Duck.glb")},
    };
    for (const auto& [compressed, original] : pairs) {
        SCOPED_TRACE(qPrintable(compressed));
        Camera camera;
        const QImage expected = render(original, &camera, true);
        const QImage actual = render(compressed, &camera, false), background = sky(camera);
        ASSERT_FALSE(expected.isNull() || actual.isNull() || background.isNull());
        const auto difference = [](QRgb a, QRgb b) {
            return std::max({std::abs(qRed(a) - qRed(b)), std::abs(qGreen(a) - qGreen(b)), std::abs(qBlue(a) - qBlue(b))});
        };
        double sum = 0;
        int far = 0, covered = 0;
        for (int y = 0; y < kSize.height(); ++y)
            for (int x = 0; x < kSize.width(); ++x) {
                const int d = difference(expected.pixel(x, y), actual.pixel(x, y));
                sum += d;
                far += d > 32 ? 1 : 0;
                covered += difference(expected.pixel(x, y), background.pixel(x, y)) > 2 ? 1 : 0;
            }
        const double mean = sum / (kSize.width() * kSize.height());
        std::printf("%s: mean difference %.2f levels, %d of %d covered pixels differ by more than 32\n",
                    qPrintable(QFileInfo(compressed).fileName()), mean, far, covered);
        EXPECT_GT(covered, kSize.width() * kSize.height() / 40); // the scene is in the picture
        EXPECT_LT(mean, 2.0);
        EXPECT_LT(far, covered / 50 + 4);
    }
}
