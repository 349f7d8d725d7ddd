// Cost of Texture::bind()/unbind() on a texture that is already bound (nested scopes), against
// a first bind that takes a unit and calls glBindTexture.
#include "gl/glloader.h"
#include "gl/glutilities.h"
#include "gl/headlesscontext.h"
#include "gl/texture.h"

#include <benchmark/benchmark.h>

#include <cstdlib>

using namespace Tavren::Vyx;

namespace {

HeadlessGLContext& benchContext()
{
    static HeadlessGLContext context;
    static bool ready = [] {
        setenv("EGL_PLATFORM", "surfaceless", 0);
        return context.create() && context.makeCurrent() && initializeGLFunctions();
    }();
    if (!ready)
        std::abort();
    return context;
}

void NestedBindOfBoundTexture(benchmark::State& state)
{
    benchContext();
    Texture texture;
    texture.create2D(GL_TEXTURE_2D, GL_RGBA8, 4, 4);
    texture.bind();
    for (auto _ : state) {
        texture.bind();
        texture.unbind();
    }
    texture.unbind();
}
BENCHMARK(NestedBindOfBoundTexture);

void FirstBindTakesAUnit(benchmark::State& state)
{
    benchContext();
    Texture texture;
    texture.create2D(GL_TEXTURE_2D, GL_RGBA8, 4, 4);
    for (auto _ : state) {
        texture.bind();
        texture.unbind();
    }
}
BENCHMARK(FirstBindTakesAUnit);

} // namespace

BENCHMARK_MAIN();
