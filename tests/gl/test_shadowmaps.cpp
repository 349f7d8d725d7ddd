#include "gl/glslmacroprocessor.h"
#include "gl/shaderprogram.h"
#include "gl/shadowmapmanager.h"
#include "gl/texture.h"
#include "render/shadowmaprenderer.h"
#include "support/callrecorder.h"
#include "support/glhelpers.h"
#include "support/gltest.h"
#include "support/messagecapture.h"

#include <QVector4D>

#include <cmath>
#include <memory>
#include <optional>
#include <vector>

#include "gl/glloader.h"

using namespace Tavren::Vyx;
using VyxTest::assertionText;
using VyxTest::CallRecorder;
using VyxTest::MessageCapture;

namespace {

// A ground plane 8 units wide at y = 0 and a unit box standing on its centre, seen from straight
// above on a 64x64 target, one pixel per 1/8 unit.
constexpr int kPixels = 64;
constexpr float kGroundHalf = 4.0f;
const QVector3D kBoxLow(-0.5f, 0.0f, -0.5f), kBoxHigh(0.5f, 1.0f, 0.5f);

std::vector<float> sceneTriangles()
{
    std::vector<float> v;
    auto quad = [&](QVector3D a, QVector3D b, QVector3D c, QVector3D d) {
        for (const QVector3D& p : {a, b, c, a, c, d})
            v.insert(v.end(), {p.x(), p.y(), p.z()});
    };
    const float g = kGroundHalf;
    quad({-g, 0, -g}, {-g, 0, g}, {g, 0, g}, {g, 0, -g});
    const QVector3D l = kBoxLow, h = kBoxHigh;
    quad({l.x(), h.y(), l.z()}, {l.x(), h.y(), h.z()}, {h.x(), h.y(), h.z()}, {h.x(), h.y(), l.z()});
    quad({l.x(), l.y(), l.z()}, {l.x(), h.y(), l.z()}, {h.x(), h.y(), l.z()}, {h.x(), l.y(), l.z()});
    quad({l.x(), l.y(), h.z()}, {h.x(), l.y(), h.z()}, {h.x(), h.y(), h.z()}, {l.x(), h.y(), h.z()});
    quad({l.x(), l.y(), l.z()}, {l.x(), l.y(), h.z()}, {l.x(), h.y(), h.z()}, {l.x(), h.y(), l.z()});
    quad({h.x(), l.y(), l.z()}, {h.x(), h.y(), l.z()}, {h.x(), h.y(), h.z()}, {h.x(), l.y(), h.z()});
    return v;
}

// Does the ray from p along dir, for t in (0, limit), pass through the box?
bool rayHitsBox(QVector3D p, QVector3D dir, float limit)
{
    float near = 1e-4f, far = limit;
    for (int axis = 0; axis < 3; ++axis) {
        if (std::abs(dir[axis]) < 1e-9f) {
            if (p[axis] < kBoxLow[axis] || p[axis] > kBoxHigh[axis])
                return false;
            continue;
        }
        float t0 = (kBoxLow[axis] - p[axis]) / dir[axis], t1 = (kBoxHigh[axis] - p[axis]) / dir[axis];
        if (t0 > t1)
            std::swap(t0, t1);
        near = std::max(near, t0);
        far = std::min(far, t1);
    }
    return near < far;
}

QMatrix4x4 lookingFrom(QVector3D eye, QVector3D target)
{
    QMatrix4x4 view;
    view.lookAt(eye, target, QVector3D(0, 0, -1));
    return view.inverted();
}

struct LightCase
{
    const char* name;
    ShadowMapLight::Type type;
    QMatrix4x4 transform;
    bool withCamera;
    std::optional<QVector3D> position; // else the direction the light travels
    QVector3D direction;
};

class ShadowMapsTest : public VyxTest::GLTest
{
protected:
    void SetUp() override
    {
        GLTest::SetUp();
        ShadowMapManager::setup(&macros);
        const std::vector<float> triangles = sceneTriangles();
        vertexCount = int(triangles.size() / 3);
        glGenBuffers(1, &buffer);
        glBindBuffer(GL_ARRAY_BUFFER, buffer);
        glBufferData(GL_ARRAY_BUFFER, GLsizeiptr(triangles.size() * sizeof(float)), triangles.data(), GL_STATIC_DRAW);
        glBindBuffer(GL_ARRAY_BUFFER, 0);
        glGenVertexArrays(1, &vertexArray);
        view.lookAt(QVector3D(0, 10, 0), QVector3D(0, 0, 0), QVector3D(0, 0, -1));
        projection.ortho(-kGroundHalf, kGroundHalf, -kGroundHalf, kGroundHalf, 1.0f, 20.0f);
    }

