// What the binding bookkeeping costs per call once the GL has nothing left to do: identifying the
// current context, a nested bind+unbind of a texture that is already bound (against a first bind
// that takes a unit and calls glBindTexture), and a bind+unbind of a uniform buffer that already
// holds its binding point. Each runs with the library's headless EGL
// context current and again with a Qt context current; the Qt runs need an X display (Xvfb will
// do) and are skipped without one.
#include "gl/drawing/opengldevicecontext.h"
#include "gl/glloader.h"
#include "gl/objects/bufferobject.h"
#include "gl/objects/texture.h"
#include "gl/objects/uniformbufferobject.h"
#include "gl/platform/glcontexttracker.h"
#include "gl/platform/glutilities.h"
#include "gl/platform/headlesscontext.h"
#include "gl/shaders/shaderprogram.h"

#include <QGuiApplication>
#include <QOffscreenSurface>
#include <QOpenGLContext>

#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>

using namespace Tavren::Vyx;

namespace {

// One way of having a context current.
struct CurrentContext
{
    const char* label;
    std::function<bool()> makeCurrent;
    std::function<void()> doneCurrent;
};

void IdentifyCurrentContext(benchmark::State& state)
{
    for (auto _ : state)
        benchmark::DoNotOptimize(GLContextTracker::currentContext());
}

void NestedBindOfBoundTexture(benchmark::State& state)
{
    Texture texture;
    texture.create2D(GL_TEXTURE_2D, GL_RGBA8, 4, 4);
    texture.bind();
    for (auto _ : state) {
        texture.bind();
        texture.unbind();
    }
    texture.unbind();
}

void FirstBindTakesAUnit(benchmark::State& state)
{
    Texture texture;
    texture.create2D(GL_TEXTURE_2D, GL_RGBA8, 4, 4);
    for (auto _ : state) {
        texture.bind();
        texture.unbind();
    }
}

void BindHeldUniformBuffer(benchmark::State& state)
{
    ShaderProgram program;
    program.addShader(GL_VERTEX_SHADER, "#version 150\nlayout(std140) uniform Colors { vec4 u_Color; };\n"
                                        "void main() { gl_Position = u_Color; }\n");
    if (!program.link()) {
        state.SkipWithError("program did not link");
        return;
    }
    auto buffer = OpenGLDeviceContext::current()->newBuffer();
    buffer->setTarget(GL_UNIFORM_BUFFER);
    buffer->bind();
    buffer->upload(QVector<float>(4, 1.0f), GL_STATIC_DRAW);
    buffer->unbind();
    auto ubo = OpenGLDeviceContext::current()->newUniformBuffer("Colors", buffer);
    ubo->bind(&program);
    for (auto _ : state) {
        ubo->bind(&program);
        ubo->unbind(&program);
    }
    ubo->unbind(&program);
}

void registerWith(const CurrentContext& context)
{
    const std::pair<const char*, void (*)(benchmark::State&)> cases[] = {
        {"IdentifyCurrentContext", IdentifyCurrentContext},
        {"NestedBindOfBoundTexture", NestedBindOfBoundTexture},
        {"FirstBindTakesAUnit", FirstBindTakesAUnit},
        {"BindHeldUniformBuffer", BindHeldUniformBuffer},
    };
    for (const auto& [name, run] : cases) {
        benchmark::RegisterBenchmark((std::string(name) + "/" + context.label).c_str(),
                                     [context, run = run](benchmark::State& state) {
                                         if (!context.makeCurrent()) {
                                             state.SkipWithError("context could not be made current");
                                             return;
                                         }
                                         OpenGLDeviceContext::resetContext();
                                         run(state);
                                         OpenGLDeviceContext::resetContext();
                                         context.doneCurrent();
                                     });
    }
}

} // namespace

int main(int argc, char** argv)
{
    setenv("EGL_PLATFORM", "surfaceless", 0);
    // The offscreen platform reports a missing display instead of aborting; under an X server it
    // makes GLX contexts with pbuffer surfaces.
    setenv("QT_QPA_PLATFORM", "offscreen", 0);
    QGuiApplication app(argc, argv);

    HeadlessGLContext headless;
    if (!headless.create() || !headless.makeCurrent() || !initializeGLFunctions()) {
        std::fprintf(stderr, "no headless EGL context: %s\n", qPrintable(headless.errorString()));
        return 1;
    }
    headless.doneCurrent();
    registerWith({"EGL", [&] { return headless.makeCurrent(); }, [&] { headless.doneCurrent(); }});

    QSurfaceFormat format;
    format.setVersion(3, 2);
    format.setProfile(QSurfaceFormat::CoreProfile);
    QOpenGLContext qtContext;
    QOffscreenSurface surface;
    qtContext.setFormat(format);
    surface.setFormat(format);
    surface.create();
    if (std::getenv("DISPLAY") && qtContext.create() && surface.isValid()) {
        registerWith({"Qt", [&] { return qtContext.makeCurrent(&surface); }, [&] { qtContext.doneCurrent(); }});
    } else {
        std::fprintf(stderr, "Qt context benchmarks skipped: no X display with GLX (run under Xvfb)\n");
    }

    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
