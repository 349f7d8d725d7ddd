// The viewport's frames and a scene's import, on DamagedHelmet and the built-in demo scene at
// 1280x720, each against a baseline measured in the same run:
//   interactive  one sample at the viewport's interactive scale, FXAA, scaled up to a window-sized
//                target (SceneViewport while dragging),
//                the camera turning half a degree a frame ("orbit") or standing ("still"),
//                standing with the shadow maps redrawn each frame all the same (the baseline of
//                their reuse), and FXAA with the blit alone on the last frame's picture;
//   full         renderToImage with 4 samples and read-back (what `vyxgl render` writes);
//   floor        the same geometry, culled the same way, drawn by Unlit.vert/.frag into a
//                one-sample target: the baseline of both frames;
//   first frame  a new SceneRenderer's first full frame, programs already built once in this
//                process (the driver's program cache warm): beside a renderer that keeps the
//                default sky's lighting maps (a second viewport, a reloaded scene), and with a
//                sky of its own, whose lighting maps it makes;
//   import       GLTFImporter::load into a fresh model; baseline: decoding the scene's
//                pictures one after the other on this thread.
// Frame times are wall time after glFinish: on llvmpipe the GPU work is the CPU's too, on its
// rasteriser threads, so they measure CPU doing both. The summary divides by the baselines.
#include "benchtarget.h"
#include "gl/drawing/camera.h"
#include "gl/drawing/drawbuffers.h"
#include "gl/instancedata/instancedataplan.h"
#include "gl/model/gpumodel.h"
#include "gl/objects/framebufferobject.h"
#include "gl/objects/texture.h"
#include "gl/shaders/glslmacroprocessor.h"
#include "gl/shaders/shaderprogram.h"
#include "gl/textures/samplertexturemanager.h"
#include "render/demoscene.h"
#include "render/gltfimporter.h"
#include "render/postprocess.h"
#include "render/sceneframing.h"
#include "render/scenematerial.h"
#include "render/scenerenderer.h"
#include "scene/gltfscenereader.h"
#include "scene/scenedata.h"
#include "viewport/sceneviewport.h"
#include "viewport/viewerscene.h"

#include <QFileInfo>
#include <QImage>

#include <cstdio>
#include <memory>

using namespace Tavren::Vyx;

namespace {

const QSize kSize(1280, 720);

struct SceneSource
{
    const char* name;
    QString path; // empty: the demo scene
};

bool import(GLTFImporter& importer, const SceneSource& source, GPUModel& model, QObject* lights)
{
    return source.path.isEmpty() ? importer.loadFromMemory(DemoScene::glb(), QString(), model, lights)
                                 : importer.load(source.path, model, lights);
}

// A framebuffer drawing into a colour texture (kept by the caller) or renderbuffer, with depth.
// What SceneViewport draws its cheaper picture at while the camera moves.
const QSize kInteractiveSize = SceneViewport::interactiveSize(kSize, SceneViewport::kDefaultInteractiveScale);
// The renderer's default, and half of it while the camera moves (with a coarser cascade snap).
constexpr int kShadowMapSize = 1024, kInteractiveShadowMapSize = kShadowMapSize / 2;

std::unique_ptr<FramebufferObject> target(std::unique_ptr<Texture>* colour, bool depth, const QSize& size = kSize)
{
    auto fbo = std::make_unique<FramebufferObject>();
    AutoBinder bound(fbo.get());
    bool made = colour ? (colour->reset(fbo->createTexture2D(GL_COLOR_ATTACHMENT0, GL_RGBA8, GL_RGBA, GL_UNSIGNED_BYTE,
                                                              size.width(), size.height())),
                          *colour != nullptr)
                       : fbo->createRenderbuffer(GL_COLOR_ATTACHMENT0, GL_RGBA8, size.width(), size.height(), 0);
    made = made && (!depth || fbo->createRenderbuffer(GL_DEPTH_ATTACHMENT, GL_DEPTH_COMPONENT24, size.width(),
                                                      size.height(), 0));
    if (!made || !fbo->isComplete())
        std::abort();
    return fbo;
}

// One loaded scene with everything its frames need.
struct Viewer
{
    SamplerTextureManager manager;
    GPUModel model;
    QObject lights;
    Camera camera;
    std::unique_ptr<SceneRenderer> renderer;
    PostProcess post;
    std::unique_ptr<Texture> fastColour, fxaaColour;
    std::unique_ptr<FramebufferObject> fast, fxaa, window;
    GLSLMacroProcessor macros;
    std::unique_ptr<ShaderProgram> unlit;

