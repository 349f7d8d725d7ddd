// CPU time of one frame of a 10,000-object scene in 100 materials: 1% of the transforms edited,
// updateTransforms, resetCulling, visibilityCull, frustumCull and draw, on each draw path, against
// a hand-written loop that sets a model-matrix uniform and a material uniform block per object
// and calls glDrawElements. The target is 1x1, so rasterising costs next to nothing. Prints the
// ratios and the cost per changed transform at the end.
//
// llvmpipe runs the GPU's vertex work on the CPU, inside the draw calls, so the frames are also
// measured two more ways: "driver-only" runs them again in a child process on Mesa's no-op
// driver (GALLIUM_NOOP=1, unthreaded), where every GL call is validated and passed down as on
// hardware and nothing is drawn: the CPU cost a GPU would leave; "stubbed" replaces the draw
// calls themselves with no-ops: the submitting code alone, which flatters the hand loop, whose
// per-draw validation disappears with its draws.
//
// The scene's objects share one triangle and take consecutive draw IDs, so the model draws each
// drawable's commands as one instanced record; the "Separate" run numbers the draw IDs downwards
// instead, which keeps every command a draw of its own, as a scene of distinct meshes would.
#include "benchtarget.h"
#include "gl/drawing/drawbuffers.h"
#include "gl/drawing/opengldevicecontext.h"
#include "gl/glloader.h"
#include "gl/instancedata/instancedata.h"
#include "gl/instancedata/instancedatacollection.h"
#include "gl/model/gpumodel.h"
#include "gl/objects/bufferobject.h"
#include "gl/objects/vertexarrayobject.h"
#include "gl/platform/glutilities.h"
#include "gl/platform/headlesscontext.h"
#include "gl/platform/internal/glcapabilities.h"
#include "gl/shaders/glslmacroprocessor.h"
#include "gl/shaders/shaderprogram.h"

#include <benchmark/benchmark.h>

#include <QFile>
#include <QMap>
#include <QMatrix4x4>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

using namespace Tavren::Vyx;

namespace {

constexpr int kMaterials = 100;
constexpr int kPerMaterial = 100;
constexpr int kObjects = kMaterials * kPerMaterial;
constexpr int kEditedPerFrame = kObjects / 100;

using VyxBench::resource;

QMatrix4x4 objectMatrix(int object, float shift)
{
    QMatrix4x4 m;
    m.translate(float(object % 100) / 50.0f - 1.0f + shift, float(object / 100) / 50.0f - 1.0f);
    m.scale(0.005f);
    return m;
}

struct Scene : VyxBench::TriangleTarget
{
    InstanceDataPlan objectPlan{"BenchObject"};
    InstanceDataPlan materialPlan{"BenchMaterial"};
    GPUModel model;
    std::vector<int> objectTransforms;
    std::unique_ptr<ShaderProgram> handProgram, uniformIDProgram, baseInstanceProgram;
    std::vector<GLuint> materialBlocks;
    bool baseInstance = false, multiDraw = false;
    int frame = 0;

    Scene()
    {
        objectPlan.addMember(InstanceDataPlan::eMat4, "ModelMatrix");
        objectPlan.setArraySize(kPerMaterial);
        InstanceDataRegistry::Instance().registerPlan(&objectPlan);
        materialPlan.addMember(InstanceDataPlan::eVec4, "Colour");
        InstanceDataRegistry::Instance().registerPlan(&materialPlan);
        buildModel();
        buildHandLoop();

        uniformIDProgram = build(false);
        baseInstance = DrawBuffers::isBaseInstanceDrawingSupported();
        multiDraw = DrawBuffers::isMultiDrawIndirectSupported();
        if (baseInstance)
            baseInstanceProgram = build(true);
    }

    ~Scene()
    {
        model.clear();
        glDeleteBuffers(GLsizei(materialBlocks.size()), materialBlocks.data());
    }

    // Command c of every drawable, draw ID c or, separate, kPerMaterial - 1 - c.
    static std::vector<DrawElementsIndirectCommand> commandList(bool separate)
    {
        std::vector<DrawElementsIndirectCommand> commands;
        for (int c = 0; c < kPerMaterial; ++c)
            commands.push_back({3, 1, 0, 0, quint32(separate ? kPerMaterial - 1 - c : c)});
        return commands;
    }

