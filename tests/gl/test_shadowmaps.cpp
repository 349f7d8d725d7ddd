#include "gl/drawing/drawbuffers.h"
#include "gl/drawing/opengldevicecontext.h"
#include "gl/instancedata/instancedatacollection.h"
#include "gl/instancedata/instancedataplan.h"
#include "gl/model/gpumodel.h"
#include "gl/objects/bufferobject.h"
#include "gl/objects/vertexarrayobject.h"
#include "gl/shaders/glslmacroprocessor.h"
#include "gl/shaders/shaderprogram.h"
#include "gl/shadows/shadowmapmanager.h"
#include "gl/shadows/shadowmapmanagerculling.h"
#include "render/shadowmaprenderer.h"
#include "support/glhelpers.h"
#include "support/gltest.h"
#include "support/messagecapture.h"

#include <cmath>
#include <memory>
#include <vector>

#include "gl/glloader.h"

using namespace Tavren::Vyx;
using VyxTest::assertionText;
using VyxTest::MessageCapture;

namespace {

// A GPUModel of a ground slab 8 units wide with its top at y = 0 and a unit box standing on its
// centre, both the same unit cube placed by their transforms, seen from straight above on a 64x64
// target, one pixel per 1/8 unit.
constexpr int kPixels = 64;
const QVector3D kBoxLow(-0.5f, 0.0f, -0.5f), kBoxHigh(0.5f, 1.0f, 0.5f);
const QPair<QVector3D, QVector3D> kSceneBounds(QVector3D(-4, -0.1f, -4), QVector3D(4, 1, 4));

// Does the ray from p along dir, for t in (0, limit), pass through the box?
bool rayHitsBox(QVector3D p, QVector3D dir, float limit)
{
    float near = 1e-4f, far = limit;
    for (int axis = 0; axis < 3; ++axis) {
        const float t0 = (kBoxLow[axis] - p[axis]) / dir[axis], t1 = (kBoxHigh[axis] - p[axis]) / dir[axis];
        near = std::max(near, std::min(t0, t1));
        far = std::min(far, std::max(t0, t1));
    }
    return near < far;
}

QMatrix4x4 frameLooking(QVector3D from, QVector3D along)
{
    QMatrix4x4 view;
    view.lookAt(from, from + along, QVector3D(0, 0, -1));
    return view.inverted();
}

class ShadowMapsTest : public VyxTest::GLTest
{
protected:
    void SetUp() override
    {
        GLTest::SetUp();
        objectPlan.addMember(InstanceDataPlan::eMat4, "ModelMatrix");
        objectPlan.setArraySize(4);
        InstanceDataRegistry::Instance().registerPlan(&objectPlan);

        float corners[24];
        for (int i = 0; i < 24; ++i)
            corners[i] = (i / 3) >> (i % 3) & 1 ? 0.5f : -0.5f;
        static const int kFaces[6][4] = {{0, 2, 3, 1}, {4, 5, 7, 6}, {0, 1, 5, 4}, {2, 6, 7, 3}, {0, 4, 6, 2}, {1, 3, 7, 5}};
        std::vector<GLuint> indices;
        for (const auto& face : kFaces)
            for (int corner : {face[0], face[1], face[2], face[0], face[2], face[3]})
                indices.push_back(GLuint(corner));
        auto vao = OpenGLDeviceContext::current()->newVAO();
        vao->registerBO("va_Vertex", VyxTest::newBuffer(GL_ARRAY_BUFFER, corners, 24), 3, GL_FLOAT);

        auto* db = new DrawBuffers;
        db->setVAO(vao);
        db->setPrimitiveType(GL_TRIANGLES);
        db->setIndexedDraw(VyxTest::newBuffer(GL_ELEMENT_ARRAY_BUFFER, indices.data(), 36), 36, GL_UNSIGNED_INT);
        const DrawElementsIndirectCommand commands[] = {{36, 1, 0, 0, 0}, {36, 1, 0, 0, 1}};
        db->setDrawElementsIndirectCommands(commands, 2);
        const BoundingBox unitCube(QVector3D(-0.5f, -0.5f, -0.5f), QVector3D(0.5f, 0.5f, 0.5f));
        model.loadBoundingBoxes(&unitCube, 1);
        const int id = model.add(db, 0, nullptr, new InstanceDataCollection(&objectPlan, size_t(2)), 0);
        QMatrix4x4 ground, box;
        ground.translate(0, -0.05f, 0);
        ground.scale(8, 0.1f, 8);
        box.translate(0, 0.5f, 0);
        for (const QMatrix4x4& placement : {ground, box}) {
            const int command = model.transformCount();
            model.useTransform(id, command, model.addTransform(-1, placement));
            model.useBoundingBox(id, command, 0);
        }
        model.updateTransforms();
        view.lookAt(QVector3D(0, 10, 0), QVector3D(0, 0, 0), QVector3D(0, 0, -1));
        projection.ortho(-4, 4, -4, 4, 1, 20);
    }

