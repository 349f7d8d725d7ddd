#include "gl/glloader.h"
#include "gl/model/gpumodel.h"
#include "gl/textures/samplertexturemanager.h"
#include "render/gltfimporter.h"
#include "render/sceneframing.h"
#include "render/scenerenderer.h"
#include "support/gltest.h"
#include "support/testenvironment.h"

using namespace Tavren::Vyx;

namespace {

class SceneFramingRender : public VyxTest::GLTest {};

} // namespace

// The red unit cube shrunk to 7 cm and grown to 10 km, each off the origin: the automatic camera
// shows it whole in the middle of the picture at either scale.
TEST_F(SceneFramingRender, TinyAndHugeScenesFillTheCentre)
{
    const QSize size(160, 90);
    SamplerTextureManager manager;
    GPUModel model;
    QObject lights;
    GLTFImporter importer(&manager);
    SceneRenderer renderer(&manager);
    renderer.setSamples(1);
    renderer.setShadowMapSize(256);
    for (const float scale : {0.07f, 10000.0f}) {
        SCOPED_TRACE(scale);
        model.clear();
        ASSERT_TRUE(importer.load(VyxTest::testDataPath(QStringLiteral("gltf/Box/glTF-Binary/Box.glb")), model, &lights))
            << qPrintable(importer.errorString());
        QMatrix4x4 placed;
        placed.translate(QVector3D(0.5f, -0.3f, 0.2f) * scale);
        placed.scale(scale);
        for (int t = 0; t < model.transformCount(); ++t)
            if (model.transformParent(t) == GPUModel::kInvalidTransformRef)
                model.setLocalTransform(t, placed * model.localTransform(t));
        const Camera camera = SceneFraming::framingCamera(model.sceneBounds(), float(size.width()) / size.height());
        const QImage image = renderer.renderToImage(model, camera, size).convertToFormat(QImage::Format_RGB32);
        ASSERT_FALSE(image.isNull()) << qPrintable(renderer.errorString());
        EXPECT_EQ(glGetError(), GLenum(GL_NO_ERROR));
        const auto red = [&image](int x, int y) { return qRed(image.pixel(x, y)) > 80 && qRed(image.pixel(x, y)) > 2 * qGreen(image.pixel(x, y)); };
        // A square a third of the height wide around the centre is cube; the corners are sky.
        int covered = 0;
        for (int i = 0; i < 30 * 30; ++i)
            covered += red(65 + i % 30, 30 + i / 30);
        EXPECT_GT(covered, 30 * 30 * 95 / 100);
        EXPECT_FALSE(red(2, 2) || red(157, 2) || red(2, 87) || red(157, 87));
    }
    model.clear();
}
