#include "gl/drawing/camera.h"
#include "gl/glloader.h"
#include "gl/model/gpumodel.h"
#include "gl/platform/glutilities.h"
#include "gl/textures/samplertexturemanager.h"
#include "render/demoscene.h"
#include "render/gltfimporter.h"
#include "render/punctuallight.h"
#include "render/scenerenderer.h"
#include "support/callrecorder.h"
#include "support/gltest.h"

#include <algorithm>
#include <functional>

using namespace Tavren::Vyx;

namespace {

// The demo scene through its own camera, small, with one sample per pixel.
class SceneRenderReuseTest : public VyxTest::GLTest
{
protected:
    static inline const QSize kSize{96, 54};

    void SetUp() override
    {
        GLTest::SetUp();
        ASSERT_TRUE(importer.loadFromMemory(DemoScene::glb(), QString(), model, &lights)) << qPrintable(importer.errorString());
        camera = model.getCamera(0);
        camera.setWorldMatrix(model.getCameraWorldSpaceMatrix(0));
        renderer->setSamples(1);
        renderer->setShadowMapSize(256);
    }
    void TearDown() override
    {
        model.clear();
        renderer.reset();
        manager.clear();
        GLTest::TearDown();
    }
    QImage frame() { return renderer->renderToImage(model, camera, kSize); }
    void moveTransform(const char* name, const QVector3D& by)
    {
        const int t = model.findTransform(QLatin1String(name));
        ASSERT_GE(t, 0) << name;
        QMatrix4x4 m;
        m.translate(by);
        model.setLocalTransform(t, m * model.localTransform(t));
    }
    PunctualLight* light(int index)
    {
        QVariant value;
        model.getLight(index, value);
        return qobject_cast<PunctualLight*>(value.value<QObject*>());
    }

    SamplerTextureManager manager;
    GPUModel model;
    QObject lights;
    GLTFImporter importer{&manager};
    std::unique_ptr<SceneRenderer> renderer = std::make_unique<SceneRenderer>(&manager);
    Camera camera;
};

} // namespace

TEST_F(SceneRenderReuseTest, ShadowMapsAreRedrawnOnlyWhenWhatTheyShowChanged)
{
    const QImage first = frame();
    ASSERT_FALSE(first.isNull()) << qPrintable(renderer->errorString());
    ASSERT_EQ(renderer->shadowPassCount(), 1);
    const struct
    {
        const char* change;
        std::function<void()> apply;
        bool redrawn;
    } steps[] = {
        {"nothing", [] {}, false},
        {"a caster moved", [&] { moveTransform("Box", QVector3D(0.5f, 0, 0)); }, true},
        {"nothing after the move", [] {}, false},
        {"a caster hidden", [&] { model.setVisibility(model.findTransform(QStringLiteral("Box")), 2); }, true},
        {"a caster shown again", [&] { model.setVisibility(model.findTransform(QStringLiteral("Box")), 0); }, true},
        {"the spot light turned",
         [&] {
             QMatrix4x4 turned = light(1)->transform();
             turned.rotate(5, 0, 1, 0);
             light(1)->setTransform(turned);
         },
         true},
        {"the map size", [&] { renderer->setShadowMapSize(128); }, true},
        {"a deformation", [&] { model.noteDeformationChanged(); }, true},
        {"the camera moved (the sun's cascades refit)",
         [&] {
             QMatrix4x4 moved = camera.worldMatrix();
             moved.translate(0.3f, 0, 0);
             camera.setWorldMatrix(moved);
         },
         true},
        {"invalidated", [&] { renderer->invalidateShadows(); }, true},
        {"nothing at the end", [] {}, false},
    };
    for (const auto& step : steps) {
        const int before = renderer->shadowPassCount();
        step.apply();
        ASSERT_FALSE(frame().isNull()) << step.change << ": " << qPrintable(renderer->errorString());
        EXPECT_EQ(renderer->shadowPassCount() - before, step.redrawn ? 1 : 0) << step.change;
    }
    // Kept maps draw the same picture as fresh ones.
    const QImage kept = frame();
    renderer->invalidateShadows();
    EXPECT_EQ(frame(), kept);
    renderer->setShadowsEnabled(false);
    frame();
    renderer->setShadowsEnabled(true);
    const int before = renderer->shadowPassCount();
    EXPECT_EQ(frame(), kept) << "shadows back on must be drawn again";
    EXPECT_EQ(renderer->shadowPassCount(), before + 1);
}