    void setCommands(bool separate)
    {
        const std::vector<DrawElementsIndirectCommand> commands = commandList(separate);
        for (int i = 0; i < model.numDrawables(); ++i)
            model.drawBuffers(i)->setDrawElementsIndirectCommands(commands.data(), kPerMaterial);
    }

    // One drawable per material, one command per object, a group transform per material.
    void buildModel()
    {
        const std::vector<DrawElementsIndirectCommand> commands = commandList(false);
        const BoundingBox box(QVector3D(-1, -1, 0), QVector3D(1, 1, 0));
        model.loadBoundingBoxes(&box, 1);
        for (int m = 0; m < kMaterials; ++m) {
            auto* db = new DrawBuffers;
            db->setVAO(vao);
            db->setPrimitiveType(GL_TRIANGLES);
            db->setIndexedDraw(indices, 3, GL_UNSIGNED_INT);
            db->setDrawElementsIndirectCommands(commands.data(), kPerMaterial);
            auto* material = new InstanceDataCollection(&materialPlan, size_t(1));
            const float colour[] = {float(m) / kMaterials, 0.5f, 0.25f, 1.0f};
            material->set(0, "Colour", colour, sizeof(colour));
            const int id = model.add(db, m, material, new InstanceDataCollection(&objectPlan, size_t(kPerMaterial)), 0);
            const int group = model.addTransform(-1, QMatrix4x4());
            for (int c = 0; c < kPerMaterial; ++c) {
                objectTransforms.push_back(model.addTransform(group, objectMatrix(m * kPerMaterial + c, 0)));
                model.useTransform(id, c, objectTransforms.back());
                model.useBoundingBox(id, c, 0);
            }
        }
        model.updateTransforms();
    }

    void buildHandLoop()
    {
        GLSLMacroProcessor macros;
        handProgram = std::make_unique<ShaderProgram>();
        handProgram->setMacroProcessor(&macros);
        handProgram->addShader(GL_VERTEX_SHADER, "#version 150\nuniform mat4 u_Model;\nin vec4 va_Vertex;\n"
                                                 "void main() { gl_Position = u_Model * va_Vertex; }");
        handProgram->addShader(GL_FRAGMENT_SHADER, "#version 150\nlayout(std140) uniform HandMaterial { vec4 colour; };\n"
                                                   "out vec4 c;\nvoid main() { c = colour; }");
        if (!handProgram->link())
            std::abort();
        glUniformBlockBinding(handProgram->shaderProgramID(),
                              glGetUniformBlockIndex(handProgram->shaderProgramID(), "HandMaterial"), 0);
        materialBlocks.resize(kMaterials);
        glGenBuffers(kMaterials, materialBlocks.data());
        for (int m = 0; m < kMaterials; ++m) {
            const float colour[] = {float(m) / kMaterials, 0.5f, 0.25f, 1.0f};
            glBindBuffer(GL_UNIFORM_BUFFER, materialBlocks[size_t(m)]);
            glBufferData(GL_UNIFORM_BUFFER, sizeof(colour), colour, GL_STATIC_DRAW);
        }
        glBindBuffer(GL_UNIFORM_BUFFER, 0);
    }

    std::unique_ptr<ShaderProgram> build(bool useBaseInstance)
    {
        GLSLMacroProcessor macros;
        DrawBuffers::useBaseInstanceDrawing(useBaseInstance);
        DrawBuffers::setup(&macros);
        auto program = std::make_unique<ShaderProgram>();
        program->setMacroProcessor(&macros);
        program->addShader(GL_VERTEX_SHADER, "#version 150\n#include \"VyxUtilities.glslh\"\n#instancedata \"BenchObject\"\n"
                                             "in vec4 va_Vertex;\nvoid main() { gl_Position = getModelMatrix() * va_Vertex; }");
        program->addShader(GL_VERTEX_SHADER, objectPlan.glslc());
        program->addShader(GL_VERTEX_SHADER, resource("VyxUtilities.vert"));
        program->addShader(GL_VERTEX_SHADER, resource("VyxUtilities.glslc"));
        program->addShader(GL_FRAGMENT_SHADER, "#version 150\n#instancedata \"BenchMaterial\"\nout vec4 c;\n"
                                               "void main() { c = getColour(0u); }");
        program->addShader(GL_FRAGMENT_SHADER, materialPlan.glslc());
        if (!program->link()) {
            std::fprintf(stderr, "%s\n", qPrintable(program->log()));
            std::abort();
        }
        DrawBuffers::useBaseInstanceDrawing(false);
        return program;
    }

