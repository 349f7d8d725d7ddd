// CPU time of one frame of CesiumMan walking (the animation posed, joint matrices uploaded, the
// scene drawn at 640x360 and finished) against the same mesh standing with its skin switched off
// in its object records: what skinning adds to a frame. Measured on llvmpipe, where the vertex
// work itself runs on the CPU inside the frame, and again in a child process on Mesa's no-op
// driver (GALLIUM_NOOP=1, unthreaded), where only the CPU work a GPU would leave remains. CPU
// time is the whole process's, so llvmpipe's rasteriser threads count.
// Target: skinned at most 1.2x unskinned.
#include "benchtarget.h"
#include "gl/drawing/camera.h"
#include "gl/instancedata/instancedatacollection.h"
#include "gl/model/gpumodel.h"
#include "gl/objects/framebufferobject.h"
#include "gl/platform/bindable.h"
#include "render/gltfimporter.h"
#include "render/sceneanimator.h"
#include "render/sceneframing.h"
#include "render/scenerenderer.h"

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <memory>

using namespace Tavren::Vyx;

namespace {

constexpr int kWidth = 640, kHeight = 360;
constexpr const char* kChildTag = "no-op";

struct Frames
{
    HeadlessGLContext context;
    GPUModel skinned, still; // owning their drawables: cleared before the context goes
    QObject lights;
    std::unique_ptr<SceneAnimator> animator;
    // One renderer per model, so that each keeps its shadow maps while the other draws.
    std::unique_ptr<SceneRenderer> renderer, stillRenderer;
    std::unique_ptr<FramebufferObject> target;
    Camera camera;

    Frames()
    {
        setenv("EGL_PLATFORM", "surfaceless", 0);
        if (!context.create() || !context.makeCurrent() || !initializeGLFunctions())
            std::abort();
        OpenGLDeviceContext::resetContext();
        const QString file = QStringLiteral(VYX_BENCH_DATA_DIR "/gltf/CesiumMan/glTF-Binary/CesiumMan.glb");
        GLTFImporter importer;
        skinned.setDeleteOnClear(true);
        still.setDeleteOnClear(true);
        if (!importer.load(file, skinned, &lights) || !(animator = importer.takeAnimator()) || animator->animationCount() < 1 ||
            !importer.load(file, still, &lights))
            std::abort();
        // The same records with SkinData zeroed: every vertex stays where the file put it.
        const int off[4] = {0, 0, 0, 0};
        for (int d = 0; d < still.numDrawables(); ++d)
            for (int c = 0; c < still.drawable(d).transformRefs.size(); ++c)
                still.objectData(d)->set(c, QStringLiteral("SkinData"), off, sizeof(off));
        animator->setTime(0, 0.0f); // widens the boxes once, outside the timing
        camera = SceneFraming::framingCamera(skinned.sceneBounds(), float(kWidth) / kHeight);
        renderer = std::make_unique<SceneRenderer>();
        renderer->setSamples(1);
        stillRenderer = std::make_unique<SceneRenderer>();
        stillRenderer->setSamples(1);
        target = std::make_unique<FramebufferObject>();
        {
            AutoBinder bound(target.get());
            if (!target->createRenderbuffer(GL_COLOR_ATTACHMENT0, GL_RGBA8, kWidth, kHeight, 1) ||
                !target->createRenderbuffer(GL_DEPTH_ATTACHMENT, GL_DEPTH_COMPONENT24, kWidth, kHeight, 1))
                std::abort();
        }
        // Programs and environment maps are made by the first frame, outside the timing.
        draw(still);
        draw(skinned);
    }

    ~Frames()
    {
        // Everything GL goes while the context is still there.
        target.reset();
        renderer.reset();
        stillRenderer.reset();
        animator.reset();
        skinned.clear();
        still.clear();
    }

    // The walk a sixtieth of a second on, round the first two seconds.
    void step(float& time)
    {
        time = time > 2.0f ? 0.0f : time + 1.0f / 60;
        animator->setTime(0, time);
    }

