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

    // The scene lit by a sun from above the camera's shoulder, seen by `camera` (or, when null,
    // by one framing it, which is then returned there).
    QImage render(const QString& path, Camera* camera, bool frame)
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
        QMatrix4x4 frame;
        frame.lookAt(QVector3D(), QVector3D(-0.5f, -1.0f, -0.6f), QVector3D(0, 1, 0));
        frame = frame.inverted();
        frame.rotate(180, 0, 1, 0);
        sun->setTransform(frame);
        sun->intensity = 2.5f;
        model.addLight(QVariant::fromValue<QObject*>(sun), QStringLiteral("sun"));
        if (frame)
            *camera = SceneFraming::framingCamera(model.sceneBounds(), float(kSize.width()) / kSize.height());
        renderer->setSamples(1);
        const QImage image = renderer->renderToImage(model, *camera, kSize).convertToFormat(QImage::Format_RGB32);
        model.clear();
        return image;
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
        const QImage actual = render(compressed, &camera, false);
        ASSERT_FALSE(expected.isNull() || actual.isNull());
        double sum = 0;
        int far = 0, covered = 0;
        const QRgb sky = expected.pixel(0, 0);
        for (int y = 0; y < kSize.height(); ++y)
            for (int x = 0; x < kSize.width(); ++x) {
                const QRgb a = expected.pixel(x, y), b = actual.pixel(x, y);
                const int d = std::max({std::abs(qRed(a) - qRed(b)), std::abs(qGreen(a) - qGreen(b)), std::abs(qBlue(a) - qBlue(b))});
                sum += d;
                far += d > 32 ? 1 : 0;
                covered += a != sky ? 1 : 0;
            }
        const double mean = sum / (kSize.width() * kSize.height());
        std::printf("%s: mean difference %.2f levels, %d of %d covered pixels differ by more than 32\n",
                    qPrintable(QFileInfo(compressed).fileName()), mean, far, covered);
        EXPECT_GT(covered, kSize.width() * kSize.height() / 20); // the scene is in the picture
        EXPECT_LT(mean, 2.0);
        EXPECT_LT(far, covered / 50 + 4);
    }
}