    void TearDown() override
    {
        glDeleteVertexArrays(1, &vertexArray);
        glDeleteBuffers(1, &buffer);
        GLTest::TearDown();
    }

    void drawScene(ShaderProgram& program)
    {
        const int location = program.getVertexAttributeLocation(QStringLiteral("va_Vertex"));
        ASSERT_GE(location, 0);
        glBindVertexArray(vertexArray);
        glBindBuffer(GL_ARRAY_BUFFER, buffer);
        glVertexAttribPointer(GLuint(location), 3, GL_FLOAT, GL_FALSE, 0, nullptr);
        glEnableVertexAttribArray(GLuint(location));
        glDrawArrays(GL_TRIANGLES, 0, vertexCount);
        glBindVertexArray(0);
    }

    std::unique_ptr<ShaderProgram> visibilityProgram(const char* call)
    {
        auto program = std::make_unique<ShaderProgram>();
        program->setMacroProcessor(&macros);
        program->addShader(GL_VERTEX_SHADER, R"(#version 150
uniform mat4 u_ViewProjection; in vec4 va_Vertex; out vec3 vo_Position;
void main() { vo_Position = va_Vertex.xyz; gl_Position = u_ViewProjection * va_Vertex; })");
        program->addShader(GL_FRAGMENT_SHADER, QStringLiteral(R"(#version 150
#include "ShadowMapManager.glslh"
uniform vec3 u_LightPosition; in vec3 vo_Position; out vec4 o_Colour;
void main() { o_Colour = vec4(%1); })")
                                                   .arg(QLatin1String(call)));
        program->addShaderFromFile(GL_FRAGMENT_SHADER, ShadowMapManager::getShaderFile());
        EXPECT_TRUE(program->link()) << program->log().toStdString();
        return program;
    }

    // Visibility of the ground as seen from above, bottom row first.
    std::vector<int> renderVisibility(const LightCase& light, const char* call)
    {
        ShadowMapLight lamp;
        lamp.setType(light.type);
        lamp.setTransform(light.transform);
        lamp.setSpotCutoff(0.9f);
        lamp.setCSMLevels(2);
        ShadowMapRenderData data;
        data.setShadowMapSize(256);
        const QPair<QVector3D, QVector3D> bounds(QVector3D(-kGroundHalf, -0.1f, -kGroundHalf),
                                                 QVector3D(kGroundHalf, 1.1f, kGroundHalf));
        const QVariantList lights{QVariant::fromValue<QObject*>(&lamp)};
        if (light.withCamera)
            ShadowMapManager::processLights(lights, data, &view, &projection, &bounds);
        else
            ShadowMapManager::processLights(lights, data);

        ShadowMapRenderer renderer;
        renderer.setBlurRadius(1);
        EXPECT_TRUE(renderer.render(data, [&](ShaderProgram& program, const QMatrix4x4&) { drawScene(program); }));

        VyxTest::ColourTarget target(kPixels, kPixels);
        shade(call, data, light.position.value_or(QVector3D()));
        return target.channel(0);
    }

    // Draws the scene from above into the bound target with a program that outputs `call`.
    void shade(const char* call, ShadowMapRenderData& data, QVector3D lightPosition = {})
    {
        auto program = visibilityProgram(call);
        program->bind();
        program->setUniform(QStringLiteral("u_ViewProjection"), QVariant(projection * view));
        program->setUniform(QStringLiteral("u_LightPosition"), QVariant(lightPosition));
        const QVariant dataVariant = QVariant::fromValue<QObject*>(&data);
        EXPECT_TRUE(ShadowMapManager::bind(program.get(), dataVariant));
        drawScene(*program);
        EXPECT_TRUE(ShadowMapManager::unbind(program.get(), dataVariant));
        program->unbind();
    }

    // Ground point under the centre of pixel (x, y).
    QVector3D groundAt(int x, int y) const
    {
        const QVector4D ndc((x + 0.5f) * 2.0f / kPixels - 1.0f, (y + 0.5f) * 2.0f / kPixels - 1.0f, 0.0f, 1.0f);
        QVector3D p = ((projection * view).inverted() * ndc).toVector3DAffine();
        p.setY(0.0f);
        return p;
    }

