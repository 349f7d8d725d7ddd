// Shadow maps. ProcessLights: CPU time of processLights for 32 lights, eight of them directional
// with four camera-fitted cascades each (32 projectors), against the same lights without a camera
// (the fixed fallback projector, no fitting) as baseline.
// RenderMoments: one shadow frame of a GPUModel of 10,000 boxes (100 drawables of 100 commands)
// per light type, with glFinish: the moments of every projector (spot 1, point 6, directional 4
// cascades fitted to the model's bounds). Time is wall time, CPU the process's, llvmpipe's
// rasteriser threads included; "projector" is the time per layer. At 16x16 texels rasterising
// costs next to nothing, so that size shows what the submission costs and 1024 what the pixels
// add. Baseline: the spot light drawn by a hand loop that sets a model-matrix uniform and calls
// glDrawElements per box through the draw-function overload. The model draws with a draw-ID
// uniform and one draw per box, or (path 2, where the context has it) with one multi-draw
// indirect call per drawable, draw IDs from the base instance.
#include "benchtarget.h"
#include "gl/drawing/drawbuffers.h"
#include "gl/instancedata/instancedata.h"
#include "gl/instancedata/instancedatacollection.h"
#include "gl/model/gpumodel.h"
#include "gl/shaders/shaderprogram.h"
#include "gl/shadows/shadowmapmanager.h"
#include "gl/shadows/shadowmapmanagerculling.h"
#include "render/shadowmaprenderer.h"

#include <benchmark/benchmark.h>

#include <QVector4D>

#include <memory>
#include <vector>

using namespace Tavren::Vyx;

namespace {

constexpr int kGrid = 100; // boxes in a 100 x 100 grid, two units apart
constexpr int kBoxes = kGrid * kGrid;

struct Lights
{
    std::vector<std::unique_ptr<ShadowMapLight>> owned;
    QVariantList list;

    ShadowMapLight& add(ShadowMapLight::Type type, const QMatrix4x4& transform)
    {
        owned.push_back(std::make_unique<ShadowMapLight>());
        ShadowMapLight& light = *owned.back();
        light.setType(type);
        light.setTransform(transform);
        light.setSpotCutoff(0.7f);
        light.setCSMLevels(4);
        list.append(QVariant::fromValue<QObject*>(&light));
        return light;
    }
};

QMatrix4x4 lookingFrom(QVector3D eye, QVector3D target)
{
    QMatrix4x4 view;
    view.lookAt(eye, target, QVector3D(0, 1, 0));
    return view.inverted();
}

struct View
{
    QMatrix4x4 view, projection;
    QPair<QVector3D, QVector3D> bounds{QVector3D(-kGrid, 0, -kGrid), QVector3D(kGrid, 3, kGrid)};
    View()
    {
        view.lookAt(QVector3D(-20, 3, -20), QVector3D(10, 0, 5), QVector3D(0, 1, 0));
        projection.perspective(60, 16.0f / 9.0f, 0.1f, 300.0f);
    }
};

void ProcessLights(benchmark::State& state)
{
    const bool withCamera = state.range(0) != 0;
    Lights lights;
    for (int i = 0; i < 32; ++i)
        lights.add(i < 8 ? ShadowMapLight::Directional : ShadowMapLight::Spot,
                   lookingFrom(QVector3D(float(i), 10, 3), QVector3D(0, 0, float(-i))));
    View camera;
    ShadowMapRenderData data;
    for (auto _ : state) {
        // Turn the camera a little each time, so every call refits.
        camera.view.rotate(0.01f, 0, 1, 0);
        benchmark::DoNotOptimize(withCamera ? ShadowMapManager::processLights(lights.list, data, &camera.view,
                                                                              &camera.projection, &camera.bounds)
                                            : ShadowMapManager::processLights(lights.list, data));
    }
    state.SetLabel(withCamera ? "8 directional x 4 cascades + 24 spot" : "baseline: no camera, fallback");
}
BENCHMARK(ProcessLights)->Arg(0)->Arg(1);

// The boxes in a GPUModel, and the same boxes' matrices for the hand loop.
struct Scene : VyxBench::TriangleTarget
{
    InstanceDataPlan objectPlan{"BenchShadowObject"};
    GPUModel model;
    std::vector<QMatrix4x4> matrices;
    ShadowMapRenderer renderer;

