// Environment lighting on the GPU at hand (llvmpipe renders on the CPU, so these figures are CPU
// time of the "GPU" work), each step timed against the implementation it replaced in the same
// run: wall time as old_ms, new_ms and speedup (old / new), and the process's CPU time, which a
// busy machine disturbs less, as old_cpu_ms, new_cpu_ms and cpu_speedup:
//   Irradiance   the N.L convolution (createGLCubemapNDotLFromGLCubemap, kept as a utility)
//                against createIrradianceCubemapFromGLCubemap, a 32^2 diffuse map each;
//   Prefiltered  the shader of f2d6b99 (bench/legacy: GGX importance sampling, 64 samples a
//                texel, linear roughness levels) against the split environment with filtered
//                importance sampling at its default 64 samples, 128^2 with 6 levels, as
//                SceneRenderer makes it;
//   BRDFTable    the shader of f2d6b99 (bench/legacy: separable Smith, 1024 Hammersley points)
//                against the height-correlated quadrature at 1024 points, 128^2;
// and, unchanged, the lat-long conversion and the SH projection for scale. Every step reads a
// 256^2 cube map made from argument 0, the 256x128 test file, or 1, a 2048x1024 sky made here.
//
// The same steps with Debian's cmgen (apt-get install libfilament-tools), a multi-threaded CPU
// tool, on the same file; each run loads the picture and makes its own cube map first:
//   H=../shared/testdata/hdr/loadersgl_royal_esplanade_256_latlong.hdr; mkdir -p out
//   time cmgen --quiet --size=256 --format=rgb32f --extract=out $H         # cube map
//   time cmgen --quiet --size=32 --format=rgb32f --ibl-irradiance=out $H   # diffuse map
//   time cmgen --quiet --size=128 --format=rgb32f --ibl-ld=out $H          # prefiltered levels
//   time cmgen --quiet --size=128 --ibl-dfg=out/dfg.hdr                    # BRDF table
//   time cmgen --quiet --sh=3 --sh-irradiance --sh-output=out/sh.txt $H    # SH
// One run on the 2-core CI machine (user CPU time, process start and file input and output
// included): 0.25, 0.46, 3.3, 0.77 and 0.31 s.
#include "gl/drawing/drawbuffers.h"
#include "gl/drawing/opengldevicecontext.h"
#include "gl/environment/okuimagecubemaputils.h"
#include "gl/environment/okurendercubemap.h"
#include "gl/glloader.h"
#include "gl/objects/framebufferobject.h"
#include "gl/objects/texture.h"
#include "gl/objects/vertexarrayobject.h"
#include "gl/platform/bindable.h"
#include "gl/platform/glutilities.h"
#include "gl/platform/headlesscontext.h"
#include "gl/shaders/shaderprogram.h"
#include "gl/textureio/textureio.h"

#include <benchmark/benchmark.h>

#include <sys/resource.h>

#include <chrono>
#include <cmath>
#include <cstdlib>
#include <functional>
#include <memory>
#include <vector>

using namespace Tavren::Vyx;
using namespace Tavren::Vyx::OkuImageCubemapUtils;

namespace {

const unsigned int kCubeSize = 256;
const unsigned int kDiffuseSize = 32;
const unsigned int kPrefilteredSize = 128;
const int kPrefilteredLevels = 6;
const unsigned int kTableSize = 128;

void benchContext()
{
    static HeadlessGLContext context;
    static bool ready = [] {
        setenv("EGL_PLATFORM", "surfaceless", 0);
        if (!context.create() || !context.makeCurrent() || !initializeGLFunctions())
            return false;
        OpenGLDeviceContext::resetContext();
        return true;
    }();
    if (!ready)
        std::abort();
}

// A sky gradient with a small bright sun, as GL_RGB32F.
Texture* madeLatLong(int width, int height)
{
    std::vector<float> texels;
    texels.reserve(size_t(width) * size_t(height) * 3);
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x) {
            const float u = (x + 0.5f) / width, v = (y + 0.5f) / height;
            const float sun = std::exp(-((u - 0.3f) * (u - 0.3f) + (v - 0.25f) * (v - 0.25f)) * 4000.0f) * 500.0f;
            texels.insert(texels.end(), {0.2f + v + sun, 0.3f + 0.5f * v + sun, 0.6f + sun * 0.9f});
        }
    auto* texture = new Texture();
    texture->create2D(GL_TEXTURE_2D, GL_RGB32F, width, height);
    texture->bind();
    glTexSubImage2D(GL_TEXTURE_2D, 0, 0, 0, width, height, GL_RGB, GL_FLOAT, texels.data());
    texture->unbind();
    return texture;
}

