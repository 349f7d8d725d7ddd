#include "gl/drawing/drawbuffers.h"
#include "gl/drawing/opengldevicecontext.h"
#include "gl/glloader.h"
#include "gl/instancedata/instancedata.h"
#include "gl/instancedata/instancedatacollection.h"
#include "gl/model/gpumodel.h"
#include "gl/objects/bufferobject.h"
#include "gl/objects/vertexarrayobject.h"
#include "gl/shaders/glslmacroprocessor.h"
#include "gl/shaders/shaderprogram.h"
#include "gl/textures/samplertexturemanager.h"
#include "support/callrecorder.h"
#include "support/glhelpers.h"
#include "support/gltest.h"
#include "support/messagecapture.h"

#include <QColor>

#include <algorithm>
#include <memory>
#include <tuple>
#include <vector>

using namespace Tavren::Vyx;
using VyxTest::CallRecorder;

namespace {

constexpr int kSize = 64;       // pixels per side
constexpr int kColumns = 16;    // objects per row, 4 pixels apart
constexpr int kDrawables = 8;   // two rows each
constexpr int kCommands = 32;
constexpr int kMaterials = 5;

enum Path { eUniformFallback, eBaseInstance, eMultiDrawIndirect };
const char* const kPathNames[] = {"uniform fallback", "base instance", "multi-draw indirect"};

QColor materialColour(int material)
{
    return QColor(40 + material * 50, 255 - material * 45, (material * 97) % 256);
}

class GPUModelTest : public VyxTest::GLTest
{
protected:
    void SetUp() override
    {
        GLTest::SetUp();
        objectPlan.addMember(InstanceDataPlan::eMat4, "ModelMatrix");
        objectPlan.setArraySize(kCommands);
        InstanceDataRegistry::Instance().registerPlan(&objectPlan);
        materialPlan.addMember(InstanceDataPlan::eTexture, "Albedo");
        materialPlan.addMember(InstanceDataPlan::eVec4, "Tint");
        InstanceDataRegistry::Instance().registerPlan(&materialPlan);
        target = std::make_unique<VyxTest::ColourTarget>(kSize, kSize, 0.0f, true);
        const GLuint indices[] = {0, 1, 2, 0, 2, 3};
        indexBuffer = VyxTest::newBuffer(GL_ELEMENT_ARRAY_BUFFER, indices, 6);
        vao = OpenGLDeviceContext::current()->newVAO();
        vao->upload("va_Vertex", VyxTest::newBuffer(GL_ARRAY_BUFFER),
                    QVector<float>{-0.5f, -0.5f, 0.5f, -0.5f, 0.5f, 0.5f, -0.5f, 0.5f}, 2, GL_STATIC_DRAW);
        buildModel();
    }

    void TearDown() override
    {
        model.clear();
        vao.reset();
        indexBuffer.reset();
        target.reset();
        DrawBuffers::useBaseInstanceDrawing(false);
        GLTest::TearDown();
    }

