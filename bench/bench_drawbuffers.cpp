// CPU time to submit N small indexed draws, each with its own draw ID, on every DrawBuffers path,
// against the hand-written loop that sets a model-matrix uniform and calls glDrawElements per
// object. The target is 1x1, so rasterising costs next to nothing. Prints the ratios at the end.
#include "benchtarget.h"
#include "gl/drawing/drawbuffers.h"
#include "gl/drawing/opengldevicecontext.h"
#include "gl/glloader.h"
#include "gl/objects/bufferobject.h"
#include "gl/objects/vertexarrayobject.h"
#include "gl/platform/glutilities.h"
#include "gl/platform/headlesscontext.h"
#include "gl/shaders/glslmacroprocessor.h"
#include "gl/shaders/shaderprogram.h"

#include <benchmark/benchmark.h>

#include <QFile>
#include <QMap>
#include <QMatrix4x4>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <vector>

using namespace Tavren::Vyx;

namespace {

using VyxBench::resource;

// Everything the benchmarks share: a 1x1 target, one triangle, and the programs.
struct Scene : VyxBench::TriangleTarget
{
    std::unique_ptr<ShaderProgram> matrixProgram, uniformIDProgram, baseInstanceProgram;
    bool baseInstance = false, multiDraw = false;

    Scene()
    {
        matrixProgram = build(
            "#version 150\nuniform mat4 u_Model;\nin vec4 va_Vertex;\nvoid main() { gl_Position = u_Model * va_Vertex; }",
            false, false);
        uniformIDProgram = build(drawIDVertexShader(), true, false);
        baseInstance = DrawBuffers::isBaseInstanceDrawingSupported();
        multiDraw = DrawBuffers::isMultiDrawIndirectSupported();
        if (baseInstance)
            baseInstanceProgram = build(drawIDVertexShader(), true, true);
    }

    static QString drawIDVertexShader()
    {
        return "#version 150\n#include \"VyxUtilities.glslh\"\nin vec4 va_Vertex;\nflat out uint vo_ID;\n"
               "void main() { vo_ID = getDrawID(); gl_Position = va_Vertex; }";
    }

    static std::unique_ptr<ShaderProgram> build(const QString& vertexShader, bool utilities, bool baseInstance)
    {
        GLSLMacroProcessor macros;
        DrawBuffers::useBaseInstanceDrawing(baseInstance);
        DrawBuffers::setup(&macros);
        auto program = std::make_unique<ShaderProgram>();
        program->setMacroProcessor(&macros);
        program->addShader(GL_VERTEX_SHADER, vertexShader);
        if (utilities) {
            program->addShader(GL_VERTEX_SHADER, resource("VyxUtilities.vert"));
            program->addShader(GL_VERTEX_SHADER, resource("VyxUtilities.glslc"));
        }
        program->addShader(GL_FRAGMENT_SHADER, "#version 150\nout vec4 c;\nvoid main() { c = vec4(1.0); }");
        if (!program->link())
            std::abort();
        return program;
    }

