#include "gl/glloader.h"
#include "gl/instancedata/instancedata.h"
#include "gl/instancedata/instancedataplan.h"
#include "gl/shaders/shaderprogram.h"
#include "render/visibilitybuffer.h"
#include "support/glhelpers.h"
#include "support/gltest.h"
#include "support/messagecapture.h"

#include <algorithm>
#include <vector>

using namespace Tavren::Vyx;

namespace {

constexpr int kSize = 8;

const char* const kQuadVertex = R"(#version 150
uniform vec4 u_Rect; // x0, y0, x1, y1 in NDC
uniform float u_Depth;
void main()
{
    vec2 corner = vec2(gl_VertexID & 1, gl_VertexID >> 1);
    gl_Position = vec4(mix(u_Rect.xy, u_Rect.zw, corner), u_Depth, 1.0);
})";

const char* const kStoreFragment = R"(#version 150
#include "VisibilityBuffer.glslh"
out vec4 out_FragColor;
void main()
{
    visibilityBufferStore(gl_FragCoord.z, uint(gl_PrimitiveID));
    out_FragColor = vec4(0.0);
})";

// Draw IDs of the first three fragments front to back, and the count; 255 when depths go backwards.
const char* const kWalkFragment = R"(#version 150
#include "VisibilityBuffer.glslh"
uniform vec2 u_Size;
out vec4 out_FragColor;
void main()
{
    uvec3 cursor = visibilityBufferInit(gl_FragCoord.xy / u_Size * 2.0 - 1.0);
    VisibilityFragment fragment;
    vec4 ids = vec4(0.0);
    float count = 0.0;
    float last = -1.0;
    while (visibilityBufferNext(cursor, fragment) && count < 8.0) {
        if (fragment.depth < last)
            count = 255.0;
        last = fragment.depth;
        if (count < 3.0)
            ids[int(count)] = float(fragment.drawID);
        count += 1.0;
    }
    out_FragColor = vec4(ids.rgb, count) / 255.0;
})";

struct Quad
{
    int x0, y0, x1, y1; // pixels
    float depth;        // NDC
};
// Drawn in this order, which is not their depth order.
const Quad kQuads[3] = {{0, 0, 6, 6, 0.5f}, {2, 2, 8, 8, -0.5f}, {1, 3, 7, 5, 0.0f}};

} // namespace

using VisibilityBufferTest = VyxTest::GLTest;

TEST_F(VisibilityBufferTest, KeepsEveryFragmentAndWalksThemFrontToBack)
{
    VisibilityBuffer buffer;
    if (isReducedProfileRun()) {
        VyxTest::MessageCapture capture;
        ShaderProgram program;
        EXPECT_FALSE(VisibilityBuffer::isSupported());
        EXPECT_FALSE(buffer.create(kSize, kSize, 64));
        EXPECT_FALSE(buffer.addShaders(&program));
        EXPECT_EQ(capture.texts().filter(QStringLiteral("The visibility buffer needs image load/store and atomic "
                                                        "counters")).size(), 2);
        return;
    }
    InstanceDataPlan plan(QStringLiteral("InstanceInfo"));
    plan.addMember(InstanceDataPlan::eUInt, QStringLiteral("objectID"));
    InstanceDataRegistry::Instance().registerPlan(&plan);
    ShaderProgram store, walk;
    store.addShader(GL_VERTEX_SHADER, QString::fromLatin1(kQuadVertex));
    store.addShader(GL_FRAGMENT_SHADER, QString::fromLatin1(kStoreFragment));
    walk.addShader(GL_VERTEX_SHADER, QString::fromLatin1(kQuadVertex));
    walk.addShader(GL_FRAGMENT_SHADER, QString::fromLatin1(kWalkFragment));
    ASSERT_TRUE(buffer.addShaders(&store) && buffer.addShaders(&walk));
    for (ShaderProgram* program : {&store, &walk}) {
        program->setFragDataLocations({QStringLiteral("out_FragColor")});
        ASSERT_TRUE(program->compile() && program->link()) << program->log().toStdString();
    }
    InstanceDataRegistry::Instance().unregisterPlan(plan.name());

    ASSERT_TRUE(buffer.create(kSize, kSize, 256));
    VyxTest::ColourTarget target(kSize, kSize);
    GLuint vertexArray = 0;
    glGenVertexArrays(1, &vertexArray);
    glBindVertexArray(vertexArray);
    glDisable(GL_DEPTH_TEST);
    auto ndc = [](int pixel) { return pixel * 2.0f / kSize - 1.0f; };
    store.bind();
    buffer.bind(&store);
    for (unsigned i = 0; i < 3; ++i) {
        const Quad& q = kQuads[i];
        glUniform4f(store.getUniformLocation(QStringLiteral("u_Rect")), ndc(q.x0), ndc(q.y0), ndc(q.x1), ndc(q.y1));
        store.setUniform(QStringLiteral("u_Depth"), QVariant(q.depth));
        store.setUniform(QStringLiteral("u_DrawID"), QVariant(i + 1));
            glDrawArrays(GL_TRIANGLE_STRIP, 0, 4);
        }
    store.unbind();
    buffer.memoryBarrier();
    EXPECT_EQ(buffer.fragmentCount(), 36u + 36u + 12u);

    walk.bind();
    buffer.bind(&walk);
    glUniform4f(walk.getUniformLocation(QStringLiteral("u_Rect")), -1.0f, -1.0f, 1.0f, 1.0f);
    walk.setUniform(QStringLiteral("u_Depth"), QVariant(0.0f));
    glUniform2f(walk.getUniformLocation(QStringLiteral("u_Size")), float(kSize), float(kSize));
    glDrawArrays(GL_TRIANGLE_STRIP, 0, 4);
    walk.unbind();
    glBindVertexArray(0);
    glDeleteVertexArrays(1, &vertexArray);
    glEnable(GL_DEPTH_TEST);

    std::vector<int> expected;
    for (int y = 0; y < kSize; ++y) {
        for (int x = 0; x < kSize; ++x) {
            std::vector<std::pair<float, int>> covering;
            for (int i = 0; i < 3; ++i)
                if (x >= kQuads[i].x0 && x < kQuads[i].x1 && y >= kQuads[i].y0 && y < kQuads[i].y1)
                    covering.emplace_back(kQuads[i].depth, i + 1);
            std::sort(covering.begin(), covering.end());
            int texel[4] = {0, 0, 0, int(covering.size())};
            for (size_t i = 0; i < covering.size(); ++i)
                texel[i] = covering[i].second;
            expected.insert(expected.end(), texel, texel + 4);
        }
    }
    std::vector<int> actual(expected.size());
    for (int c = 0; c < 4; ++c) {
        const std::vector<int> channel = target.channel(c);
        for (size_t i = 0; i < channel.size(); ++i)
            actual[i * 4 + c] = channel[i];
    }
    EXPECT_EQ(actual, expected);
}