    void expectShadowWhereTheBoxCastsIt(const LightCase& light, const char* call)
    {
        SCOPED_TRACE(light.name);
        const std::vector<int> visibility = renderVisibility(light, call);
        ASSERT_EQ(int(visibility.size()), kPixels * kPixels);
        std::vector<int> expectShadow(visibility.size());
        for (int y = 0; y < kPixels; ++y)
            for (int x = 0; x < kPixels; ++x) {
                const QVector3D p = groundAt(x, y);
                expectShadow[size_t(y * kPixels + x)] = light.position
                    ? rayHitsBox(p, *light.position - p, 1.0f)
                    : rayHitsBox(p, -light.direction, 1e3f);
            }
        // Within two pixels of the CPU silhouette either answer is fine; under the box too.
        constexpr int kBand = 2;
        int shadowed = 0, mismatches = 0;
        for (int y = 0; y < kPixels; ++y)
            for (int x = 0; x < kPixels; ++x) {
                const QVector3D p = groundAt(x, y);
                const bool underBox = std::abs(p.x()) < 0.5f + 0.25f && std::abs(p.z()) < 0.5f + 0.25f;
                const bool expected = expectShadow[size_t(y * kPixels + x)];
                bool nearEdge = false;
                for (int dy = -kBand; dy <= kBand; ++dy)
                    for (int dx = -kBand; dx <= kBand; ++dx) {
                        const int nx = std::clamp(x + dx, 0, kPixels - 1), ny = std::clamp(y + dy, 0, kPixels - 1);
                        nearEdge |= bool(expectShadow[size_t(ny * kPixels + nx)]) != expected;
                    }
                if (underBox || nearEdge)
                    continue;
                const int value = visibility[size_t(y * kPixels + x)];
                shadowed += expected;
                if (expected ? value >= 51 : value <= 229) {
                    if (++mismatches <= 5)
                        ADD_FAILURE() << "pixel " << x << "," << y << " visibility " << value << " expected "
                                      << (expected ? "shadow" : "lit");
                }
            }
        EXPECT_EQ(mismatches, 0);
        EXPECT_GT(shadowed, 20) << "the shadow must fall on the visible ground";
    }