    // Three levels: a root that maps the grid onto the target, one transform per row, one per
    // object. Drawable k holds rows 2k and 2k + 1 and uses material k % 5.
    void buildModel()
    {
        QMatrix4x4 root;
        root.translate(-1, -1);
        root.scale(2.0f / kColumns);
        const BoundingBox quad(QVector3D(-0.5f, -0.5f, 0), QVector3D(0.5f, 0.5f, 0));
        model.loadBoundingBoxes(&quad, 1);
        const int rootTransform = model.addTransform(-1, root);
        for (int row = 0; row < 2 * kDrawables; ++row) {
            QMatrix4x4 rowMatrix;
            rowMatrix.translate(0, row + 0.5f);
            rows.push_back(model.addTransform(rootTransform, rowMatrix));
        }
        for (int material = 0; material < kMaterials; ++material) {
            InstanceData record(materialPlan.name());
            record.setTexture("Albedo", manager.textureForColor(materialColour(material)), &manager);
            const float tint[] = {1, 1, 1, 1};
            record.set("Tint", tint, sizeof(tint));
            materials.push_back(new InstanceDataCollection(materialPlan.name(), {record}));
        }
        std::vector<DrawElementsIndirectCommand> commands;
        for (int c = 0; c < kCommands; ++c)
            commands.push_back({6, 1, 0, 0, quint32(c)});
        for (int k = 0; k < kDrawables; ++k) {
            auto* db = new DrawBuffers;
            db->setVAO(vao);
            db->setPrimitiveType(GL_TRIANGLES);
            db->setIndexedDraw(indexBuffer, 6, GL_UNSIGNED_INT);
            db->setDrawElementsIndirectCommands(commands.data(), kCommands);
            objects.push_back(new InstanceDataCollection(&objectPlan, size_t(kCommands)));
            const int id = model.add(db, k % kMaterials, materials[size_t(k % kMaterials)], objects.back(), 0);
            for (int c = 0; c < kCommands; ++c) {
                QMatrix4x4 local;
                local.translate(c % kColumns + 0.5f, 0);
                local.scale(0.6f); // leaves a clear pixel column and row between objects
                const int t = model.addTransform(rows[size_t(2 * k + c / kColumns)], local);
                model.useTransform(id, c, t);
                model.useBoundingBox(id, c, 0);
            }
        }
        model.updateTransforms();
    }

    // Builds the programs for the path and switches the model's draw buffers to it; false when
    // the context lacks the path.
    bool usePath(Path path)
    {
        const bool baseInstance = path != eUniformFallback;
        if (baseInstance && !DrawBuffers::isBaseInstanceDrawingSupported())
            return false;
        if (path == eMultiDrawIndirect && !DrawBuffers::isMultiDrawIndirectSupported())
            return false;
        GLSLMacroProcessor macros;
        DrawBuffers::useBaseInstanceDrawing(baseInstance);
        DrawBuffers::setup(&macros);
        manager.setup(&macros);
        program = std::make_unique<ShaderProgram>();
        program->setMacroProcessor(&macros);
        program->addShader(GL_VERTEX_SHADER, "#version 150\n#include \"VyxUtilities.glslh\"\n#instancedata \"GMObject\"\n"
                                             "in vec4 va_Vertex;\n"
                                             "void main() { gl_Position = getModelMatrix() * va_Vertex; }\n");
        program->addShader(GL_VERTEX_SHADER, objectPlan.glslc());
        program->addShader(GL_VERTEX_SHADER, VyxTest::glslResource("VyxUtilities.vert"));
        program->addShader(GL_VERTEX_SHADER, VyxTest::glslResource("VyxUtilities.glslc"));
        program->addShader(GL_FRAGMENT_SHADER,
                           "#version 150\n#include \"TextureManager.glslh\"\n#instancedata \"GMMaterial\"\n"
                           "out vec4 o_Colour;\n"
                           "void main() { o_Colour = managedTexture(getAlbedo(0u), vec2(0.5)) * getTint(0u); }\n");
        program->addShader(GL_FRAGMENT_SHADER, materialPlan.glslc());
        program->addShader(GL_FRAGMENT_SHADER, VyxTest::glslResource(manager.getShaderFile()));
        EXPECT_TRUE(program->link()) << qPrintable(program->log());
        for (int k = 0; k < model.numDrawables(); ++k)
            model.drawBuffers(k)->setMultiDrawIndirect(path == eMultiDrawIndirect);
        return program->isLinked();
    }

    bool render(GPUModel::WindingType winding = GPUModel::eWindingNoCulling)
    {
        target->clear(0);
        model.updateTransforms();
        model.resetCulling();
        model.visibilityCull();
        return draw(model, 0, 0, winding, true);
    }

    template <typename... Args>
    bool draw(GPUModel& m, Args... args)
    {
        program->bind();
        const bool drawn = m.draw(program.get(), &manager, args...);
        program->unbind();
        return drawn;
    }

    // The pixel under the world-space origin of command c of drawable k.
    QPoint probe(int k, int c)
    {
        const QVector3D ndc = model.worldTransform(model.drawable(k).transformRefs[c]).map(QVector3D());
        return QPoint(int((ndc.x() + 1) * 0.5f * kSize), int((ndc.y() + 1) * 0.5f * kSize));
    }

