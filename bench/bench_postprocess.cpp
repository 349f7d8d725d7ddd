// Anti-aliasing passes over one 1280x720 RGBA8 frame (a field of hard-edged stripes at several
// slopes, so many pixels take the edge paths), wall time with glFinish: on llvmpipe this is the
// rasteriser running the fragment shaders on the CPU. Baseline: the plain copy (mode none)
// through the same full-screen quad.
#include "benchtarget.h"
#include "gl/drawing/opengldevicecontext.h"
#include "gl/glloader.h"
#include "gl/objects/texture.h"
#include "gl/platform/glutilities.h"
#include "gl/platform/headlesscontext.h"
#include "render/postprocess.h"

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <memory>
#include <vector>

using namespace Tavren::Vyx;

namespace {

constexpr int kWidth = 1280;
constexpr int kHeight = 720;

std::unique_ptr<Texture> frameTexture(bool withScene)
{
    auto texture = std::make_unique<Texture>();
    texture->create2D(GL_TEXTURE_2D, GL_RGBA8, kWidth, kHeight);
    if (withScene) {
        std::vector<unsigned char> texels(size_t(kWidth) * kHeight * 4);
        for (int y = 0; y < kHeight; ++y) {
            for (int x = 0; x < kWidth; ++x) {
                const bool lit = (x / 160) % 2 ? int(y + 0.3f * x) / 40 % 2 : int(y * 0.8f + x) / 50 % 2;
                unsigned char* p = &texels[(size_t(y) * kWidth + x) * 4];
                p[0] = lit ? 230 : 30, p[1] = lit ? 220 : 40, p[2] = lit ? 180 : 90, p[3] = 255;
            }
        }
        texture->bind();
        glTexSubImage2D(GL_TEXTURE_2D, 0, 0, 0, kWidth, kHeight, GL_RGBA, GL_UNSIGNED_BYTE, texels.data());
        texture->unbind();
    }
    return texture;
}

void AntiAliasFrame(benchmark::State& state)
{
    HeadlessGLContext context;
    if (!VyxBench::makeHeadlessCurrent(context)) {
        state.SkipWithError("no GL context");
        return;
    }
    {
        const auto mode = PostProcess::Mode(state.range(0));
        auto source = frameTexture(true);
        auto destination = frameTexture(false);
        PostProcess post;
        if (!post.apply(mode, source.get(), destination.get())) {
            state.SkipWithError("pass failed");
            return;
        }
        glFinish();
        for (auto _ : state) {
            post.apply(mode, source.get(), destination.get());
            glFinish();
        }
        state.SetLabel(mode == PostProcess::eNone ? "copy (baseline)" : (mode == PostProcess::eFXAA ? "FXAA" : "SMAA"));
    }
    OpenGLDeviceContext::resetContext();
}

} // namespace

BENCHMARK(AntiAliasFrame)
    ->Arg(PostProcess::eNone)
    ->Arg(PostProcess::eFXAA)
    ->Arg(PostProcess::eSMAA)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

BENCHMARK_MAIN();