    explicit Viewer(const SceneSource& source)
    {
        GLTFImporter importer(&manager);
        if (!import(importer, source, model, &lights)) {
            std::fprintf(stderr, "%s: %s\n", source.name, qPrintable(importer.errorString()));
            std::abort();
        }
        ViewerScene::addDefaultSunIfUnlit(model, &lights);
        const float aspect = float(kSize.width()) / float(kSize.height());
        camera = model.getCameraCount() > 0
                     ? SceneFraming::enclosingPlanes(model.getCamera(0), model.getCameraWorldSpaceMatrix(0),
                                                     model.sceneBounds())
                     : SceneFraming::framingCamera(model.sceneBounds(), aspect);
        renderer = std::make_unique<SceneRenderer>(&manager);
        fast = target(&fastColour, true, kInteractiveSize);
        fxaa = target(&fxaaColour, false, kInteractiveSize);
        window = target(nullptr, false);
        DrawBuffers::setup(&macros);
        unlit = std::make_unique<ShaderProgram>();
        unlit->setMacroProcessor(&macros);
        unlit->setFragDataLocations({QStringLiteral("out_FragColor")});
        unlit->addShaderFromFile(GL_VERTEX_SHADER, QStringLiteral("Unlit.vert"));
        unlit->addShader(GL_VERTEX_SHADER, SceneMaterial::objectPlan()->glslc());
        unlit->addShaderFromFile(GL_VERTEX_SHADER, QStringLiteral("VyxUtilities.vert"));
        unlit->addShaderFromFile(GL_VERTEX_SHADER, QStringLiteral("VyxUtilities.glslc"));
        unlit->addShaderFromFile(GL_FRAGMENT_SHADER, QStringLiteral("Unlit.frag"));
        if (!unlit->link()) {
            std::fprintf(stderr, "the unlit program does not link: %s\n", qPrintable(unlit->log()));
            std::abort();
        }
    }

    ~Viewer()
    {
        for (FramebufferObject* fbo : {fast.get(), fxaa.get()}) {
            AutoBinder bound(fbo);
            fbo->detach(GL_COLOR_ATTACHMENT0);
        }
        renderer.reset();
        model.clear();
        manager.clear();
    }

    // Half a degree around the scene's centre, as a slow drag turns it.
    void orbit()
    {
        const QVector3D centre = model.sceneBounds().center();
        QMatrix4x4 turn;
        turn.translate(centre);
        turn.rotate(0.5f, 0, 1, 0);
        turn.translate(-centre);
        camera.setWorldMatrix(turn * camera.worldMatrix());
    }

    bool interactiveFrame(bool scene = true)
    {
        renderer->setSamples(1);
        renderer->setShadowMapSize(kInteractiveShadowMapSize);
        renderer->setCascadeSnap(SceneViewport::kInteractiveCascadeSnap);
        if (scene) {
            AutoBinder bound(fast.get());
            glViewport(0, 0, kInteractiveSize.width(), kInteractiveSize.height());
            if (!renderer->render(model, camera, kInteractiveSize))
                return false;
        }
        if (!post.apply(PostProcess::eFXAA, fastColour.get(), fxaaColour.get()))
            return false;
        glBindFramebuffer(GL_READ_FRAMEBUFFER, fxaa->getFBO());
        glBindFramebuffer(GL_DRAW_FRAMEBUFFER, window->getFBO());
        glBlitFramebuffer(0, 0, kInteractiveSize.width(), kInteractiveSize.height(), 0, 0, kSize.width(), kSize.height(),
                          GL_COLOR_BUFFER_BIT, GL_LINEAR);
        glBindFramebuffer(GL_FRAMEBUFFER, 0);
        glFinish();
        return true;
    }

    bool fullFrame(SceneRenderer& with)
    {
        with.setSamples(4);
        with.setShadowMapSize(kShadowMapSize);
        with.setCascadeSnap(1);
        const bool made = !with.renderToImage(model, camera, kSize).isNull();
        glFinish();
        return made;
    }

    bool floorFrame()
    {
        AutoBinder bound(fast.get());
        glViewport(0, 0, kSize.width(), kSize.height());
        glClearColor(0, 0, 0, 1);
        glClear(GL_COLOR_BUFFER_BIT | GL_DEPTH_BUFFER_BIT);
        glEnable(GL_DEPTH_TEST);
        const QMatrix4x4 viewProjection =
            camera.projectionMatrix(float(kSize.width()) / kSize.height()) * camera.viewMatrix();
        model.updateTransforms();
        model.resetCulling();
        model.visibilityCull();
        model.frustumCull(viewProjection);
        bool drawn = unlit->bind();
        unlit->setUniform(QStringLiteral("u_ViewProjection"), QVariant(viewProjection));
        SceneMaterial::parkUnsharedDeformationSamplers(*unlit, model);
        drawn = drawn && model.draw(unlit.get(), nullptr, 0, 0, GPUModel::eWindingNoCulling, true);
        unlit->unbind();
        glDisable(GL_DEPTH_TEST);
        glFinish();
        return drawn;
    }
};

struct Context : VyxBench::TriangleTarget
{
    std::unique_ptr<Viewer> viewer;
    QString loaded;