    // Whether command c of drawable k shows its material's colour (or nothing).
    void expectShown(std::initializer_list<std::tuple<int, int, bool>> cases)
    {
        for (const auto& [k, c, drawn] : cases) {
            const QPoint p = probe(k, c);
            EXPECT_EQ(target->pixel(p.x(), p.y()), drawn ? materialColour(k % kMaterials) : QColor(0, 0, 0, 0))
                << "drawable " << k << " command " << c << " at (" << p.x() << ", " << p.y() << ")";
        }
    }

    template <typename Test>
    void onEveryPath(Test test)
    {
        for (Path path : {eUniformFallback, eBaseInstance, eMultiDrawIndirect}) {
            SCOPED_TRACE(kPathNames[path]);
            if (usePath(path))
                test();
        }
    }

    InstanceDataPlan objectPlan{"GMObject"};
    InstanceDataPlan materialPlan{"GMMaterial"};
    SamplerTextureManager manager;
    std::unique_ptr<VyxTest::ColourTarget> target;
    QSharedPointer<BufferObject> indexBuffer;
    QSharedPointer<VertexArrayObject> vao;
    std::vector<int> rows;
    std::vector<InstanceDataCollection*> materials, objects;
    GPUModel model;
    std::unique_ptr<ShaderProgram> program;
};

} // namespace

TEST_F(GPUModelTest, DrawsEveryObjectWithItsMaterialWhereItsWorldMatrixPutsIt)
{
    model.setContainsReflectedTransparency(true);
    onEveryPath([&] {
        ASSERT_TRUE(render());
        for (int k : {0, 3, 4, 7})
            expectShown({{k, 0, true}, {k, 17, true}, {k, 31, true}});
        EXPECT_EQ(target->pixel(0, 0), QColor(0, 0, 0, 0)) << "the gap between objects stays clear";
        // Reflected transparency tags each material's pixels in the stencil.
        for (int k = 0; k < kDrawables; ++k) {
            const QPoint p = probe(k, 9);
            EXPECT_EQ(target->stencil(p.x(), p.y()), k % kMaterials + 1) << "drawable " << k;
        }
        EXPECT_EQ(target->stencil(0, 0), 0);
        EXPECT_FALSE(glIsEnabled(GL_STENCIL_TEST)) << "the draw switched the stencil test on and off again";

        // Moving a row carries its objects; the world matrix the probe reads agrees.
        QMatrix4x4 moved = model.localTransform(rows[5]);
        moved.translate(0.5f, 0);
        model.setLocalTransform(rows[5], moved);
        ASSERT_TRUE(render());
        expectShown({{2, 20, true}});
    });
}

TEST_F(GPUModelTest, HiddenZeroScaledCulledAndBackFacingObjectsLeaveNoPixels)
{
    const int object = model.drawable(1).transformRefs[2];
    model.setVisibility(object, 2);                      // one object
    model.setVisibility(rows[6], 3);                     // row 6 = drawable 3, commands 0-15
    model.setVisibility(rows[9], 2);                     // hides the row's own commands only: it has none
    // Scaled to nothing on every axis: with no depth offset its z row is empty, which culls it.
    QMatrix4x4 flat = model.localTransform(model.drawable(2).transformRefs[5]);
    flat.scale(0);
    model.setLocalTransform(model.drawable(2).transformRefs[5], flat);
    model.addFlags(GPUModel::kHiddenFlag, 7);
    const int mirroredObject = model.drawable(0).transformRefs[4];
    QMatrix4x4 mirror = model.localTransform(mirroredObject);
    mirror.scale(-1, 1, 1);
    model.setLocalTransform(mirroredObject, mirror);
    onEveryPath([&] {
        ASSERT_TRUE(render());
        expectShown({{1, 2, false}, {1, 3, true}, {3, 0, false}, {3, 15, false}, {3, 16, true}, {4, 20, true},
                     {2, 5, false}, {7, 0, false}});
        EXPECT_TRUE(model.isCommandCulled(2, 5)) << "zero scale is culled, not only invisible";

        // A frustum around the left half culls the right half, though the draw itself shows all.
        QMatrix4x4 leftHalf;
        leftHalf.ortho(-1, 0, -1, 1, -1, 1);
        model.frustumCull(leftHalf);
        target->clear(0);
        ASSERT_TRUE(draw(model, 0, 0, GPUModel::eWindingNoCulling, true));
        expectShown({{0, 0, true}, {0, 15, false}, {5, 24, false}});
        // A pass that ignores culling still keeps hidden objects hidden.
        target->clear(0);
        ASSERT_TRUE(draw(model, 0, 0, GPUModel::eWindingNoCulling, false));
        expectShown({{0, 15, true}, {1, 2, false}});

        // Mirrored objects draw only in the clockwise pass.
        ASSERT_TRUE(render(GPUModel::eWindingCCW));
        EXPECT_TRUE(model.isTransformMirrored(mirroredObject));
        expectShown({{0, 4, false}, {0, 5, true}});
        ASSERT_TRUE(render(GPUModel::eWindingCW));
        expectShown({{0, 4, true}, {0, 5, false}});
        EXPECT_TRUE(glIsEnabled(GL_CULL_FACE));
        glDisable(GL_CULL_FACE);
    });
}