    // 1% of the objects move, a different 1% each frame.
    void editTransforms(int count)
    {
        ++frame;
        const float shift = (frame % 2) * 0.001f;
        for (int i = 0; i < count; ++i) {
            const int object = (frame * 7919 + i * 97) % kObjects;
            model.setLocalTransform(objectTransforms[size_t(object)], objectMatrix(object, shift));
        }
    }
};

std::unique_ptr<Scene> sharedScene;

Scene& scene()
{
    if (!sharedScene)
        sharedScene = std::make_unique<Scene>();
    return *sharedScene;
}

// With argument 1 the draw calls themselves are no-ops, in the hand loop and the model alike:
// on llvmpipe each draw runs its vertex stage on the calling thread, which a GPU would not, so
// this measures what the submitting code costs on its own.
class DrawsStubbed
{
public:
    explicit DrawsStubbed(bool stub)
        : _stub(stub)
    {
        if (!stub)
            return;
        _elements = _ptrc_glDrawElements;
        _baseVertex = _ptrc_glDrawElementsBaseVertex;
        _indirect = _ptrc_glMultiDrawElementsIndirect;
        _ptrc_glDrawElements = [](GLenum, GLsizei, GLenum, const void*) {};
        _ptrc_glDrawElementsBaseVertex = [](GLenum, GLsizei, GLenum, const void*, GLint) {};
        _ptrc_glMultiDrawElementsIndirect = [](GLenum, GLenum, const void*, GLsizei, GLsizei) {};
        if (hasGLCapability(kBaseInstance)) {
            PFNVYXGLDRAWELEMENTSINSTANCEDBASEVERTEXBASEINSTANCEPROC noDraw = [](GLenum, GLsizei, GLenum, const void*,
                                                                                GLsizei, GLint, GLuint) {};
            _baseInstance = replaceGLCapability(kBaseInstance, reinterpret_cast<void*>(noDraw));
        }
    }
    ~DrawsStubbed()
    {
        if (!_stub)
            return;
        _ptrc_glDrawElements = _elements;
        _ptrc_glDrawElementsBaseVertex = _baseVertex;
        _ptrc_glMultiDrawElementsIndirect = _indirect;
        if (_baseInstance)
            replaceGLCapability(kBaseInstance, _baseInstance);
    }
    DrawsStubbed(const DrawsStubbed&) = delete;
    DrawsStubbed& operator=(const DrawsStubbed&) = delete;

private:
    bool _stub;
    PFNVYXGLDRAWELEMENTSPROC _elements = nullptr;
    PFNVYXGLDRAWELEMENTSBASEVERTEXPROC _baseVertex = nullptr;
    PFNVYXGLMULTIDRAWELEMENTSINDIRECTPROC _indirect = nullptr;
    static constexpr GLCapability kBaseInstance = GLCapability::DrawElementsInstancedBaseVertexBaseInstance;
    void* _baseInstance = nullptr;
};

template <typename Frame>
void run(benchmark::State& state, Frame frame)
{
    DrawsStubbed stubbed(state.range(0) != 0);
    glFinish();
    for (auto _ : state) {
        frame();
        state.PauseTiming();
        glFinish();
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * kObjects);
}

void HandLoop(benchmark::State& state)
{
    Scene& s = scene();
    std::vector<QMatrix4x4> models;
    for (int i = 0; i < kObjects; ++i)
        models.push_back(objectMatrix(i, 0));
    s.handProgram->bind();
    const int location = s.handProgram->getUniformLocation("u_Model");
    glBindVertexArray(0);
    GLuint vao = 0;
    glGenVertexArrays(1, &vao);
    glBindVertexArray(vao);
    glBindBuffer(GL_ARRAY_BUFFER, s.vertices->getBO());
    const GLint attribute = glGetAttribLocation(s.handProgram->shaderProgramID(), "va_Vertex");
    glEnableVertexAttribArray(GLuint(attribute));
    glVertexAttribPointer(GLuint(attribute), 2, GL_FLOAT, GL_FALSE, 0, nullptr);
    glBindBuffer(GL_ELEMENT_ARRAY_BUFFER, s.indices->getBO());
    int frame = 0;
    run(state, [&] {
        ++frame;
        for (int i = 0; i < kEditedPerFrame; ++i) {
            const int object = (frame * 7919 + i * 97) % kObjects;
            models[size_t(object)] = objectMatrix(object, (frame % 2) * 0.001f);
        }
        for (int i = 0; i < kObjects; ++i) {
            glBindBufferBase(GL_UNIFORM_BUFFER, 0, s.materialBlocks[size_t(i / kPerMaterial)]);
            glUniformMatrix4fv(location, 1, GL_FALSE, models[size_t(i)].constData());
            glDrawElements(GL_TRIANGLES, 3, GL_UNSIGNED_INT, nullptr);
        }
    });
    glBindVertexArray(0);
    glDeleteVertexArrays(1, &vao);
    s.handProgram->unbind();
}

void modelFrames(benchmark::State& state, ShaderProgram* program, bool baseInstance, bool multiDraw,
                 bool separate = false)
{
    Scene& s = scene();
    s.setCommands(separate);
    DrawBuffers::useBaseInstanceDrawing(baseInstance);
    for (int i = 0; i < s.model.numDrawables(); ++i)
        s.model.drawBuffers(i)->setMultiDrawIndirect(multiDraw);
    QMatrix4x4 viewProjection;
    viewProjection.ortho(-1.1f, 1.1f, -1.1f, 1.1f, -1, 1);
    program->bind();
    run(state, [&] {
        s.editTransforms(kEditedPerFrame);
        s.model.updateTransforms();
        s.model.resetCulling();
        s.model.visibilityCull();
        s.model.frustumCull(viewProjection);
        if (!s.model.draw(program, nullptr, 0, 0, GPUModel::eWindingNoCulling, true))
            state.SkipWithError("draw failed");
    });
    program->unbind();
    DrawBuffers::useBaseInstanceDrawing(false);
    s.setCommands(false);
}

void ModelUniformFallback(benchmark::State& state)
{
    modelFrames(state, scene().uniformIDProgram.get(), false, false);
}

void ModelBaseInstance(benchmark::State& state)
{
    if (!scene().baseInstance) {
        state.SkipWithError("base-instance drawing not supported");
        return;
    }
    modelFrames(state, scene().baseInstanceProgram.get(), true, false);
}

void ModelMultiDrawIndirect(benchmark::State& state)
{
    if (!scene().baseInstance || !scene().multiDraw) {
        state.SkipWithError("multi-draw indirect not supported");
        return;
    }
    modelFrames(state, scene().baseInstanceProgram.get(), true, true);
}

void ModelMultiDrawIndirectSeparate(benchmark::State& state)
{
    if (!scene().baseInstance || !scene().multiDraw) {
        state.SkipWithError("multi-draw indirect not supported");
        return;
    }
    modelFrames(state, scene().baseInstanceProgram.get(), true, true, true);
}

// setLocalTransform and updateTransforms for n changed transforms (the object-data writes
// included, the upload not).
void TransformUpdate(benchmark::State& state)
{
    Scene& s = scene();
    const int n = int(state.range(0));
    for (auto _ : state) {
        s.editTransforms(n);
        s.model.updateTransforms();
    }
    state.SetItemsProcessed(state.iterations() * n);
}

BENCHMARK(HandLoop)->Arg(0)->Arg(1)->Unit(benchmark::kMicrosecond);
BENCHMARK(ModelUniformFallback)->Arg(0)->Arg(1)->Unit(benchmark::kMicrosecond);
BENCHMARK(ModelBaseInstance)->Arg(0)->Arg(1)->Unit(benchmark::kMicrosecond);
BENCHMARK(ModelMultiDrawIndirect)->Arg(0)->Arg(1)->Unit(benchmark::kMicrosecond);
BENCHMARK(ModelMultiDrawIndirectSeparate)->Arg(0)->Arg(1)->Unit(benchmark::kMicrosecond);
BENCHMARK(TransformUpdate)->Arg(100)->Arg(1000)->Unit(benchmark::kMicrosecond);

constexpr const char* kDriverOnlyTag = "driver-only";
constexpr const char* kFramePaths[] = {"HandLoop", "ModelUniformFallback", "ModelBaseInstance",
                                       "ModelMultiDrawIndirect", "ModelMultiDrawIndirectSeparate"};

// CPU time per frame of the real-draw runs on Mesa's no-op driver, from a child process (the
// driver is chosen when the context is made); empty when it could not run.
QMap<QString, double> driverOnlyTimes(const char* self, const std::vector<std::string>& forwarded)
{
    QMap<QString, double> times;
    std::string command = "GALLIUM_NOOP=1 GALLIUM_THREAD=0 VYX_BENCH_DRIVER_ONLY=1 '" + std::string(self) + "'";
    if (std::string(self).find('\'') != std::string::npos)
        return times;
    for (const std::string& arg : forwarded)
        command += " '" + arg + "'";
    command += " --benchmark_color=false '--benchmark_filter=^(HandLoop|Model[A-Za-z]*)/0$' 2>/dev/null";
    FILE* child = popen(command.c_str(), "r");
    if (!child)
        return times;
    char line[512];
    while (std::fgets(line, sizeof line, child)) {
        const QStringList words = QString::fromLatin1(line).simplified().split(' ');
        if (words.size() == 3 && words[0] == kDriverOnlyTag)
            times[words[1]] = words[2].toDouble();
    }
    pclose(child);
    return times;
}

class RatioReporter : public VyxBench::CpuTimeReporter
{
public:
    // What a driver-only child hands its parent.
    void printForParent() const
    {
        std::printf("\n");
        for (auto it = cpuTimes.cbegin(); it != cpuTimes.cend(); ++it)
            std::printf("%s %s %.3f\n", kDriverOnlyTag, qPrintable(it.key()), it.value());
    }

