// A 1280x720 frame of DamagedHelmet, wall time with glFinish, so on llvmpipe mostly the
// fragment shading run on the CPU. Baseline: the file as it is, drawn by the plain
// metal-roughness program. Against it the same model with its material given a clear coat,
// a specular tint and sheen (the heaviest variant short of transmission), and then with
// transmission too, which adds the copy of the opaque scene and its mipmaps.
#include "benchtarget.h"
#include "gl/drawing/camera.h"
#include "gl/drawing/opengldevicecontext.h"
#include "gl/glloader.h"
#include "gl/model/gpumodel.h"
#include "gl/objects/framebufferobject.h"
#include "gl/platform/glutilities.h"
#include "gl/platform/headlesscontext.h"
#include "gl/textures/samplertexturemanager.h"
#include "render/gltfimporter.h"
#include "render/sceneframing.h"
#include "render/scenerenderer.h"
#include "scene/gltfscenereader.h"

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <memory>

using namespace Tavren::Vyx;

namespace {

constexpr int kWidth = 1280;
constexpr int kHeight = 720;

enum Variant { ePlain, eLayered, eTransmissive };

void HelmetFrame(benchmark::State& state)
{
    HeadlessGLContext context;
    if (!VyxBench::makeHeadlessCurrent(context)) {
        state.SkipWithError("no GL context");
        return;
    }
    {
        GLTFSceneReader reader;
        auto scene = reader.read(QStringLiteral(VYX_BENCH_DATA_DIR "/gltf/DamagedHelmet/glTF-Binary/DamagedHelmet.glb"));
        if (!scene) {
            state.SkipWithError("DamagedHelmet does not read");
            return;
        }
        auto edited = std::make_shared<SceneData>(*scene);
        using M = SceneData::Material;
        for (M& m : edited->materials) {
            if (state.range(0) >= eLayered) {
                m.extensions |= M::Clearcoat | M::Specular | M::Sheen;
                m.clearcoat.factor = 0.5f;
                m.specular.colorFactor = QVector3D(1, 0.9f, 0.8f);
                m.sheen.colorFactor = QVector3D(0.2f, 0.2f, 0.2f);
                m.sheen.roughness = 0.5f;
            }
            if (state.range(0) == eTransmissive) {
                m.extensions |= M::Transmission;
                m.transmission.factor = 0.2f;
            }
        }
        SamplerTextureManager manager;
        GPUModel model;
        QObject lights;
        GLTFImporter importer(&manager);
        FramebufferObject target;
        target.bind();
        target.createRenderbuffer(GL_COLOR_ATTACHMENT0, GL_RGBA8, kWidth, kHeight, 1);
        target.createRenderbuffer(GL_DEPTH_ATTACHMENT, GL_DEPTH_COMPONENT24, kWidth, kHeight, 1);
        glViewport(0, 0, kWidth, kHeight);
        if (!importer.upload(edited, model, &lights) || !target.isComplete()) {
            state.SkipWithError("no model or target");
            return;
        }
        model.updateTransforms();
        const Camera camera = SceneFraming::framingCamera(model.sceneBounds(), float(kWidth) / kHeight);
        SceneRenderer renderer(&manager);
        if (!renderer.render(model, camera, QSize(kWidth, kHeight))) { // programs and shadow maps made
            state.SkipWithError("render failed");
            return;
        }
        glFinish();
        for (auto _ : state) {
            renderer.render(model, camera, QSize(kWidth, kHeight));
            glFinish();
        }
        target.unbind();
        model.clear();
        manager.clear();
    }
}
BENCHMARK(HelmetFrame)->Arg(ePlain)->Arg(eLayered)->Arg(eTransmissive)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(2.0);

} // namespace

BENCHMARK_MAIN();