TEST_F(GPUModelTest, RedrawsBindOnlyWhatChangesAndUploadOnlyTheEditedRecords)
{
    ASSERT_TRUE(usePath(eUniformFallback));
    ASSERT_TRUE(render());
    {
        CallRecorder<&_ptrc_glBindVertexArray> bindVertexArray;
        CallRecorder<&_ptrc_glUniform1iv> slotUniforms;
        CallRecorder<&_ptrc_glBindBufferBase> bindBase;
        ASSERT_TRUE(render());
        // All drawables share one vertex array: bound once, unbound once.
        EXPECT_EQ(bindVertexArray.count(), 2u);
        // Drawables 0 and 5 share material 0 (and so on): the texture manager is bound once per material.
        EXPECT_EQ(slotUniforms.count(), size_t(kMaterials));
        // A table takes over the point of the one before; points are emptied only after the last drawable.
        EXPECT_EQ(bindBase.count(), size_t(kMaterials + kDrawables + 2));
        const auto emptied = std::count_if(bindBase.calls().begin(), bindBase.calls().end(),
                                           [](const auto& call) { return std::get<2>(call) == 0u; });
        EXPECT_EQ(emptied, 2);
    }
    EXPECT_FALSE(model.updateTransforms()) << "nothing changed";
    const int transform = model.drawable(3).transformRefs[7];
    QMatrix4x4 local = model.localTransform(transform);
    local.translate(0, 0.1f);
    model.setLocalTransform(transform, local);
    CallRecorder<&_ptrc_glBufferSubData> written;
    CallRecorder<&_ptrc_glBufferData> reallocated;
    CallRecorder<&_ptrc_glMapBufferRange> mapped;
    CallRecorder<&_ptrc_glMapBuffer> mappedWhole;
    ASSERT_TRUE(render());
    ASSERT_EQ(written.count(), 1u);
    EXPECT_EQ(size_t(std::get<2>(written.calls()[0])), objectPlan.totalDataSize());
    EXPECT_EQ(reallocated.count() + mapped.count() + mappedWhole.count(), 0u);
}

TEST_F(GPUModelTest, BackToFrontDrawablesDrawTheirFarthestCommandsFirst)
{
    ASSERT_TRUE(usePath(eUniformFallback));
    model.addFlags(GPUModel::kSortBackToFrontFlag, 0);
    QMatrix4x4 view;
    view.translate(-3, 0, 0); // the eye at (3, 0, 0), right of the grid
    model.resetCulling();
    CallRecorder<&_ptrc_glUniform1ui> drawIDs;
    ASSERT_TRUE(draw(model, 0, 0, GPUModel::eWindingNoCulling, &view, true));
    std::vector<float> distances;
    for (const auto& call : drawIDs.calls()) {
        if (distances.size() == size_t(kCommands))
            break; // drawable 0 comes first
        const QVector3D centre = model.worldTransform(model.drawable(0).transformRefs[int(std::get<1>(call))]).map(QVector3D());
        distances.push_back(centre.distanceToPoint(QVector3D(3, 0, 0)));
    }
    ASSERT_EQ(distances.size(), size_t(kCommands));
    EXPECT_TRUE(std::is_sorted(distances.rbegin(), distances.rend()));
    // Without a view the order is the command order.
    drawIDs.calls().clear();
    ASSERT_TRUE(draw(model, 0, 0));
    EXPECT_EQ(std::get<1>(drawIDs.calls()[1]), 1u);
}