    void TearDown() override
    {
        {
            MessageCapture namedArray; // a vertex array deleted with its GL name says so
            model.clear();
        }
        renderer.reset();
        DrawBuffers::useBaseInstanceDrawing(false);
        GLTest::TearDown();
    }

    // A program that shows `value` for the model seen from above.
    std::unique_ptr<ShaderProgram> program(const char* value)
    {
        GLSLMacroProcessor macros;
        ShadowMapManager::setup(&macros);
        DrawBuffers::setup(&macros);
        auto result = std::make_unique<ShaderProgram>();
        result->setMacroProcessor(&macros);
        result->addShader(GL_VERTEX_SHADER, "#version 150\n#include \"VyxUtilities.glslh\"\n#instancedata \"ShadowObject\"\n"
                                            "uniform mat4 u_ViewProjection; in vec4 va_Vertex; out vec3 vo_Position;"
                                            "void main() { vec4 world = getModelMatrix() * va_Vertex;"
                                            "vo_Position = world.xyz; gl_Position = u_ViewProjection * world; }");
        result->addShader(GL_VERTEX_SHADER, objectPlan.glslc());
        result->addShader(GL_VERTEX_SHADER, VyxTest::glslResource("VyxUtilities.vert"));
        result->addShader(GL_VERTEX_SHADER, VyxTest::glslResource("VyxUtilities.glslc"));
        result->addShader(GL_FRAGMENT_SHADER, QStringLiteral("#version 150\n#include \"ShadowMapManager.glslh\"\n"
                                                             "uniform vec3 u_Light; in vec3 vo_Position; out vec4 o_Colour;"
                                                             "void main() { o_Colour = vec4(%1); }")
                                                  .arg(QLatin1String(value)));
        result->addShaderFromFile(GL_FRAGMENT_SHADER, ShadowMapManager::getShaderFile());
        EXPECT_TRUE(result->link()) << result->log().toStdString();
        result->setMacroProcessor(nullptr);
        return result;
    }

    void shade(const char* value, ShadowMapRenderData& data, QVector3D light = {})
    {
        auto shader = program(value);
        shader->bind();
        shader->setUniform(QStringLiteral("u_ViewProjection"), QVariant(projection * view));
        shader->setUniform(QStringLiteral("u_Light"), QVariant(light));
        EXPECT_TRUE(ShadowMapManager::bind(shader.get(), QVariant::fromValue<QObject*>(&data)));
        EXPECT_TRUE(model.draw(shader.get(), 0, 0, GPUModel::eWindingNoCulling, false));
        EXPECT_TRUE(ShadowMapManager::unbind(shader.get(), QVariant::fromValue<QObject*>(&data)));
        shader->unbind();
    }

