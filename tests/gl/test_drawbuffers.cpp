#include "gl/drawing/drawbuffers.h"
#include "gl/drawing/opengldevicecontext.h"
#include "gl/glloader.h"
#include "gl/objects/bufferobject.h"
#include "gl/objects/uniformbufferobject.h"
#include "gl/objects/vertexarrayobject.h"
#include "gl/shaders/glslmacroprocessor.h"
#include "gl/shaders/shaderprogram.h"
#include "support/callrecorder.h"
#include "support/glhelpers.h"
#include "support/gltest.h"
#include "support/messagecapture.h"

#include <memory>
#include <vector>

using namespace Tavren::Vyx;
using VyxTest::CallRecorder;
using VyxTest::CapabilityRecorder;
using VyxTest::MessageCapture;

namespace {

// Four columns of a 4x1 target. Each draw writes its draw ID as the red byte; 255 = not drawn.
constexpr int kColumns = 4;
constexpr int kIDBase = 8;
const std::vector<int> kEveryDrawOwnColumn = {8, 9, 10, 11};

// Columns 0 and 1 as two quads of four vertices; columns 2 and 3 are the same quads shifted by
// a base vertex of 8. Triangle corners for the non-indexed draws follow.
const float kPositions[] = {-1.0f, -1, -0.5f, -1, -0.5f, 1, -1.0f, 1, -0.5f, -1, 0.0f, -1, 0.0f, 1, -0.5f, 1,
                            0.0f,  -1, 0.5f,  -1, 0.5f,  1, 0.0f,  1, 0.5f,  -1, 1.0f, -1, 1.0f, 1, 0.5f,  1,
                            -1.0f, -1, -0.5f, -1, -0.5f, 1, -0.5f, 1, -1.0f, 1, -1.0f, -1};
const GLuint kIndices[] = {0, 1, 2, 2, 3, 0, 4, 5, 6, 6, 7, 4};
// count, instanceCount, firstIndex, baseVertex, baseInstance
const DrawElementsIndirectCommand kCommands[] = {
    {6, 1, 0, 0, kIDBase + 0}, {6, 1, 6, 0, kIDBase + 1}, {6, 1, 0, 8, kIDBase + 2}, {6, 1, 6, 8, kIDBase + 3}};

// u_Placement 0: geometry where the vertices put it; 1: column = draw ID % 4; 2: column = instance.
const char* const kVertexShader = R"(#version 150
#include "VyxUtilities.glslh"
uniform int u_Placement; in vec4 va_Vertex; flat out uint vo_ID;
void main() {
    vo_ID = getDrawID();
    int column = u_Placement == 1 ? int(vo_ID % 4u) : (u_Placement == 2 ? gl_InstanceID : 0);
    gl_Position = va_Vertex + vec4(0.5 * float(column), 0.0, 0.0, 0.0);
})";
const char* const kFragmentShader = "#version 150\nflat in uint vo_ID; out vec4 out_FragColor;\n"
                                    "void main() { out_FragColor = vec4(float(vo_ID) / 255.0, 0.0, 0.0, 1.0); }";

class DrawBuffersTest : public VyxTest::GLTest
{
protected:
    void SetUp() override
    {
        GLTest::SetUp();
        device = OpenGLDeviceContext::current();
        target = std::make_unique<VyxTest::ColourTarget>(kColumns, 1, 1.0f);
        vertices = VyxTest::newBuffer(GL_ARRAY_BUFFER, kPositions, int(std::size(kPositions)));
        indices = VyxTest::newBuffer(GL_ELEMENT_ARRAY_BUFFER, kIndices, int(std::size(kIndices)));
    }

    void clear() const { target->clear(1.0f); }
    std::vector<int> columns() const { return target->channel(0); }
    // Draw calls, batches and indices counted since the last look.
    static std::vector<quint64> statistics()
    {
        return {DrawBuffers::getAndResetTotalDrawCalls(), DrawBuffers::getAndResetTotalDrawBatches(),
                DrawBuffers::getAndResetTotalDrawIndices()};
    }

