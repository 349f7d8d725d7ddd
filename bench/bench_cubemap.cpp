// Environment lighting on the GPU at hand (llvmpipe renders on the CPU): a lat-long image into a
// 256^2 cube map, then the diffuse N.L map, the SH irradiance, and the prefiltered specular map
// with the BRDF table. Argument 0 is the 256x128 test file, 1 a 2048x1024 image made here.
// SHOverNDotL times both diffuse paths in one run and reports their ratio.
#include "gl/drawing/opengldevicecontext.h"
#include "gl/environment/okuimagecubemaputils.h"
#include "gl/glloader.h"
#include "gl/objects/texture.h"
#include "gl/platform/glutilities.h"
#include "gl/platform/headlesscontext.h"
#include "gl/textureio/textureio.h"

#include <benchmark/benchmark.h>

#include <chrono>
#include <cmath>
#include <cstdlib>
#include <memory>
#include <vector>

using namespace Tavren::Vyx;
using namespace Tavren::Vyx::OkuImageCubemapUtils;

namespace {

const unsigned int kCubeSize = 256;
const unsigned int kNDotLSize = 32;

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

void LatLongToCube(benchmark::State& state)
{
    Texture* latLong = source(int(state.range(0)));
    for (auto _ : state) {
        std::unique_ptr<Texture> result(createGLCubemapFromTexture(latLong, SourceLatLong, kCubeSize, ColorSpaceLinear));
        glFinish();
    }
}
BENCHMARK(LatLongToCube)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

void NDotLMap(benchmark::State& state)
{
    Texture* environment = cube(int(state.range(0)));
    for (auto _ : state) {
        std::unique_ptr<Texture> result(createGLCubemapNDotLFromGLCubemap(environment, kNDotLSize, 1, 0, 1.0f));
        glFinish();
    }
}
BENCHMARK(NDotLMap)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->Iterations(1);

void SHIrradiance(benchmark::State& state)
{
    Texture* environment = cube(int(state.range(0)));
    for (auto _ : state)
        benchmark::DoNotOptimize(computeIrradianceSHFromGLCubemap(environment));
}
BENCHMARK(SHIrradiance)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

void PrefilteredAndBRDFTable(benchmark::State& state)
{
    Texture* environment = cube(int(state.range(0)));
    for (auto _ : state) {
        std::unique_ptr<Texture> specular(createPrefilteredEnvMapFromGLCubemap(environment, kCubeSize, 5));
        std::unique_ptr<Texture> table(createPreintegratedBRDFTable(128));
        glFinish();
    }
}
BENCHMARK(PrefilteredAndBRDFTable)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->Iterations(1);

void SHOverNDotL(benchmark::State& state)
{
    Texture* environment = cube(0);
    using Clock = std::chrono::steady_clock;
    double nDotL = 0, sh = 0;
    for (auto _ : state) {
        const auto start = Clock::now();
        std::unique_ptr<Texture> result(createGLCubemapNDotLFromGLCubemap(environment, kNDotLSize, 1, 0, 1.0f));
        glFinish();
        const auto middle = Clock::now();
        benchmark::DoNotOptimize(computeIrradianceSHFromGLCubemap(environment));
        const auto end = Clock::now();
        nDotL += std::chrono::duration<double, std::milli>(middle - start).count();
        sh += std::chrono::duration<double, std::milli>(end - middle).count();
    }
    state.counters["NDotL_ms"] = nDotL / double(state.iterations());
    state.counters["SH_ms"] = sh / double(state.iterations());
    state.counters["ratio"] = nDotL / sh;
}
BENCHMARK(SHOverNDotL)->Unit(benchmark::kMillisecond)->Iterations(1);

} // namespace

BENCHMARK_MAIN();