    // A draw list of n commands over the one triangle, draw IDs 0 ... n - 1.
    std::unique_ptr<DrawBuffers> commandList(int n) const
    {
        std::vector<DrawElementsIndirectCommand> commands(size_t(n), DrawElementsIndirectCommand{3, 1, 0, 0, 0});
        for (int i = 0; i < n; ++i)
            commands[size_t(i)].baseInstance = quint32(i);
        auto buffers = std::make_unique<DrawBuffers>();
        buffers->setVAO(vao);
        buffers->setPrimitiveType(GL_TRIANGLES);
        buffers->setIndexedDraw(indices, 3, GL_UNSIGNED_INT);
        buffers->setDrawElementsIndirectCommands(commands.data(), n);
        return buffers;
    }
};

// Torn down by main() while the library's own process-wide records still exist.
std::unique_ptr<Scene> sharedScene;

Scene& scene()
{
    if (!sharedScene)
        sharedScene = std::make_unique<Scene>();
    return *sharedScene;
}

// Times the submissions only; the driver drains its queue outside the timed region.
template <typename Submit>
void run(benchmark::State& state, ShaderProgram* program, DrawBuffers& buffers, Submit submit)
{
    program->bind();
    buffers.bind();
    buffers.VAO()->enableShaderProgramArrays(program);
    glFinish();
    for (auto _ : state) {
        submit();
        state.PauseTiming();
        glFinish();
        state.ResumeTiming();
    }
    buffers.unbind();
    program->unbind();
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

void HandLoopMatrixUniform(benchmark::State& state)
{
    Scene& s = scene();
    const int n = int(state.range(0));
    std::vector<QMatrix4x4> models(static_cast<size_t>(n));
    for (int i = 0; i < n; ++i)
        models[size_t(i)].translate(float(i % 7) * 0.01f, 0.0f, 0.0f);
    auto buffers = s.commandList(1);
    const int location = s.matrixProgram->getUniformLocation("u_Model");
    run(state, s.matrixProgram.get(), *buffers, [&] {
        for (int i = 0; i < n; ++i) {
            glUniformMatrix4fv(location, 1, GL_FALSE, models[size_t(i)].constData());
            glDrawElements(GL_TRIANGLES, 3, GL_UNSIGNED_INT, nullptr);
        }
    });
}

void UniformFallbackCommandList(benchmark::State& state)
{
    Scene& s = scene();
    DrawBuffers::useBaseInstanceDrawing(false);
    auto buffers = s.commandList(int(state.range(0)));
    ShaderProgram* program = s.uniformIDProgram.get();
    run(state, program, *buffers, [&] { buffers->draw(program); });
}

// One DrawBuffers per object sharing the geometry, as a model builds them.
void BaseInstancePerObject(benchmark::State& state)
{
    Scene& s = scene();
    if (!s.baseInstance) {
        state.SkipWithError("base-instance drawing not supported");
        return;
    }
    DrawBuffers::useBaseInstanceDrawing(true);
    const int n = int(state.range(0));
    std::vector<std::unique_ptr<DrawBuffers>> objects;
    for (int i = 0; i < n; ++i) {
        objects.push_back(s.commandList(0));
        objects.back()->setDrawIDBase(i);
    }
    run(state, s.baseInstanceProgram.get(), *objects.front(), [&] {
        for (const auto& object : objects)
            object->draw();
    });
    DrawBuffers::useBaseInstanceDrawing(false);
}

void MultiDrawIndirectCommandList(benchmark::State& state)
{
    Scene& s = scene();
    if (!s.multiDraw || !s.baseInstance) {
        state.SkipWithError("multi-draw indirect not supported");
        return;
    }
    auto buffers = s.commandList(int(state.range(0)));
    buffers->setMultiDrawIndirect(true);
    run(state, s.baseInstanceProgram.get(), *buffers, [&] { buffers->draw(); });
}

void DrawInstanced(benchmark::State& state)
{
    Scene& s = scene();
    auto buffers = s.commandList(0);
    const int n = int(state.range(0));
    run(state, s.uniformIDProgram.get(), *buffers, [&] { buffers->drawInstanced(n); });
}

BENCHMARK(HandLoopMatrixUniform)->Arg(1000)->Arg(10000)->Unit(benchmark::kMicrosecond);
BENCHMARK(UniformFallbackCommandList)->Arg(1000)->Arg(10000)->Unit(benchmark::kMicrosecond);
BENCHMARK(BaseInstancePerObject)->Arg(1000)->Arg(10000)->Unit(benchmark::kMicrosecond);
BENCHMARK(MultiDrawIndirectCommandList)->Arg(1000)->Arg(10000)->Unit(benchmark::kMicrosecond);
BENCHMARK(DrawInstanced)->Arg(1000)->Arg(10000)->Unit(benchmark::kMicrosecond);

class RatioReporter : public VyxBench::CpuTimeReporter
{
public:
    void printRatios() const
    {
        std::printf("\nCPU time relative to the hand-written loop (lower is faster):\n");
        for (const char* n : {"1000", "10000"}) {
            const QString base = QString("HandLoopMatrixUniform/%1").arg(n);
            if (!cpuTimes.contains(base))
                continue;
            for (auto it = cpuTimes.begin(); it != cpuTimes.end(); ++it) {
                if (it.key().endsWith(QString("/%1").arg(n)))
                    std::printf("  %-40s %8.3f\n", qPrintable(it.key()), it.value() / cpuTimes[base]);
            }
        }
    }
};

} // namespace

int main(int argc, char** argv)
{
    benchmark::Initialize(&argc, argv);
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    reporter.printRatios();
    std::fflush(stdout);
    OpenGLDeviceContext::resetContext();
    sharedScene.reset();
    return 0;
}