    void draw(GPUModel& model)
    {
        AutoBinder bound(target.get());
        glViewport(0, 0, kWidth, kHeight);
        SceneRenderer& with = &model == &still ? *stillRenderer : *renderer;
        if (!with.render(model, camera, QSize(kWidth, kHeight)))
            std::abort();
        glFinish();
    }
};

// Made and destroyed by main(), so that it goes before the library's own statics.
Frames* theFrames = nullptr;

Frames& frames()
{
    return *theFrames;
}

void Unskinned(benchmark::State& state)
{
    Frames& f = frames();
    for (auto _ : state)
        f.draw(f.still);
}

void Skinned(benchmark::State& state)
{
    Frames& f = frames();
    float time = 0.0f;
    for (auto _ : state) {
        f.step(time);
        f.draw(f.skinned);
    }
}

double processSeconds()
{
    timespec now{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return double(now.tv_sec) + 1e-9 * double(now.tv_nsec);
}

// Blocks of unskinned and skinned frames in turn, each timed on the process's CPU clock: a slow
// spell of this shared machine then slows both alike, where the two runs above lie seconds apart.
// The summary's ratio comes from here.
void Interleaved(benchmark::State& state)
{
    constexpr int kBlock = 8;
    Frames& f = frames();
    float time = 0.0f;
    double unskinned = 0, skinned = 0;
    int64_t count = 0;
    for (auto _ : state) {
        const double start = processSeconds();
        for (int i = 0; i < kBlock; ++i)
            f.draw(f.still);
        const double middle = processSeconds();
        for (int i = 0; i < kBlock; ++i) {
            f.step(time);
            f.draw(f.skinned);
        }
        unskinned += middle - start;
        skinned += processSeconds() - middle;
        count += kBlock;
    }
    state.counters["unskinned_ms"] = 1e3 * unskinned / double(std::max<int64_t>(count, 1));
    state.counters["skinned_ms"] = 1e3 * skinned / double(std::max<int64_t>(count, 1));
}

// The posing alone: sampling, world matrices, joint matrices and their upload.
void PoseOnly(benchmark::State& state)
{
    Frames& f = frames();
    float time = 0.0f;
    for (auto _ : state) {
        f.step(time);
        f.skinned.updateTransforms();
    }
}

BENCHMARK(PoseOnly)->MeasureProcessCPUTime()->Unit(benchmark::kMillisecond);
BENCHMARK(Unskinned)->MeasureProcessCPUTime()->Unit(benchmark::kMillisecond);
BENCHMARK(Skinned)->MeasureProcessCPUTime()->Unit(benchmark::kMillisecond);
BENCHMARK(Interleaved)->MeasureProcessCPUTime()->Unit(benchmark::kMillisecond)->MinTime(2.0);

// The same two runs on the no-op driver, from a child (the driver is chosen with the context).
QMap<QString, double> noopTimes(const char* self)
{
    QMap<QString, double> times;
    if (std::string(self).find('\'') != std::string::npos)
        return times;
    const std::string command = "GALLIUM_NOOP=1 GALLIUM_THREAD=0 VYX_BENCH_NOOP_CHILD=1 '" + std::string(self) +
                                "' --benchmark_color=false 2>/dev/null";
    FILE* child = popen(command.c_str(), "r");
    if (!child)
        return times;
    char line[512];
    while (std::fgets(line, sizeof line, child)) {
        // The console reporter's colour reset can come first on the line.
        const QString text = QString::fromLatin1(line);
        const QStringList words = text.mid(std::max(0, int(text.indexOf(QLatin1String(kChildTag))))).simplified().split(' ');
        if (words.size() == 3 && words[0] == kChildTag)
            times[words[1]] = words[2].toDouble();
    }
    pclose(child);
    return times;
}

class Reporter : public VyxBench::CpuTimeReporter
{
public:
    void ReportRuns(const std::vector<Run>& runs) override
    {
        CpuTimeReporter::ReportRuns(runs);
        for (const Run& run : runs)
            for (const auto& [name, counter] : run.counters)
                cpuTimes[QString::fromStdString(run.benchmark_name() + "/" + name)] = counter.value;
    }
    const QMap<QString, double>& times() const { return cpuTimes; }
};

} // namespace

int main(int argc, char** argv)
{
    const bool child = qEnvironmentVariableIsSet("VYX_BENCH_NOOP_CHILD");
    benchmark::Initialize(&argc, argv);
    theFrames = new Frames; // import and first-frame set-up stay out of the timing
    Reporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    delete theFrames;
    const QMap<QString, double>& own = reporter.times();
    if (child) {
        for (auto it = own.cbegin(); it != own.cend(); ++it)
            std::printf("%s %s %.4f\n", kChildTag, qPrintable(it.key()), it.value());
        return 0;
    }
    const QMap<QString, double> noop = noopTimes(argv[0]);
    std::printf("\nCPU time per frame (ms), interleaved: unskinned, skinned, skinned/unskinned (target at most 1.2)\n");
    for (const auto& [name, t] : {std::make_pair("llvmpipe", own), std::make_pair("no-op driver", noop)}) {
        const double a = t.value("Interleaved/min_time:2.000/process_time/unskinned_ms", -1);
        const double b = t.value("Interleaved/min_time:2.000/process_time/skinned_ms", -1);
        if (a > 0 && b > 0)
            std::printf("  %-14s %8.3f %8.3f %6.3f\n", name, a, b, b / a);
    }
    return 0;
}