    Viewer& scene(const SceneSource& source)
    {
        if (!viewer || loaded != QLatin1String(source.name)) {
            viewer.reset();
            viewer = std::make_unique<Viewer>(source);
            loaded = QLatin1String(source.name);
        }
        return *viewer;
    }
};

Context& context()
{
    static Context instance;
    return instance;
}

enum Kind {
    eInteractiveOrbit,
    eInteractiveStill,
    eInteractiveRedrawn,
    eInteractivePost,
    eFull,
    eFloor,
    eFirstFrame,
    eFirstFrameNewSky,
    eImport,
    eDecode
};
const char* const kKindNames[] = {"interactive_orbit", "interactive_still", "interactive_shadows_redrawn",
                                  "interactive_fxaa_blit_only", "full_4x", "floor_unlit", "first_frame_warm_cache",
                                  "first_frame_new_sky", "import", "decode_one_thread"};

void frames(benchmark::State& state, SceneSource source, Kind kind)
{
    Viewer& v = context().scene(source);
    bool ok = true;
    switch (kind) {
    case eInteractiveOrbit:
    case eInteractiveStill:
    case eInteractiveRedrawn: {
        const Camera start = v.camera; // the other rows look from where the scene's camera is
        v.renderer->setTimingEnabled(true);
        ok = v.interactiveFrame(); // warm: targets, programs, environment
        for (auto _ : state) {
            if (kind == eInteractiveOrbit)
                v.orbit();
            if (kind == eInteractiveRedrawn)
                v.renderer->invalidateShadows();
            ok = v.interactiveFrame() && ok;
        }
        state.SetLabel(qPrintable(v.renderer->lastFrameTimings().toString()));
        v.renderer->setTimingEnabled(false);
        v.camera = start;
        break;
    }
    case eInteractivePost:
        ok = v.interactiveFrame();
        for (auto _ : state)
            ok = v.interactiveFrame(false) && ok;
        break;
    case eFull:
        ok = v.fullFrame(*v.renderer);
        for (auto _ : state)
            ok = v.fullFrame(*v.renderer) && ok;
        break;
    case eFloor:
        for (auto _ : state)
            ok = v.floorFrame() && ok;
        break;
    case eFirstFrame:
    case eFirstFrameNewSky: {
        ok = v.fullFrame(*v.renderer); // the programs built once in this process
        float sunHeight = 0.5f;
        for (auto _ : state) {
            auto fresh = std::make_unique<SceneRenderer>(&v.manager);
            // A sun no renderer has lit a sky with.
            sunHeight = sunHeight > 0.9f ? 0.5f : sunHeight + 0.01f;
            if (kind == eFirstFrameNewSky)
                ok = fresh->setProceduralSky(QVector3D(0.4f, sunHeight, 0.3f)) && ok;
            ok = v.fullFrame(*fresh) && ok;
            state.PauseTiming();
            fresh.reset();
            state.ResumeTiming();
        }
        break;
    }
    default:
        break;
    }
    if (!ok)
        state.SkipWithError("a frame failed");
}

void importing(benchmark::State& state, SceneSource source)
{
    context();
    SamplerTextureManager manager;
    const auto once = [&] {
        GPUModel model;
        QObject lights;
        GLTFImporter importer(&manager);
        const bool imported = import(importer, source, model, &lights);
        model.clear();
        manager.clear();
        return imported;
    };
    // One import first: the driver compiles the programs of its own upload and mipmap passes once
    // per process, which is no part of a scene's import.
    bool ok = once();
    for (auto _ : state)
        ok = once() && ok; // the clean-up inside is small beside the import
    if (!ok)
        state.SkipWithError("the import failed");
}

// The pictures the materials use, decoded and converted as the importer does, one at a time.
void decoding(benchmark::State& state, SceneSource source)
{
    GLTFSceneReader reader;
    const std::unique_ptr<SceneData> scene =
        source.path.isEmpty() ? reader.readFromMemory(DemoScene::glb(), QString()) : reader.read(source.path);
    if (!scene) {
        state.SkipWithError("the scene could not be read");
        return;
    }
    int pictures = 0;
    for (auto _ : state) {
        pictures = 0;
        for (const SceneData::Image& image : scene->images) {
            QImage decoded;
            if (decoded.loadFromData(image.bytes)) {
                benchmark::DoNotOptimize(decoded.convertToFormat(QImage::Format_ARGB32).constBits());
                ++pictures;
            }
        }
    }
    state.SetLabel(std::to_string(pictures) + " pictures");
}

class Reporter : public benchmark::ConsoleReporter
{
public:
    void ReportRuns(const std::vector<Run>& runs) override
    {
        ConsoleReporter::ReportRuns(runs);
        for (const Run& run : runs)
            if (!run.error_occurred && run.iterations > 0)
                wall[QString::fromStdString(run.benchmark_name())] = run.GetAdjustedRealTime();
    }
    QMap<QString, double> wall; // milliseconds

