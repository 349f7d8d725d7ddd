// Shadow maps. ProcessLights: CPU time of processLights for 32 lights, eight of them directional
// with four camera-fitted cascades each (32 projectors), against the same lights without a camera
// (the fixed fallback projector, no fitting) as baseline. RenderMoments: wall time of rendering the
// moments of a scene of 1,000 boxes (one draw each) into 512x512 layers, per light type, with
// glFinish, so on llvmpipe it measures the rasteriser running on the CPU; the spot light's single
// layer is the baseline.
#include "gl/glloader.h"
#include "gl/glutilities.h"
#include "gl/headlesscontext.h"
#include "gl/shaderprogram.h"
#include "gl/shadowmapmanager.h"
#include "render/shadowmaprenderer.h"

#include <benchmark/benchmark.h>

#include <QVector4D>

#include <cstdlib>
#include <memory>
#include <vector>

using namespace Tavren::Vyx;

namespace {

constexpr int kGrid = 32; // boxes in a 32 x 32 grid, less 24
constexpr int kBoxes = 1000;

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

struct Camera
{
    QMatrix4x4 view, projection;
    QPair<QVector3D, QVector3D> bounds{QVector3D(-kGrid, 0, -kGrid), QVector3D(kGrid, 4, kGrid)};
    Camera()
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
    Camera camera;
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

struct Scene
{
    HeadlessGLContext context;
    GLuint buffer = 0, vertexArray = 0;
    std::vector<QMatrix4x4> models;
    ShadowMapRenderer renderer;

    Scene()
    {
        setenv("EGL_PLATFORM", "surfaceless", 0);
        if (!context.create() || !context.makeCurrent() || !initializeGLFunctions())
            std::abort();
        // A unit box: 12 triangles.
        std::vector<float> v;
        const int faces[6][4][3] = {{{0, 0, 0}, {0, 1, 0}, {1, 1, 0}, {1, 0, 0}}, {{0, 0, 1}, {1, 0, 1}, {1, 1, 1}, {0, 1, 1}},
                                    {{0, 0, 0}, {0, 0, 1}, {0, 1, 1}, {0, 1, 0}}, {{1, 0, 0}, {1, 1, 0}, {1, 1, 1}, {1, 0, 1}},
                                    {{0, 1, 0}, {0, 1, 1}, {1, 1, 1}, {1, 1, 0}}, {{0, 0, 0}, {1, 0, 0}, {1, 0, 1}, {0, 0, 1}}};
        for (const auto& face : faces)
            for (int corner : {0, 1, 2, 0, 2, 3})
                for (int axis = 0; axis < 3; ++axis)
                    v.push_back(float(face[corner][axis]) - 0.5f);
        glGenBuffers(1, &buffer);
        glBindBuffer(GL_ARRAY_BUFFER, buffer);
        glBufferData(GL_ARRAY_BUFFER, GLsizeiptr(v.size() * sizeof(float)), v.data(), GL_STATIC_DRAW);
        glGenVertexArrays(1, &vertexArray);
        for (int i = 0; i < kBoxes; ++i) {
            QMatrix4x4 model;
            model.translate(float(i % kGrid) * 2.0f - kGrid, 0.5f + float(i % 3), float(i / kGrid) * 2.0f - kGrid);
            models.push_back(model);
        }
    }

    void draw(ShaderProgram& program)
    {
        const GLuint location = GLuint(program.getVertexAttributeLocation(QStringLiteral("va_Vertex")));
        const int modelLocation = program.getUniformLocation(QStringLiteral("u_ModelMatrix"));
        glBindVertexArray(vertexArray);
        glBindBuffer(GL_ARRAY_BUFFER, buffer);
        glVertexAttribPointer(location, 3, GL_FLOAT, GL_FALSE, 0, nullptr);
        glEnableVertexAttribArray(location);
        for (const QMatrix4x4& model : models) {
            glUniformMatrix4fv(modelLocation, 1, GL_FALSE, model.constData());
            glDrawArrays(GL_TRIANGLES, 0, 36);
        }
        glBindVertexArray(0);
    }
};

Scene& scene()
{
    static Scene instance;
    return instance;
}

void RenderMoments(benchmark::State& state)
{
    Scene& s = scene();
    const auto type = ShadowMapLight::Type(state.range(0));
    const int blur = int(state.range(1));
    Lights lights;
    lights.add(type, type == ShadowMapLight::Directional ? lookingFrom(QVector3D(0, 0, 0), QVector3D(1, -2, 0.5f))
                                                         : lookingFrom(QVector3D(0, 12, 0), QVector3D(1, 0, 2)));
    Camera camera;
    ShadowMapRenderData data;
    data.setShadowMapSize(512);
    ShadowMapManager::processLights(lights.list, data, &camera.view, &camera.projection, &camera.bounds);
    s.renderer.setBlurRadius(blur);
    for (auto _ : state) {
        s.renderer.render(data, [&](ShaderProgram& program, const QMatrix4x4&) { s.draw(program); });
        glFinish();
    }
    static const char* const kNames[] = {"point, 6 layers", "spot, 1 layer (baseline)", "directional, 4 cascades"};
    state.SetLabel(std::string(kNames[type]) + (blur ? ", blur radius 2" : ""));
}
BENCHMARK(RenderMoments)
    ->Args({ShadowMapLight::Spot, 0})
    ->Args({ShadowMapLight::Point, 0})
    ->Args({ShadowMapLight::Directional, 0})
    ->Args({ShadowMapLight::Spot, 2})
    ->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