TEST_F(SceneRenderReuseTest, RenderersOfAContextShareASkysLightingMapsWhileOneKeepsThem)
{
    // Making a sky's lighting maps uploads the split of its bright texels into cube faces.
    const auto madeLightingMaps = [&](SceneRenderer& r, const QImage& expected) {
        r.setSamples(1);
        r.setShadowMapSize(256);
        VyxTest::CallRecorder<&_ptrc_glTexSubImage2D> uploads;
        EXPECT_EQ(r.renderToImage(model, camera, kSize), expected) << "the same picture whoever made the maps";
        return std::any_of(uploads.calls().begin(), uploads.calls().end(), [](const auto& call) {
            const GLenum target = std::get<0>(call);
            return target >= GL_TEXTURE_CUBE_MAP_POSITIVE_X && target <= GL_TEXTURE_CUBE_MAP_NEGATIVE_Z;
        });
    };
    const QImage sky = frame();
    ASSERT_FALSE(sky.isNull()) << qPrintable(renderer->errorString());

    auto second = std::make_unique<SceneRenderer>(&manager);
    EXPECT_FALSE(madeLightingMaps(*second, sky)) << "the default sky's maps are the first renderer's";
    auto sunset = std::make_unique<SceneRenderer>(&manager);
    ASSERT_TRUE(sunset->setProceduralSky(QVector3D(1, 0.1f, 0)));
    renderer.reset();
    second.reset();
    sunset.reset();
    renderer = std::make_unique<SceneRenderer>(&manager);
    EXPECT_TRUE(madeLightingMaps(*renderer, sky)) << "made again once no renderer keeps them";
}

TEST_F(SceneRenderReuseTest, TimingsCoverEachPassAndSayWhenTheGpuCannotBeAsked)
{
    ASSERT_FALSE(frame().isNull());
    FrameTimings none = renderer->lastFrameTimings();
    EXPECT_EQ(none.toString(), QStringLiteral("no passes timed")) << "timing is off by default";

    renderer->setTimingEnabled(true);
    const bool timerQueries = openGlVersionSupported(3, 3) || hasGLExtension("GL_ARB_timer_query");
    for (int f = 0; f < 3; ++f) { // three frames: both query sets in use, then the first reused
        ASSERT_FALSE(frame().isNull());
        glFinish();
        const FrameTimings t = renderer->lastFrameTimings();
        EXPECT_EQ(t.gpuTimingAvailable, timerQueries);
        for (int p = 0; p < FrameTimings::kPassCount; ++p) {
            const auto pass = FrameTimings::Pass(p);
            EXPECT_TRUE(t.ran[p]) << FrameTimings::passName(pass);
            EXPECT_GE(t.cpuMilliseconds[p], 0.0) << FrameTimings::passName(pass);
            EXPECT_EQ(t.gpuMilliseconds[p] >= 0, timerQueries) << FrameTimings::passName(pass) << " frame " << f;
        }
        EXPECT_EQ(t.toString().contains(QStringLiteral("GPU unavailable")), !timerQueries) << qPrintable(t.toString());
    }
    EXPECT_EQ(glGetError(), GLenum(GL_NO_ERROR));

    FrameTimings shown;
    shown.ran[FrameTimings::eSky] = shown.ran[FrameTimings::ePost] = true;
    shown.cpuMilliseconds[FrameTimings::eSky] = 1.5;
    shown.gpuTimingAvailable = true;
    shown.gpuMilliseconds[FrameTimings::eSky] = 0.25;
    EXPECT_EQ(shown.toString(), QStringLiteral("sky 1.50 ms (GPU 0.25 ms), post 0.00 ms (GPU not measured)"));
}