    // The draw-ID program, reading the ID from the draw call itself when baseInstance is set.
    std::unique_ptr<ShaderProgram> program(bool baseInstance, int placement)
    {
        DrawBuffers::useBaseInstanceDrawing(baseInstance);
        DrawBuffers::setup(&macros);
        auto result = std::make_unique<ShaderProgram>();
        result->setMacroProcessor(&macros);
        result->addShader(GL_VERTEX_SHADER, kVertexShader);
        result->addShader(GL_VERTEX_SHADER, VyxTest::glslResource("VyxUtilities.vert"));
        result->addShader(GL_VERTEX_SHADER, VyxTest::glslResource("VyxUtilities.glslc"));
        result->addShader(GL_FRAGMENT_SHADER, kFragmentShader);
        EXPECT_TRUE(result->link());
        result->bind();
        glUniform1i(result->getUniformLocation("u_Placement"), placement);
        return result;
    }

    // Triangles over the test geometry with draw ID base 8; indexed unless told otherwise.
    std::unique_ptr<DrawBuffers> drawBuffers(bool indexed = true)
    {
        auto buffers = std::make_unique<DrawBuffers>();
        QSharedPointer<VertexArrayObject> vao = device->newVAO();
        vao->registerBO("va_Vertex", vertices, 2, GL_FLOAT);
        buffers->setVAO(vao);
        buffers->setPrimitiveType(GL_TRIANGLES);
        if (indexed)
            buffers->setIndexedDraw(indices, 6, GL_UNSIGNED_INT);
        buffers->setDrawIDBase(kIDBase);
        return buffers;
    }

    // Binds and points the program's attributes at the geometry.
    static void bindFor(DrawBuffers& buffers, ShaderProgram* shader)
    {
        ASSERT_TRUE(buffers.bind());
        buffers.VAO()->enableShaderProgramArrays(shader);
    }

    std::unique_ptr<DrawBuffers> commandList()
    {
        auto buffers = drawBuffers();
        buffers->setDrawElementsIndirectCommands(kCommands, 4);
        return buffers;
    }

    QSharedPointer<OpenGLDeviceContext> device;
    QSharedPointer<BufferObject> vertices;
    QSharedPointer<BufferObject> indices;
    GLSLMacroProcessor macros;
    std::unique_ptr<VyxTest::ColourTarget> target; // made once the context exists
};

} // namespace

TEST_F(DrawBuffersTest, UniformFallbackDrawsEveryCommandWithItsOwnID)
{
    auto shader = program(false, 0);
    auto buffers = commandList();
    bindFor(*buffers, shader.get());
    {
        CallRecorder<&_ptrc_glDrawElementsBaseVertex> drawCalls;
        CallRecorder<&_ptrc_glUniform1ui> drawIDs;
        ASSERT_TRUE(buffers->draw(shader.get()));
        ASSERT_EQ(drawCalls.count(), 4u);
        EXPECT_EQ(drawCalls.calls()[3], std::make_tuple(GLenum(GL_TRIANGLES), 6, GLenum(GL_UNSIGNED_INT),
                                                        reinterpret_cast<const void*>(24), 8));
        EXPECT_EQ(std::get<1>(drawIDs.calls()[3]), GLuint(kIDBase + 3));
    }
    EXPECT_EQ(columns(), kEveryDrawOwnColumn);
    EXPECT_EQ(statistics(), (std::vector<quint64>{4, 4, 24}));
    EXPECT_EQ(statistics(), (std::vector<quint64>{0, 0, 0}));

    // A subset draws its commands, here with the current GL program; calls and batches still count the whole list.
    clear();
    const QVector<int> subset = {2, 0};
    ASSERT_TRUE(buffers->draw(nullptr, &subset));
    EXPECT_EQ(columns(), (std::vector<int>{8, 255, 10, 255}));
    EXPECT_EQ(statistics(), (std::vector<quint64>{4, 4, 12}));

    MessageCapture capture;
    const QVector<int> outOfRange = {1, 4};
    EXPECT_FALSE(buffers->draw(nullptr, &outOfRange));
    EXPECT_EQ(DrawBuffers::getAndResetTotalDrawCalls(), 0u);
    EXPECT_EQ(capture.bodies(QtCriticalMsg).size(), 1);

    // Rebinding another list restores the index buffer of its own vertex array.
    clear();
    auto second = commandList();
    const QVector<int> left = {0}, right = {3};
    ASSERT_TRUE(buffers->draw(shader.get(), &left));
    ASSERT_TRUE(second->rebind(buffers.get()));
    second->VAO()->enableShaderProgramArrays(shader.get());
    ASSERT_TRUE(second->draw(shader.get(), &right));
    EXPECT_EQ(columns(), (std::vector<int>{8, 255, 255, 11}));
    EXPECT_TRUE(second->unbind());
}