    double get(const char* scene, Kind kind) const
    {
        for (auto it = wall.begin(); it != wall.end(); ++it)
            if (it.key().startsWith(QStringLiteral("%1/%2").arg(QLatin1String(scene), QLatin1String(kKindNames[kind]))))
                return it.value();
        return -1;
    }
};

void summarise(const Reporter& r, const char* scene)
{
    const double floor = r.get(scene, eFloor), decode = r.get(scene, eDecode), import = r.get(scene, eImport);
    const double first = r.get(scene, eFirstFrame), full = r.get(scene, eFull);
    std::printf("%s (wall ms; floor %.1f, one-thread decode %.1f)\n", scene, floor, decode);
    for (Kind k : {eInteractiveOrbit, eInteractiveStill}) {
        const double t = r.get(scene, k);
        std::printf("  %-22s %7.1f ms  %5.2fx floor   target <= 80 ms and <= 3x: %s\n", kKindNames[k], t, t / floor,
                    t >= 0 && t <= 80 && t <= 3 * floor ? "met" : "missed");
    }
    const double still = r.get(scene, eInteractiveStill), redrawn = r.get(scene, eInteractiveRedrawn);
    std::printf("  %-22s %7.1f ms  %5.2fx floor   still frame with kept shadows: %.2fx this\n",
                "shadows_redrawn", redrawn, redrawn / floor, still / redrawn);
    const double post = r.get(scene, eInteractivePost);
    std::printf("  %-22s %7.1f ms  %5.2fx floor   (of the interactive frame: FXAA and the blit alone)\n",
                "fxaa_blit_only", post, post / floor);
    std::printf("  %-22s %7.1f ms  %5.2fx floor\n", kKindNames[eFull], full, full / floor);
    std::printf("  %-22s %7.1f ms                target <= 300 ms: %s\n", kKindNames[eFirstFrame], first,
                first >= 0 && first <= 300 ? "met" : "missed");
    const double newSky = r.get(scene, eFirstFrameNewSky);
    std::printf("  %-22s %7.1f ms                (making the sky's lighting maps: %.1f ms more)\n",
                kKindNames[eFirstFrameNewSky], newSky, newSky - first);
    if (decode > 0.05)
        std::printf("  %-22s %7.1f ms  %5.2fx decode  target <= 1.3x: %s\n", kKindNames[eImport], import,
                    import / decode, import >= 0 && import <= 1.3 * decode ? "met" : "missed");
    else
        std::printf("  %-22s %7.1f ms  (no pictures to decode: no ratio)\n", kKindNames[eImport], import);
}

} // namespace

int main(int argc, char** argv)
{
    benchmark::Initialize(&argc, argv);
    const QString data = QStringLiteral(VYX_BENCH_DATA_DIR "/gltf/DamagedHelmet/glTF-Binary/DamagedHelmet.glb");
    std::vector<SceneSource> sources = {{"demo", QString()}};
    if (QFileInfo::exists(data))
        sources.insert(sources.begin(), {"helmet", data});
    else
        std::fprintf(stderr, "%s is missing: the demo scene alone\n", qPrintable(data));
    for (const SceneSource& s : sources) {
        const std::string prefix = std::string(s.name) + "/";
        for (Kind k : {eFloor, eInteractiveOrbit, eInteractiveStill, eInteractiveRedrawn, eInteractivePost, eFull,
                       eFirstFrame, eFirstFrameNewSky})
            benchmark::RegisterBenchmark((prefix + kKindNames[k]).c_str(), frames, s, k)
                ->Unit(benchmark::kMillisecond)
                ->UseRealTime()
                ->MinTime(k == eFirstFrame || k == eFirstFrameNewSky ? 3.0 : 2.0);
        benchmark::RegisterBenchmark((prefix + kKindNames[eImport]).c_str(), importing, s)
            ->Unit(benchmark::kMillisecond)
            ->UseRealTime()
            ->MinTime(2.0);
        benchmark::RegisterBenchmark((prefix + kKindNames[eDecode]).c_str(), decoding, s)
            ->Unit(benchmark::kMillisecond)
            ->UseRealTime();
    }
    Reporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    std::printf("\n");
    for (const SceneSource& s : sources)
        summarise(reporter, s.name);
    context().viewer.reset();
    benchmark::Shutdown();
    return 0;
}