Texture* source(int which)
{
    benchContext();
    static std::unique_ptr<Texture> sources[2];
    if (!sources[which]) {
        sources[which].reset(which == 0 ? LoadTextureFromFile(QStringLiteral(VYX_BENCH_DATA_DIR
                                                                             "/hdr/loadersgl_royal_esplanade_256_latlong.hdr"),
                                                              TextureFileInfo())
                                        : madeLatLong(2048, 1024));
    }
    if (!sources[which])
        std::abort();
    return sources[which].get();
}

Texture* cube(int which)
{
    static std::unique_ptr<Texture> cubes[2];
    if (!cubes[which])
        cubes[which].reset(createGLCubemapFromTexture(source(which), SourceLatLong, kCubeSize, ColorSpaceLinear));
    return cubes[which].get();
}

// The prefiltered map of f2d6b99: every level importance-sampled from the whole source.
class LegacyPrefiltered : public OkuRenderCubemapBaseTexture
{
public:
    explicit LegacyPrefiltered(Texture* cubemap)
        : OkuRenderCubemapBaseTexture(cubemap, GL_LINEAR_MIPMAP_LINEAR, GL_LINEAR)
    {
        setSeamless(true);
    }
    float roughness = 0.0f;

protected:
    QString vertexShaderFile() const override { return QStringLiteral("prefilteredEnvMapVS.glslc"); }
    QString fragmentShaderFile() const override
    {
        return QStringLiteral(VYX_BENCH_SOURCE_DIR "/legacy/prefilteredEnvMapFS_f2d6b99.glslc");
    }
    QStringList extraFragmentShaderFiles() const override { return {QStringLiteral("ImportanceSample.glslc")}; }
    bool begin(ShaderProgram& program, int firstLayer, int layerCount) override
    {
        if (!OkuRenderCubemapBaseTexture::begin(program, firstLayer, layerCount))
            return false;
        GLint size = 0;
        glGetTexLevelParameteriv(GL_TEXTURE_CUBE_MAP_POSITIVE_X, 0, GL_TEXTURE_WIDTH, &size);
        program.setUniform(QStringLiteral("u_Roughness"), QVariant(roughness));
        program.setUniform(QStringLiteral("u_SampleCount"), QVariant(64));
        program.setUniform(QStringLiteral("u_SourceSize"), QVariant(float(size)));
        return true;
    }
};

std::unique_ptr<Texture> legacyPrefiltered(Texture* cubemap)
{
    auto result = std::make_unique<Texture>();
    result->setTarget(GL_TEXTURE_CUBE_MAP);
    result->bind();
    glTexParameteri(GL_TEXTURE_CUBE_MAP, GL_TEXTURE_MIN_FILTER, GL_LINEAR_MIPMAP_LINEAR);
    glTexParameteri(GL_TEXTURE_CUBE_MAP, GL_TEXTURE_MAX_LEVEL, kPrefilteredLevels - 1);
    for (int level = 0; level < kPrefilteredLevels; ++level)
        for (GLenum face = 0; face < 6; ++face)
            glTexImage2D(GL_TEXTURE_CUBE_MAP_POSITIVE_X + face, level, GL_RGBA32F, GLsizei(kPrefilteredSize >> level),
                         GLsizei(kPrefilteredSize >> level), 0, GL_RGBA, GL_FLOAT, nullptr);
    result->unbind();
    LegacyPrefiltered renderer(cubemap);
    for (int level = 0; level < kPrefilteredLevels; ++level) {
        renderer.roughness = float(level) / float(kPrefilteredLevels - 1);
        if (!renderer.render(result.get(), level))
            std::abort();
    }
    return result;
}

// The BRDF table of f2d6b99.
std::unique_ptr<Texture> legacyBRDFTable()
{
    // Made once and kept to the end: the context goes before static destructors would run.
    static ShaderProgram& program = *new ShaderProgram();
    if (!program.isLinked()) {
        program.addShaderFromFile(GL_VERTEX_SHADER, QStringLiteral("preintegratedBRDFTableVS.glslc"));
        program.addShaderFromFile(GL_FRAGMENT_SHADER,
                                  QStringLiteral(VYX_BENCH_SOURCE_DIR "/legacy/preintegratedBRDFTableFS_f2d6b99.glslc"));
        program.addShaderFromFile(GL_FRAGMENT_SHADER, QStringLiteral("ImportanceSample.glslc"));
        program.setFragDataLocations({QStringLiteral("out_FragColor")});
        if (!program.compile() || !program.link())
            std::abort();
    }
    const QSharedPointer<DrawBuffers> quad = OpenGLDeviceContext::current()->fullscreenQuad();
    FramebufferObject fbo;
    fbo.bind();
    std::unique_ptr<Texture> table(
        fbo.createTexture2D(GL_COLOR_ATTACHMENT0, GL_RG16F, GL_RG, GL_HALF_FLOAT, int(kTableSize), int(kTableSize)));
    program.bind();
    AutoDisabler depthTest(GL_DEPTH_TEST);
    glViewport(0, 0, GLsizei(kTableSize), GLsizei(kTableSize));
    fbo.setDrawBuffers();
    program.setUniform(QStringLiteral("u_SampleCount"), QVariant(1024));
    quad->VAO()->bind();
    quad->VAO()->enableShaderProgramArrays(&program);
    quad->draw(&program);
    quad->VAO()->unbind();
    program.unbind();
    fbo.detachAll();
    fbo.unbind();
    return table;
}