    GLSLMacroProcessor macros;
    GLuint buffer = 0, vertexArray = 0;
    int vertexCount = 0;
    QMatrix4x4 view, projection;
};

QMatrix4x4 travelling(QVector3D direction)
{
    // A frame whose +Z is the direction of travel.
    const QVector3D z = direction.normalized();
    const QVector3D x = QVector3D::crossProduct(QVector3D(0, 1, 0), z).normalized();
    const QVector3D y = QVector3D::crossProduct(z, x);
    QMatrix4x4 frame;
    frame.setColumn(0, QVector4D(x, 0));
    frame.setColumn(1, QVector4D(y, 0));
    frame.setColumn(2, QVector4D(z, 0));
    return frame;
}

TEST_F(ShadowMapsTest, BoxShadowFallsWhereTheCpuProjectsItForEveryLightType)
{
    const QVector3D spotAt(2.5f, 3.0f, 1.5f), pointAt(1.2f, 2.5f, 0.8f), travel(-1.6f, -1.0f, -0.9f);
    const LightCase cases[] = {
        {"spot", ShadowMapLight::Spot, lookingFrom(spotAt, QVector3D(0, 0, 0)), false, spotAt, {}},
        {"point", ShadowMapLight::Point, [&] { QMatrix4x4 m; m.translate(pointAt); return m; }(), false, pointAt, {}},
        {"directional cascades", ShadowMapLight::Directional, travelling(travel), true, std::nullopt, travel},
        {"directional fallback", ShadowMapLight::Directional, travelling(travel), false, std::nullopt, travel},
    };
    for (const LightCase& light : cases)
        expectShadowWhereTheBoxCastsIt(light, "shadowMapGetVisibility(0u, vo_Position)");
    // The slope-biased form, as point lights use it: the ground faces the light.
    expectShadowWhereTheBoxCastsIt(cases[1],
                                   "shadowMapGetVisibility(0u, vo_Position, vec3(0.0, 1.0, 0.0), "
                                   "normalize(u_LightPosition - vo_Position))");
    expectShadowWhereTheBoxCastsIt(cases[0], "shadowMapGetVisibilitySingle(0u, vo_Position)");
}

// The bottom strip shows the records, (light / 32, count / 32, first / 32); above it the layers
// are tiled three by three, and the tiles past the seventh layer are empty.
TEST_F(ShadowMapsTest, DebugViewShowsRecordsAndLayers)
{
    ShadowMapLight point, spot;
    spot.setType(ShadowMapLight::Spot);
    spot.setSpotCutoff(0.5f);
    ShadowMapRenderData data;
    data.setShadowMapSize(8);
    ShadowMapManager::processLights(QVariantList{QVariant::fromValue<QObject*>(&point), QVariant::fromValue<QObject*>(&spot)},
                                    data);
    ShadowMapRenderer renderer;
    ASSERT_TRUE(renderer.render(data, [&](ShaderProgram& program, const QMatrix4x4&) { drawScene(program); }));
    VyxTest::ColourTarget target(32, 64);
    shade("shadowMapGetDebug(gl_FragCoord.xy / vec2(32.0, 64.0))", data);
    std::vector<std::vector<int>> channels;
    for (int channel = 0; channel < 4; ++channel)
        channels.push_back(target.channel(channel));
    auto pixel = [&](int x, int y) {
        std::vector<int> rgba;
        for (const auto& channel : channels)
            rgba.push_back(channel[size_t(y * 32 + x)]);
        return rgba;
    };
    EXPECT_EQ(pixel(0, 0), (std::vector<int>{0, 48, 0, 255}));
    EXPECT_EQ(pixel(1, 0), (std::vector<int>{8, 8, 48, 255}));
    EXPECT_EQ(pixel(2, 0), (std::vector<int>{16, 0, 56, 255}));
    EXPECT_EQ(pixel(31, 63), (std::vector<int>{0, 0, 0, 0}));
    // A layer tile: the moments of whatever the projector saw, blue 0 and alpha 1.
    EXPECT_EQ(pixel(5, 10)[2], 0);
    EXPECT_EQ(pixel(5, 10)[3], 255);
}

TEST_F(ShadowMapsTest, BindRefusesWhatIsNotRenderDataWithATexture)
{
    QObject unrelated;
    ShadowMapRenderData withoutTexture;
    struct Case
    {
        QVariant variant;
        const char* condition;
        QString message;
    } cases[] = {
        {QVariant(), "false == dataVariant.isNull()", "NULL render data variant used"},
        {QVariant(7), "true == dataVariant.canConvert<QObject*>()", "render data is not a 'QObject*' type is 'int'"},
        {QVariant::fromValue<QObject*>(&unrelated), "NULL != renderData", "NULL render data used"},
        {QVariant::fromValue<QObject*>(&withoutTexture), "NULL != texture", "NULL render data texture used"},
    };
    for (const Case& c : cases) {
        for (auto operation : {&ShadowMapManager::bind, &ShadowMapManager::unbind}) {
            MessageCapture capture;
            testing::internal::CaptureStdout();
            EXPECT_FALSE(operation(nullptr, c.variant));
            const std::string printed = testing::internal::GetCapturedStdout();
            EXPECT_EQ(capture.bodies(QtCriticalMsg), QStringList{assertionText(c.condition, c.message)});
            EXPECT_EQ(printed, c.variant.value<QObject*>() == &unrelated ? "Type 'QObject'\n" : "");
        }
    }
}

TEST_F(ShadowMapsTest, BindUploadsOnlyArraysOfTheShaderSize)
{
    Texture texture;
    texture.create3D(GL_TEXTURE_2D_ARRAY, GL_RG32F, 4, 4, 1);
    ShadowMapRenderData data;
    data.setProjectionTexture(&texture);
    data.projectorInfos.resize(31);
    auto program = visibilityProgram("shadowMapGetVisibility(0u, vo_Position)");
    program->bind();
    MessageCapture capture;
    CallRecorder<&_ptrc_glUniform2iv> infos;
    CallRecorder<&_ptrc_glUniformMatrix4fv> transforms;
    EXPECT_TRUE(ShadowMapManager::bind(program.get(), QVariant::fromValue<QObject*>(&data)));
    EXPECT_EQ(capture.bodies(QtCriticalMsg),
              QStringList{assertionText("kShadowMapInfoArraySizeMax == renderData->projectorInfos.size()",
                                        "Projector Info Array size 31 does not match size required by shader 32")});
    EXPECT_EQ(infos.count(), 0u);
    ASSERT_EQ(transforms.count(), 1u);
    EXPECT_EQ(std::get<1>(transforms.calls()[0]), 32);
    EXPECT_TRUE(ShadowMapManager::unbind(program.get(), QVariant::fromValue<QObject*>(&data)));
    program->unbind();
}

} // namespace