TEST_F(GPUModelTest, PropertiesReachEveryInstanceUnderTheirName)
{
    ASSERT_TRUE(usePath(eUniformFallback));
    model.addMaterialName(2, 0, "Dim");
    model.addObjectName(4, 6, "Lifted");
    const float half[] = {0.5f, 0.5f, 0.5f, 1.0f};
    EXPECT_TRUE(model.setMaterialProperty("Dim", "Tint", half, sizeof(half)));
    QMatrix4x4 lifted = model.worldTransform(model.drawable(4).transformRefs[6]);
    lifted.translate(0, 1.0f);
    EXPECT_TRUE(model.setObjectProperty("Lifted", "ModelMatrix", lifted.constData(), 64));
    model.resetCulling();
    target->clear(0);
    ASSERT_TRUE(draw(model, 0, 0));
    // Drawables 2 and 7 share material 2's record.
    const QColor c = materialColour(2);
    for (int k : {2, 7}) {
        const QPoint p = probe(k, 0);
        EXPECT_EQ(target->pixel(p.x(), p.y()), QColor(c.red() / 2, c.green() / 2, c.blue() / 2, 255)) << k;
    }
    // Lifted by 0.6 of a cell: off its old pixel, onto the one above.
    const QPoint old = probe(4, 6);
    EXPECT_EQ(target->pixel(old.x(), old.y()), QColor(0, 0, 0, 0));
    EXPECT_EQ(target->pixel(old.x(), old.y() + 2), materialColour(4));
    VyxTest::MessageCapture capture;
    EXPECT_FALSE(model.setMaterialProperty("Absent", "Tint", half, sizeof(half)));
    EXPECT_EQ(capture.texts(QtCriticalMsg).size(), 1);
}

TEST_F(GPUModelTest, SimpleFeatureDrawsWholeDrawablesAndAnEmptyModelNothing)
{
    ASSERT_TRUE(usePath(eUniformFallback));
    GPUModel empty;
    {
        CallRecorder<&_ptrc_glDrawElementsBaseVertex> drawn;
        EXPECT_EQ(empty.visibilityCull(), 0);
        EXPECT_TRUE(empty.isCullingApplied());
        EXPECT_TRUE(empty.isDrawEmpty(0, 0));
        EXPECT_TRUE(empty.draw(program.get(), &manager, 0, 0));
        EXPECT_EQ(drawn.count(), 0u);
    }
    GPUModel simple;
    simple.setDeleteOnClear(false);
    DrawBuffers whole;
    whole.setVAO(vao);
    whole.setPrimitiveType(GL_TRIANGLES);
    whole.setIndexedDraw(indexBuffer, 6, GL_UNSIGNED_INT);
    InstanceDataCollection matrix(&objectPlan, size_t(1));
    const QMatrix4x4 identity;
    matrix.set(0, "ModelMatrix", identity.constData(), 64);
    simple.addSimple(&whole, 3, materials[1], &matrix, 2);
    simple.addSimple(&whole, 3, materials[3], &matrix, 1);
    simple.setFeatureFlags(simple.getFeatureFlags() | GPUModel::kSimpleDrawFeature);
    // The mask picks the second drawable only; it covers the middle of the target.
    ASSERT_TRUE(draw(simple, 1, 3));
    EXPECT_EQ(target->pixel(kSize / 2, kSize / 2), materialColour(3));
    EXPECT_EQ(target->pixel(2, 2), QColor(0, 0, 0, 0));
}