    Scene()
    {
        objectPlan.addMember(InstanceDataPlan::eMat4, "ModelMatrix");
        objectPlan.setArraySize(kGrid);
        InstanceDataRegistry::Instance().registerPlan(&objectPlan);
        auto device = OpenGLDeviceContext::current();
        float corners[24];
        for (int i = 0; i < 24; ++i)
            corners[i] = (i / 3) >> (i % 3) & 1 ? 0.5f : -0.5f;
        static const GLuint kIndices[36] = {0, 2, 3, 0, 3, 1, 4, 5, 7, 4, 7, 6, 0, 1, 5, 0, 5, 4,
                                            2, 6, 7, 2, 7, 3, 0, 4, 6, 0, 6, 2, 1, 3, 7, 1, 7, 5};
        auto cubeVertices = device->newBuffer();
        cubeVertices->setTarget(GL_ARRAY_BUFFER);
        cubeVertices->bind();
        cubeVertices->upload(corners, 24, GL_STATIC_DRAW);
        cubeVertices->unbind();
        auto cubeIndices = device->newBuffer();
        cubeIndices->setTarget(GL_ELEMENT_ARRAY_BUFFER);
        cubeIndices->bind();
        cubeIndices->uploadGLuintData(kIndices, 36, GL_STATIC_DRAW);
        cubeIndices->unbind();
        auto cube = device->newVAO();
        cube->registerBO("va_Vertex", cubeVertices, 3, GL_FLOAT);

        matrices.reserve(kBoxes);
        std::vector<DrawElementsIndirectCommand> commands;
        for (int c = 0; c < kGrid; ++c)
            commands.push_back({36, 1, 0, 0, quint32(c)});
        const BoundingBox unit(QVector3D(-0.5f, -0.5f, -0.5f), QVector3D(0.5f, 0.5f, 0.5f));
        model.loadBoundingBoxes(&unit, 1);
        for (int row = 0; row < kGrid; ++row) {
            auto* db = new DrawBuffers;
            db->setVAO(cube);
            db->setPrimitiveType(GL_TRIANGLES);
            db->setIndexedDraw(cubeIndices, 36, GL_UNSIGNED_INT);
            db->setDrawElementsIndirectCommands(commands.data(), kGrid);
            const int id = model.add(db, row, nullptr, new InstanceDataCollection(&objectPlan, size_t(kGrid)), 0);
            for (int c = 0; c < kGrid; ++c) {
                QMatrix4x4 m;
                m.translate(float(c) * 2.0f - kGrid, 0.5f + float((row + c) % 3), float(row) * 2.0f - kGrid);
                matrices.push_back(m);
                model.useTransform(id, c, model.addTransform(-1, m));
                model.useBoundingBox(id, c, 0);
            }
        }
        model.updateTransforms();
    }

    ~Scene() { model.clear(); }

    void handDraw(ShaderProgram& program)
    {
        const int location = program.getUniformLocation(QStringLiteral("u_ModelMatrix"));
        DrawBuffers* db = model.drawBuffers(0);
        db->bind();
        db->VAO()->enableShaderProgramArrays(&program);
        for (const QMatrix4x4& m : matrices) {
            glUniformMatrix4fv(location, 1, GL_FALSE, m.constData());
            glDrawElements(GL_TRIANGLES, 36, GL_UNSIGNED_INT, nullptr);
        }
        db->unbind();
    }
};

Scene& scene()
{
    static Scene instance;
    return instance;
}

enum Path { eModel, eHand, eModelMultiDraw };

// Arguments: light type, shadow map size, Path, blur radius.
void RenderMoments(benchmark::State& state)
{
    Scene& s = scene();
    const auto type = ShadowMapLight::Type(state.range(0));
    const int size = int(state.range(1));
    const auto path = Path(state.range(2));
    const bool hand = path == eHand;
    if (path == eModelMultiDraw && !(DrawBuffers::isMultiDrawIndirectSupported() &&
                                     DrawBuffers::isBaseInstanceDrawingSupported())) {
        state.SkipWithError("no multi-draw indirect with base instances");
        return;
    }
    DrawBuffers::useBaseInstanceDrawing(path == eModelMultiDraw);
    for (int d = 0; d < s.model.numDrawables(); ++d)
        s.model.drawBuffers(d)->setMultiDrawIndirect(path == eModelMultiDraw);
    const int blur = int(state.range(3));
    Lights lights;
    lights.add(type, type == ShadowMapLight::Directional ? lookingFrom(QVector3D(0, 0, 0), QVector3D(1, -2, 0.5f))
                                                         : lookingFrom(QVector3D(0, 12, 0), QVector3D(1, 0, 2)));
    View camera;
    if (!ShadowMapManagerCulling::sceneBounds(s.model, camera.bounds))
        state.SkipWithError("the model has no bounds");
    ShadowMapRenderData data;
    data.setShadowMapSize(size);
    ShadowMapManager::processLights(lights.list, data, &camera.view, &camera.projection, &camera.bounds);
    s.renderer.setBlurRadius(blur);
    bool ok = true;
    for (auto _ : state) {
        ok = (hand ? s.renderer.render(data, [&](ShaderProgram& program, const QMatrix4x4&) { s.handDraw(program); })
                   : s.renderer.render(data, s.model)) && ok;
        glFinish();
    }
    DrawBuffers::useBaseInstanceDrawing(false);
    if (!ok)
        state.SkipWithError("the moments were not rendered");
    state.counters["projector"] = benchmark::Counter(double(state.iterations() * data.projectorCount()),
                                                     benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
    static const char* const kNames[] = {"point, 6 layers", "spot, 1 layer", "directional, 4 cascades"};
    state.SetLabel(std::string(kNames[type]) + (hand ? ", hand loop (baseline)" : path == eModel ? ", GPUModel" : ", GPUModel, multi-draw") +
                   (blur ? ", blur radius 2" : ""));
}
BENCHMARK(RenderMoments)
    ->Args({ShadowMapLight::Spot, 16, eHand, 0})
    ->Args({ShadowMapLight::Spot, 16, eModel, 0})
    ->Args({ShadowMapLight::Point, 16, eModel, 0})
    ->Args({ShadowMapLight::Directional, 16, eModel, 0})
    ->Args({ShadowMapLight::Spot, 1024, eHand, 0})
    ->Args({ShadowMapLight::Spot, 1024, eModel, 0})
    ->Args({ShadowMapLight::Point, 1024, eModel, 0})
    ->Args({ShadowMapLight::Directional, 1024, eModel, 0})
    ->Args({ShadowMapLight::Spot, 1024, eModelMultiDraw, 0})
    ->Args({ShadowMapLight::Point, 1024, eModelMultiDraw, 0})
    ->Args({ShadowMapLight::Directional, 1024, eModelMultiDraw, 0})
    ->Args({ShadowMapLight::Spot, 1024, eModel, 2})
    ->MeasureProcessCPUTime()
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