// CPU time of the whole process, llvmpipe's rendering threads included: on a shared machine
// it moves less with other work than the wall clock does.
double processCpuMs()
{
    rusage usage {};
    getrusage(RUSAGE_SELF, &usage);
    return (double(usage.ru_utime.tv_sec) + double(usage.ru_stime.tv_sec)) * 1e3 +
           (double(usage.ru_utime.tv_usec) + double(usage.ru_stime.tv_usec)) * 1e-3;
}

// Times the old and the new way of a step once per iteration, each to its glFinish: wall time
// (old_ms, new_ms, speedup) and the process's CPU time (old_cpu_ms, new_cpu_ms, cpu_speedup).
void compare(benchmark::State& state, const std::function<void()>& before, const std::function<void()>& after)
{
    using Clock = std::chrono::steady_clock;
    double oldMs = 0, newMs = 0, oldCpu = 0, newCpu = 0;
    for (auto _ : state) {
        const auto start = Clock::now();
        const double cpuStart = processCpuMs();
        before();
        glFinish();
        const auto middle = Clock::now();
        const double cpuMiddle = processCpuMs();
        after();
        glFinish();
        const auto end = Clock::now();
        const double cpuEnd = processCpuMs();
        oldMs += std::chrono::duration<double, std::milli>(middle - start).count();
        newMs += std::chrono::duration<double, std::milli>(end - middle).count();
        oldCpu += cpuMiddle - cpuStart;
        newCpu += cpuEnd - cpuMiddle;
    }
    state.counters["old_ms"] = oldMs / double(state.iterations());
    state.counters["new_ms"] = newMs / double(state.iterations());
    state.counters["speedup"] = oldMs / newMs;
    state.counters["old_cpu_ms"] = oldCpu / double(state.iterations());
    state.counters["new_cpu_ms"] = newCpu / double(state.iterations());
    state.counters["cpu_speedup"] = oldCpu / newCpu;
}

void LatLongToCube(benchmark::State& state)
{
    Texture* latLong = source(int(state.range(0)));
    for (auto _ : state) {
        std::unique_ptr<Texture> result(createGLCubemapFromTexture(latLong, SourceLatLong, kCubeSize, ColorSpaceLinear));
        glFinish();
    }
}
BENCHMARK(LatLongToCube)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

void Irradiance(benchmark::State& state)
{
    Texture* environment = cube(int(state.range(0)));
    compare(
        state,
        [&] { std::unique_ptr<Texture>(createGLCubemapNDotLFromGLCubemap(environment, kDiffuseSize, 1, 0, 1.0f)); },
        [&] { std::unique_ptr<Texture>(createIrradianceCubemapFromGLCubemap(environment, kDiffuseSize)); });
}
BENCHMARK(Irradiance)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->Iterations(1);

void Prefiltered(benchmark::State& state)
{
    Texture* environment = cube(int(state.range(0)));
    compare(
        state, [&] { legacyPrefiltered(environment); },
        [&] {
            std::unique_ptr<Texture>(
                createPrefilteredEnvMapFromGLCubemap(environment, kPrefilteredSize, kPrefilteredLevels));
        });
}
BENCHMARK(Prefiltered)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->Iterations(3);

void BRDFTable(benchmark::State& state)
{
    benchContext();
    compare(
        state, [] { legacyBRDFTable(); }, [] { std::unique_ptr<Texture>(createPreintegratedBRDFTable(kTableSize)); });
}
BENCHMARK(BRDFTable)->Unit(benchmark::kMillisecond)->Iterations(3);

void SHIrradiance(benchmark::State& state)
{
    Texture* environment = cube(int(state.range(0)));
    for (auto _ : state)
        benchmark::DoNotOptimize(computeIrradianceSHFromGLCubemap(environment));
}
BENCHMARK(SHIrradiance)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
