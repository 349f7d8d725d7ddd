// CPU time to change K records of a 10-member plan (every member of each changed record) and
// upload them with one bind, on both mechanisms, with all records or 1% of them changed. The
// baseline re-uploads the whole table after the same changes. Counters give the bytes written
// to the GPU per changed record. On llvmpipe the buffer lives in CPU memory, so the figures are
// the CPU cost of the copies a driver would DMA.
#include "gl/drawing/opengldevicecontext.h"
#include "gl/glloader.h"
#include "gl/instancedata/instancedatacollection.h"
#include "gl/platform/glutilities.h"
#include "gl/platform/headlesscontext.h"
#include "gl/shaders/shaderprogram.h"

#include <benchmark/benchmark.h>

#include <QMatrix4x4>
#include <QVector4D>

#include <cstdlib>
#include <memory>

using namespace Tavren::Vyx;

namespace {

void quiet(QtMsgType, const QMessageLogContext&, const QString&) {}

struct Setup
{
    HeadlessGLContext context;
    std::unique_ptr<InstanceDataPlan> plans[2];
    std::unique_ptr<ShaderProgram> programs[2];

    Setup()
    {
        setenv("EGL_PLATFORM", "surfaceless", 0);
        if (!context.create() || !context.makeCurrent() || !initializeGLFunctions())
            std::abort();
        OpenGLDeviceContext::resetContext();
        // Tables past the uniform-block limit are reported once per collection; keep the output clean.
        qInstallMessageHandler(quiet);
        for (int mechanism = 0; mechanism < 2; ++mechanism) {
            auto plan = std::make_unique<InstanceDataPlan>(QStringLiteral("Bench%1").arg(mechanism));
            plan->setMechanism(InstanceDataPlan::MechanismType(mechanism));
            plan->addMember(InstanceDataPlan::eMat4, "ModelMatrix");
            plan->addMember(InstanceDataPlan::eVec4, "Colour");
            plan->addMember(InstanceDataPlan::eVec3, "Emission");
            plan->addMember(InstanceDataPlan::eVec2, "UVScale");
            plan->addMember(InstanceDataPlan::eFloat, "Roughness");
            plan->addMember(InstanceDataPlan::eInt, "MaterialID");
            plan->addMember(InstanceDataPlan::eUInt, "Flags");
            plan->addMember(InstanceDataPlan::eBool, "Visible");
            plan->addMember(InstanceDataPlan::eTexture, "Albedo");
            plan->addMember(InstanceDataPlan::eIVec2, "Tile");
            plan->setArraySize(100000);
            InstanceDataRegistry::Instance().registerPlan(plan.get());
            // The uniform block binds to a program that has it.
            auto program = std::make_unique<ShaderProgram>();
            program->addShader(GL_VERTEX_SHADER, "#version 150\n#instancedata \"" + plan->name() +
                                                     "\"\nvoid main() { gl_Position = getColour(0u); }\n");
            program->addShader(GL_VERTEX_SHADER, plan->glslc());
            program->addShaderFromFile(GL_VERTEX_SHADER, "VyxUtilities.glslc");
            program->addShader(GL_FRAGMENT_SHADER, "#version 150\nout vec4 o;\nvoid main() { o = vec4(1.0); }\n");
            if (!program->link())
                std::abort();
            plans[mechanism] = std::move(plan);
            programs[mechanism] = std::move(program);
        }
    }
};

Setup& setup()
{
    static Setup instance;
    return instance;
}

// Arguments: mechanism, K, percent of records changed, whole re-upload (baseline).
void UpdateAndUpload(benchmark::State& state)
{
    Setup& s = setup();
    const int mechanism = int(state.range(0));
    const int count = int(state.range(1));
    const int stride = 100 / int(state.range(2));
    const bool whole = state.range(3) != 0;
    ShaderProgram* program = s.programs[mechanism].get();
    program->bind();
    InstanceDataCollection collection(s.plans[mechanism].get(), size_t(count));
    collection.bind(program, nullptr);
    collection.unbind(program, nullptr);

    // Member names made once, as a host keeps them.
    static const QString modelMatrix("ModelMatrix"), colourName("Colour"), emission("Emission"), uvScale("UVScale"),
        roughness("Roughness"), materialID("MaterialID"), flagsName("Flags"), visibleName("Visible"), albedo("Albedo"),
        tileName("Tile");
    const quint64 uploadedBefore = collection.uploadedBytes();
    qint64 changed = 0;
    float value = 0.0f;
    for (auto _ : state) {
        value += 1.0f;
        const QMatrix4x4 matrix(value, 0, 0, 1, 0, value, 0, 2, 0, 0, value, 3, 0, 0, 0, 1);
        const QVector4D colour(value, 0.5f, 0.25f, 1.0f);
        const qint32 material = qint32(value);
        const quint32 flags = quint32(value) * 7u;
        const bool visible = (int(value) & 1) != 0;
        const quint64 token = ~quint64(0); // the null token: nothing for the texture manager
        const qint32 tile[2] = {qint32(value), -qint32(value)};
        for (int record = 0; record < count; record += stride) {
            collection.set(record, modelMatrix, matrix.constData(), 64);
            collection.set(record, colourName, colour);
            collection.set(record, emission, &colour, 12);
            collection.set(record, uvScale, &colour, 8);
            collection.set(record, roughness, value);
            collection.set(record, materialID, material);
            collection.set(record, flagsName, flags);
            collection.set(record, visibleName, visible);
            collection.set(record, albedo, token);
            collection.set(record, tileName, tile);
            ++changed;
        }
        if (whole)
            collection.update(collection.dataArray().constData(), size_t(collection.dataArray().size()));
        collection.bind(program, nullptr);
        collection.unbind(program, nullptr);
    }
    program->unbind();
    state.counters["changed"] = double(changed) / double(state.iterations());
    state.counters["bytes/changed"] = double(collection.uploadedBytes() - uploadedBefore) / double(changed);
}
BENCHMARK(UpdateAndUpload)
    ->ArgNames({"texbuf", "K", "pct", "whole"})
    ->ArgsProduct({{0, 1}, {1000, 100000}, {100, 1}, {0}})
    ->ArgsProduct({{0, 1}, {100000}, {1}, {1}})
    ->Unit(benchmark::kMicrosecond);

} // namespace

BENCHMARK_MAIN();