TEST_F(DrawBuffersTest, SingleDrawsGiveEveryInstanceItsOwnIDOnBothPaths)
{
    // Emulated instancing: one draw and one u_DrawID per instance.
    auto shader = program(false, 1);
    auto buffers = drawBuffers();
    buffers->setInstanceCount(4);
    bindFor(*buffers, shader.get());
    {
        CallRecorder<&_ptrc_glDrawElements> drawCalls;
        ASSERT_TRUE(buffers->draw());
        EXPECT_EQ(drawCalls.count(), 4u);
    }
    EXPECT_EQ(columns(), kEveryDrawOwnColumn);
    EXPECT_EQ(statistics(), (std::vector<quint64>{4, 4, 24}));
    buffers->unbind();

    if (isReducedProfileRun()) {
        EXPECT_FALSE(DrawBuffers::isBaseInstanceDrawingSupported());
        return;
    }
    ASSERT_TRUE(DrawBuffers::isBaseInstanceDrawingSupported());
    auto baseInstanceShader = program(true, 1);
    clear();
    bindFor(*buffers, baseInstanceShader.get());
    {
        CapabilityRecorder<GLCapability::DrawElementsInstancedBaseVertexBaseInstance,
                           PFNVYXGLDRAWELEMENTSINSTANCEDBASEVERTEXBASEINSTANCEPROC>
            drawCalls;
        ASSERT_TRUE(buffers->draw(baseInstanceShader.get()));
        ASSERT_EQ(drawCalls.count(), 1u);
        EXPECT_EQ(drawCalls.calls()[0], std::make_tuple(GLenum(GL_TRIANGLES), 6, GLenum(GL_UNSIGNED_INT),
                                                        static_cast<const void*>(nullptr), 4, 0, GLuint(kIDBase)));
    }
    EXPECT_EQ(columns(), kEveryDrawOwnColumn);
    EXPECT_EQ(statistics(), (std::vector<quint64>{1, 1, 6}));
    buffers->unbind();

    // Non-indexed: the base vertex is the first vertex.
    auto arrays = drawBuffers(false);
    arrays->setVertexCount(6);
    arrays->setBaseVertex(16);
    arrays->setInstanceCount(4);
    clear();
    bindFor(*arrays, baseInstanceShader.get());
    {
        CapabilityRecorder<GLCapability::DrawArraysInstancedBaseInstance, PFNVYXGLDRAWARRAYSINSTANCEDBASEINSTANCEPROC>
            drawCalls;
        ASSERT_TRUE(arrays->draw());
        EXPECT_EQ(drawCalls.calls(), (std::vector<std::tuple<GLenum, GLint, GLsizei, GLsizei, GLuint>>{
                                         {GL_TRIANGLES, 16, 6, 4, GLuint(kIDBase)}}));
    }
    EXPECT_EQ(columns(), kEveryDrawOwnColumn);

    // Command lists are refused on this path.
    MessageCapture capture;
    arrays->setDrawElementsIndirectCommands(kCommands, 1);
    EXPECT_FALSE(arrays->draw());
    EXPECT_EQ(capture.bodies(QtDebugMsg), QStringList{"##### COMMAND COUNT"});
    arrays->unbind();
}