    InstanceDataPlan objectPlan{"ShadowObject"};
    GPUModel model;
    std::unique_ptr<ShadowMapRenderer> renderer = std::make_unique<ShadowMapRenderer>();
    QMatrix4x4 view, projection;
};

// Every ground pixel more than two pixels from the silhouette the CPU casts must read below 0.2
// in the shadow and above 0.9 in the open.
TEST_F(ShadowMapsTest, BoxShadowFallsWhereTheCpuCastsIt)
{
    const QVector3D spotAt(2.5f, 3, 1.5f), pointAt(1.2f, 2.5f, 0.8f), travel(-1.6f, -1, -0.9f);
    QPair<QVector3D, QVector3D> bounds;
    ASSERT_TRUE(ShadowMapManagerCulling::sceneBounds(model, bounds));
    EXPECT_EQ(bounds, kSceneBounds);
    const char* const plain = "shadowMapGetVisibility(0u, vo_Position)";
    const struct
    {
        const char* name;
        ShadowMapLight::Type type;
        QVector3D position; // the direction of travel for directional lights
        bool camera;
        const char* value;
        bool baseInstance = false; // draw IDs from the base instance rather than a uniform
    } cases[] = {
        // First, so that the cases after it need the draw-ID uniform again.
        {"point, base-instance draws", ShadowMapLight::Point, pointAt, false, plain, true},
        {"spot", ShadowMapLight::Spot, spotAt, false, plain},
        {"spot, single", ShadowMapLight::Spot, spotAt, false, "shadowMapGetVisibilitySingle(0u, vo_Position)"},
        {"point", ShadowMapLight::Point, pointAt, false, plain},
        {"point, slope-biased", ShadowMapLight::Point, pointAt, false,
         "shadowMapGetVisibility(0u, vo_Position, vec3(0.0, 1.0, 0.0), normalize(u_Light - vo_Position))"},
        {"directional cascades", ShadowMapLight::Directional, travel, true, plain},
        {"directional fallback", ShadowMapLight::Directional, travel, false, plain},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        if (c.baseInstance && !DrawBuffers::isBaseInstanceDrawingSupported())
            continue;
        DrawBuffers::useBaseInstanceDrawing(c.baseInstance);
        const bool directional = c.type == ShadowMapLight::Directional;
        ShadowMapLight light;
        light.setType(c.type);
        // Spot and point look at the origin; a directional light's +Z is its direction of travel.
        light.setTransform(frameLooking(directional ? QVector3D() : c.position, -c.position));
        light.setSpotCutoff(0.9f);
        light.setCSMLevels(2);
        ShadowMapRenderData data;
        data.setShadowMapSize(256);
        const QVariantList lights{QVariant::fromValue<QObject*>(&light)};
        ShadowMapManager::processLights(lights, data, c.camera ? &view : nullptr, &projection, &bounds);
        renderer->setBlurRadius(1);
        EXPECT_TRUE(renderer->render(data, model));
        VyxTest::ColourTarget target(kPixels, kPixels);
        shade(c.value, data, c.position);
        const std::vector<int> visibility = target.channel(0);

        std::vector<char> shadow(visibility.size());
        const QMatrix4x4 unproject = (projection * view).inverted();
        for (int i = 0; i < kPixels * kPixels; ++i) {
            QVector3D p = unproject.map(QVector3D((i % kPixels + 0.5f) / 32 - 1, (i / kPixels + 0.5f) / 32 - 1, 0));
            p.setY(0);
            const bool under = std::abs(p.x()) < 0.75f && std::abs(p.z()) < 0.75f;
            shadow[size_t(i)] =
                under ? 2 : directional ? rayHitsBox(p, -c.position, 1e3f) : rayHitsBox(p, c.position - p, 1);
        }
        int shadowed = 0, wrong = 0;
        for (int i = 0; i < kPixels * kPixels; ++i) {
            bool edge = shadow[size_t(i)] == 2;
            for (int d = 0; d < 25; ++d) {
                const int x = std::clamp(i % kPixels + d % 5 - 2, 0, kPixels - 1);
                const int y = std::clamp(i / kPixels + d / 5 - 2, 0, kPixels - 1);
                edge |= shadow[size_t(y * kPixels + x)] != shadow[size_t(i)];
            }
            if (edge)
                continue;
            shadowed += shadow[size_t(i)];
            const int v = visibility[size_t(i)];
            if ((shadow[size_t(i)] ? v >= 51 : v <= 229) && ++wrong <= 3)
                ADD_FAILURE() << "pixel " << i % kPixels << "," << i / kPixels << " reads " << v;
        }
        EXPECT_EQ(wrong, 0);
        EXPECT_GT(shadowed, 20) << "the shadow must reach past the silhouette band";
    }
}

// A drawable the moments program cannot place fails the model's render unless the flags leave it
// out; the scene bounds take the drawables and transforms a shadow pass draws.
TEST_F(ShadowMapsTest, ModelCastersAreWhatTheFlagsAndVisibilityLeave)
{
    InstanceDataPlan unplaced("ShadowUnplaced");
    unplaced.addMember(InstanceDataPlan::eVec4, "Colour");
    InstanceDataRegistry::Instance().registerPlan(&unplaced);
    const DrawBuffers& cube = *model.drawBuffers(0);
    auto* db = new DrawBuffers;
    db->setVAO(cube.VAO());
    db->setPrimitiveType(GL_TRIANGLES);
    db->setIndexedDraw(cube.indexBO(), 36, GL_UNSIGNED_INT);
    db->setDrawElementsIndirectCommands(cube.drawElementsIndirectCommands().constData(), 1);
    const int id = model.add(db, 1, nullptr, new InstanceDataCollection(&unplaced, size_t(1)), 1);
    QMatrix4x4 far;
    far.translate(10, 0, 0);
    model.useTransform(id, 0, model.addTransform(-1, far));
    model.useBoundingBox(id, 0, 0);
    {
        MessageCapture unplacedMatrix; // its plan has nowhere to take the world matrix
        model.updateTransforms();
    }

    ShadowMapLight light;
    light.setType(ShadowMapLight::Spot);
    light.setSpotCutoff(0.9f);
    ShadowMapRenderData data;
    data.setShadowMapSize(16);
    ShadowMapManager::processLights(QVariantList{QVariant::fromValue<QObject*>(&light)}, data);
    {
        MessageCapture capture;
        EXPECT_FALSE(renderer->render(data, model));
        EXPECT_EQ(capture.bodies(QtCriticalMsg),
                  QStringList{assertionText("own && own->dataType(matrix) == InstanceDataPlan::eMat4",
                                            "Drawable 1 has no mat4 \"ModelMatrix\" in its object data to place its shadow")});
    }
    EXPECT_TRUE(renderer->render(data, model, 0, 1));

    QPair<QVector3D, QVector3D> bounds;
    ASSERT_TRUE(ShadowMapManagerCulling::sceneBounds(model, bounds));
    EXPECT_EQ(bounds.second.x(), 10.5f);
    ASSERT_TRUE(ShadowMapManagerCulling::sceneBounds(model, bounds, 0, 1));
    EXPECT_EQ(bounds, kSceneBounds);
    model.setVisibility(model.drawable(0).transformRefs[1], 2); // the box
    ASSERT_TRUE(ShadowMapManagerCulling::sceneBounds(model, bounds, 0, 1));
    EXPECT_EQ(bounds.second.y(), 0.0f);
    model.addFlags(GPUModel::kHiddenFlag, 0);
    EXPECT_FALSE(ShadowMapManagerCulling::sceneBounds(model, bounds, 0, 1));
}

TEST_F(ShadowMapsTest, BindRefusesWhatIsNotRenderDataWithATexture)
{
    QObject unrelated;
    ShadowMapRenderData withoutTexture;
    const struct { QVariant variant; const char* condition; const char* message; } cases[] = {
        {QVariant(), "false == dataVariant.isNull()", "NULL render data variant used"},
        {QVariant(7), "true == dataVariant.canConvert<QObject*>()", "render data is not a 'QObject*' type is 'int'"},
        {QVariant::fromValue<QObject*>(&unrelated), "NULL != renderData", "NULL render data used"},
        {QVariant::fromValue<QObject*>(&withoutTexture), "NULL != texture", "NULL render data texture used"},
    };
    using Operation = bool (*)(ShaderProgram*, const QVariant&);
    for (const auto& c : cases)
        for (Operation operation : {Operation(&ShadowMapManager::bind), Operation(&ShadowMapManager::unbind)}) {
            MessageCapture capture;
            testing::internal::CaptureStdout();
            EXPECT_FALSE(operation(nullptr, c.variant));
            const bool printsType = c.variant.value<QObject*>() == &unrelated;
            EXPECT_EQ(testing::internal::GetCapturedStdout(), printsType ? "Type 'QObject'\n" : "");
            EXPECT_EQ(capture.bodies(QtCriticalMsg), QStringList{assertionText(c.condition, c.message)});
        }
}

} // namespace