    bool hasFrameRuns() const { return cpuTimes.contains("HandLoop/0"); }

    // Per path, CPU time per frame on llvmpipe, on the no-op driver and with the draws stubbed
    // out, each also as a ratio to the hand-written loop measured the same way.
    void printSummary(const QMap<QString, double>& driverOnly) const
    {
        const auto ratio = [](double value, double hand) { return value >= 0 && hand > 0 ? value / hand : -1.0; };
        const auto cell = [](double value, const char* format) {
            char text[32] = "-";
            if (value >= 0)
                std::snprintf(text, sizeof text, format, value);
            return std::string(text);
        };
        const auto time = [this](const char* name, int stubbed) {
            return cpuTimes.value(QString("%1/%2").arg(name).arg(stubbed), -1.0);
        };
        std::printf("\nCPU time per frame (us) and relative to the hand-written loop (lower is faster):\n");
        std::printf("  %-32s %10s %12s %10s %8s %10s %8s\n", "", "llvmpipe", "driver-only", "stubbed", "real/x",
                    "driver/x", "stub/x");
        const double hand[] = {time("HandLoop", 0), driverOnly.value("HandLoop/0", -1.0), time("HandLoop", 1)};
        for (const char* name : kFramePaths) {
            const double values[] = {time(name, 0), driverOnly.value(QString(name) + "/0", -1.0), time(name, 1)};
            if (values[0] < 0 && values[2] < 0)
                continue;
            std::printf("  %-32s %10s %12s %10s %8s %10s %8s\n", name, cell(values[0], "%.1f").c_str(),
                        cell(values[1], "%.1f").c_str(), cell(values[2], "%.1f").c_str(),
                        cell(ratio(values[0], hand[0]), "%.3f").c_str(), cell(ratio(values[1], hand[1]), "%.3f").c_str(),
                        cell(ratio(values[2], hand[2]), "%.3f").c_str());
        }
        std::printf("  target: ModelMultiDrawIndirect driver/x at most 0.300 (the CPU's share of a frame)\n");
        for (const char* n : {"100", "1000"}) {
            const QString name = QString("TransformUpdate/%1").arg(n);
            if (cpuTimes.contains(name))
                std::printf("  per changed transform (%s changed): %.3f us\n", n, cpuTimes[name] / QString(n).toDouble());
        }
    }
};

} // namespace

int main(int argc, char** argv)
{
    // The child gets the caller's timing flags, not its filter.
    std::vector<std::string> forwarded;
    for (int i = 1; i < argc; ++i) {
        if (std::string(argv[i]).rfind("--benchmark_min_time", 0) == 0)
            forwarded.push_back(argv[i]);
    }
    const bool driverOnlyChild = qEnvironmentVariableIsSet("VYX_BENCH_DRIVER_ONLY");
    benchmark::Initialize(&argc, argv);
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    if (driverOnlyChild)
        reporter.printForParent();
    else if (reporter.hasFrameRuns())
        reporter.printSummary(driverOnlyTimes(argv[0], forwarded));
    std::fflush(stdout);
    sharedScene.reset();
    OpenGLDeviceContext::resetContext();
    return 0;
}