TEST_F(DrawBuffersTest, MultiDrawIndirectDrawsTheListInOneCall)
{
    auto buffers = commandList();
    if (isReducedProfileRun()) {
        MessageCapture capture;
        EXPECT_FALSE(DrawBuffers::isMultiDrawIndirectSupported());
        EXPECT_FALSE(buffers->setMultiDrawIndirect(true));
        return;
    }
    auto shader = program(true, 0);
    ASSERT_TRUE(buffers->setMultiDrawIndirect(true));
    bindFor(*buffers, shader.get());
    {
        CallRecorder<&_ptrc_glMultiDrawElementsIndirect> multiDraw;
        CallRecorder<&_ptrc_glDrawElementsBaseVertex> singleDraws;
        ASSERT_TRUE(buffers->draw(shader.get()));
        EXPECT_EQ(multiDraw.calls(), (std::vector<std::tuple<GLenum, GLenum, const void*, GLsizei, GLsizei>>{
                                         {GL_TRIANGLES, GL_UNSIGNED_INT, nullptr, 4, 20}}));
        EXPECT_EQ(singleDraws.count(), 0u);
    }
    EXPECT_EQ(columns(), kEveryDrawOwnColumn);
    EXPECT_EQ(VyxTest::glInteger(GL_DRAW_INDIRECT_BUFFER_BINDING), 0);
    EXPECT_EQ(statistics(), (std::vector<quint64>{1, 4, 24}));

    // A new list switches the path off until it is uploaded again.
    buffers->setDrawElementsIndirectCommands(kCommands, 4);
    EXPECT_FALSE(buffers->isMultiDrawIndirect());
    buffers->unbind();
}

TEST_F(DrawBuffersTest, DrawInstancedIgnoresOffsetsAndStatistics)
{
    auto shader = program(false, 2);
    auto buffers = drawBuffers();
    buffers->setIndexBufferOffset(24);
    buffers->setBaseVertex(8);
    bindFor(*buffers, shader.get());
    glUniform1ui(shader->getUniformLocation("u_DrawID"), 42);
    CallRecorder<&_ptrc_glDrawElementsInstanced> drawCalls;
    ASSERT_TRUE(buffers->drawInstanced(4));
    EXPECT_EQ(drawCalls.calls(), (std::vector<std::tuple<GLenum, GLsizei, GLenum, const void*, GLsizei>>{
                                     {GL_TRIANGLES, 6, GL_UNSIGNED_INT, nullptr, 4}}));
    EXPECT_EQ(columns(), (std::vector<int>{42, 42, 42, 42}));
    EXPECT_EQ(DrawBuffers::getAndResetTotalDrawCalls(), 0u);
    buffers->unbind();
}

TEST_F(DrawBuffersTest, CommandsUniformBufferPacksTheFirstListWithStd140Stride)
{
    auto buffers = commandList();
    QSharedPointer<UniformBufferObject> ubo = buffers->getDrawElementsIndirectCommandsUniformBufferObject();
    ASSERT_FALSE(ubo.isNull());
    EXPECT_EQ(ubo->blockName(), "u_DrawElementsIndirectCommandsUniform");
    const DrawElementsIndirectCommand other[] = {{1, 2, 3, 4, 5}};
    buffers->setDrawElementsIndirectCommands(other, 1);
    EXPECT_EQ(buffers->getDrawElementsIndirectCommandsUniformBufferObject(), ubo);

    glBindBuffer(GL_UNIFORM_BUFFER, ubo->bufferObject()->getBO());
    GLint size = 0;
    glGetBufferParameteriv(GL_UNIFORM_BUFFER, GL_BUFFER_SIZE, &size);
    EXPECT_EQ(size, 100 * 32); // never smaller than the GLSL block
    std::vector<GLuint> words(16);
    glGetBufferSubData(GL_UNIFORM_BUFFER, 64, 64, words.data());
    glBindBuffer(GL_UNIFORM_BUFFER, 0);
    EXPECT_EQ(words, (std::vector<GLuint>{6, 1, 0, 8, 10, 0, 0, 0, 6, 1, 6, 8, 11, 0, 0, 0}));
}

// Drawing with the quad is proven by the tests of the passes that use it.
TEST_F(DrawBuffersTest, FullscreenQuadIsCachedPerDeviceContext)
{
    QSharedPointer<DrawBuffers> quad = device->fullscreenQuad();
    ASSERT_FALSE(quad.isNull());
    EXPECT_EQ(device->fullscreenQuad(), quad);
    OpenGLDeviceContext::resetContext();
    EXPECT_NE(OpenGLDeviceContext::current()->fullscreenQuad(), quad);
}
