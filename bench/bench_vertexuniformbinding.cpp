// Per-draw cost of re-enabling a program's arrays on a vertex array that is already set up for
// it. Binding a uniform buffer that holds its binding point is in bench_bindingbookkeeping.
#include "gl/drawing/opengldevicecontext.h"
#include "gl/glloader.h"
#include "gl/objects/bufferobject.h"
#include "gl/objects/vertexarrayobject.h"
#include "gl/platform/glutilities.h"
#include "gl/platform/headlesscontext.h"
#include "gl/shaders/shaderprogram.h"

#include <benchmark/benchmark.h>

#include <cstdlib>

using namespace Tavren::Vyx;

namespace {

void benchContext()
{
    static HeadlessGLContext context;
    static bool ready = [] {
        setenv("EGL_PLATFORM", "surfaceless", 0);
        const bool made = context.create() && context.makeCurrent() && initializeGLFunctions();
        OpenGLDeviceContext::resetContext();
        return made;
    }();
    if (!ready)
        std::abort();
}

void linkProgram(ShaderProgram& program)
{
    program.addShader(GL_VERTEX_SHADER, "#version 150\nin vec3 va_Vertex;\nin vec2 va_TexCoord;\nin vec3 va_Normal;\n"
                                        "out vec4 vo_Colour;\nvoid main() { vo_Colour = vec4(va_TexCoord, va_Normal.x, 1.0); "
                                        "gl_Position = vec4(va_Vertex, 1.0); }\n");
    program.addShader(GL_FRAGMENT_SHADER, "#version 150\nlayout(std140) uniform Colors { vec4 u_Color; };\n"
                                          "in vec4 vo_Colour;\nout vec4 out_FragColor;\n"
                                          "void main() { out_FragColor = vo_Colour * u_Color; }\n");
    if (!program.link())
        std::abort();
}

void EnableArraysAgain(benchmark::State& state)
{
    benchContext();
    ShaderProgram program;
    linkProgram(program);
    auto vao = OpenGLDeviceContext::current()->newVAO();
    for (const char* name : {"va_Vertex", "va_TexCoord", "va_Normal"}) {
        auto buffer = OpenGLDeviceContext::current()->newBuffer();
        buffer->setTarget(GL_ARRAY_BUFFER);
        vao->upload(name, buffer, QVector<float>(12, 1.0f), 3, GL_STATIC_DRAW);
    }
    vao->bind();
    vao->enableShaderProgramArrays(&program);
    for (auto _ : state)
        benchmark::DoNotOptimize(vao->enableShaderProgramArrays(&program));
    vao->unbind();
}
BENCHMARK(EnableArraysAgain);

} // namespace

BENCHMARK_MAIN();
