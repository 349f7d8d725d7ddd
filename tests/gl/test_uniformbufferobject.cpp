#include "gl/drawing/opengldevicecontext.h"
#include "gl/objects/bufferobject.h"
#include "gl/objects/uniformbufferobject.h"
#include "gl/objects/vertexarrayobject.h"
#include "gl/shaders/shaderprogram.h"
#include "support/callrecorder.h"
#include "support/glhelpers.h"
#include "support/gltest.h"
#include "support/messagecapture.h"

#include <memory>
#include <vector>

#include "gl/glloader.h"

using namespace Tavren::Vyx;
using VyxTest::assertionText;
using VyxTest::CallRecorder;

namespace {

class UniformBufferObjectTest : public VyxTest::GLTest
{
protected:
    // A program reading block "Colors"; with a binding, the block is linked to it (by layout
    // qualifier where GLSL 4.20 is available).
    static std::unique_ptr<ShaderProgram> colorsProgram(int binding = -1)
    {
        const bool layoutBinding = binding >= 0 && !isReducedProfileRun();
        auto program = VyxTest::linkedProgram(
            "#version 150\nin vec2 va_Vertex;\nvoid main() { gl_Position = vec4(va_Vertex, 0.0, 1.0); }",
            QStringLiteral("#version %1\nlayout(std140%2) uniform Colors { vec4 u_Color; };\nout vec4 out_FragColor;\n"
                           "void main() { out_FragColor = u_Color; }")
                .arg(layoutBinding ? "420" : "150")
                .arg(layoutBinding ? QStringLiteral(", binding = %1").arg(binding) : QString()));
        if (binding >= 0 && !layoutBinding)
            glUniformBlockBinding(program->shaderProgramID(), GLuint(program->getUniformBlockIndex("Colors")), GLuint(binding));
        return program;
    }

    static QSharedPointer<UniformBufferObject> colorsBuffer(float red = 0, float green = 0, float blue = 0, float alpha = 0)
    {
        const float colour[4] = {red, green, blue, alpha};
        return OpenGLDeviceContext::current()->newUniformBuffer("Colors", VyxTest::newBuffer(GL_UNIFORM_BUFFER, colour, 4));
    }

    static GLuint boundAt(int binding)
    {
        GLint name = -1;
        glGetIntegeri_v(GL_UNIFORM_BUFFER_BINDING, GLuint(binding), &name);
        return GLuint(name);
    }

    static GLint programBinding(const ShaderProgram& program)
    {
        GLint binding = -1;
        glGetActiveUniformBlockiv(program.shaderProgramID(), GLuint(program.getUniformBlockIndex("Colors")),
                                  GL_UNIFORM_BLOCK_BINDING, &binding);
        return binding;
    }

    VyxTest::MessageCapture capture;
};

} // namespace

TEST_F(UniformBufferObjectTest, OneBufferKeepsOneBindingUntilEveryProgramUnbinds)
{
    auto first = colorsProgram(), second = colorsProgram();
    auto ubo = colorsBuffer(), otherUbo = colorsBuffer();
    const GLuint name = ubo->bufferObject()->getBO();

    ASSERT_TRUE(ubo->bind(first.get()));
    EXPECT_EQ(boundAt(0), name);
    {
        CallRecorder<&_ptrc_glBindBufferBase> bindBase;
        ASSERT_TRUE(ubo->bind(second.get()));
        EXPECT_EQ(bindBase.count(), 0u);
    }
    EXPECT_EQ(ubo->uniformBlockBinding(), 0);
    EXPECT_EQ(programBinding(*second), 0);
    ASSERT_TRUE(otherUbo->bind(second.get()));
    EXPECT_EQ(otherUbo->uniformBlockBinding(), 1);
    EXPECT_EQ(programBinding(*second), 1);

    CallRecorder<&_ptrc_glBindBufferBase> bindBase;
    EXPECT_TRUE(ubo->unbind(first.get()));
    EXPECT_EQ(boundAt(0), name) << "the second program still holds it";
    EXPECT_TRUE(ubo->unbind(second.get()));
    EXPECT_EQ(boundAt(0), 0u);
    EXPECT_TRUE(ubo->unbind(second.get())) << "unbinding an unbound buffer is harmless";
    EXPECT_EQ(bindBase.count(), 1u);
    EXPECT_EQ(ubo->uniformBlockBinding(), -1);
    EXPECT_TRUE(capture.bodies(QtWarningMsg).isEmpty());
    EXPECT_EQ(capture.bodies(QtCriticalMsg),
              QStringList{assertionText("uboContextData._uniformBufferObjectToUniformBlockBindingMaps.contains(bufferObjectID)",
                                    "UniformBufferObject has not been bound on uniformBlockBinding()")});
    EXPECT_TRUE(otherUbo->unbind(second.get()));
}

TEST_F(UniformBufferObjectTest, RebindHandsAPointOverOnlyWhenItsHolderIsDoneWithIt)
{
    auto program = colorsProgram(), other = colorsProgram();
    auto first = colorsBuffer(), second = colorsBuffer(), third = colorsBuffer();
    ASSERT_TRUE(first->bind(program.get()));
    {
        CallRecorder<&_ptrc_glBindBufferBase> bindBase;
        ASSERT_TRUE(second->rebind(first.data(), program.get()));
        EXPECT_EQ(bindBase.calls(), (std::vector<std::tuple<GLenum, GLuint, GLuint>>{
                                        {GL_UNIFORM_BUFFER, 0, second->bufferObject()->getBO()}}))
            << "no detour through buffer 0";
    }
    EXPECT_EQ(second->uniformBlockBinding(), 0);
    EXPECT_EQ(programBinding(*program), 0);

    // Still bound for another program: the point stays, as unbind() then bind() would leave it.
    ASSERT_TRUE(second->bind(other.get()));
    ASSERT_TRUE(third->rebind(second.data(), program.get()));
    EXPECT_EQ(boundAt(0), second->bufferObject()->getBO());
    EXPECT_EQ(third->uniformBlockBinding(), 1);
    EXPECT_EQ(programBinding(*program), 1);
    EXPECT_TRUE(second->unbind(other.get()) && third->unbind(program.get()));
    EXPECT_EQ(boundAt(0), 0u);
    EXPECT_TRUE((capture.texts(QtCriticalMsg) + capture.texts(QtWarningMsg)).isEmpty());
}

TEST_F(UniformBufferObjectTest, MisuseIsReported)
{
    auto program = colorsProgram();
    auto bufferless = OpenGLDeviceContext::current()->newUniformBuffer("Colors", QSharedPointer<BufferObject>());
    EXPECT_FALSE(bufferless->bind(program.get()));
    EXPECT_FALSE(bufferless->unbind(program.get()));
    EXPECT_EQ(bufferless->uniformBlockBinding(), -1);

    auto empty = OpenGLDeviceContext::current()->newUniformBuffer("Colors", OpenGLDeviceContext::current()->newBuffer());
    EXPECT_TRUE(empty->bind(program.get())) << "reported, but bound for data that comes later";
    EXPECT_EQ(boundAt(0), empty->bufferObject()->getBO());
    EXPECT_EQ(capture.bodies(QtCriticalMsg),
              (QStringList{assertionText("!this->_bufferObject.isNull()", "m_bufferObject is NULL on bind()"),
                           assertionText("!this->_bufferObject.isNull()", "m_bufferObject is NULL on bind()"),
                           assertionText("!this->_bufferObject.isNull()", "m_bufferObject is NULL on uniformBlockBinding()"),
                           assertionText("_bufferObject->valueCount() * _bufferObject->valueSize() != 0",
                                     "glBindBufferRange() cannot take 0 as a size (0,0)")}));

    auto ubo = colorsBuffer();
    EXPECT_FALSE(ubo->bind());
    EXPECT_FALSE(ubo->unbind());
    EXPECT_EQ(capture.bodies(QtWarningMsg), (QStringList{"No ShaderProgram is bound", "No ShaderProgram is bound"}));
    ASSERT_TRUE(program->bind());
    EXPECT_TRUE(ubo->bind());
    EXPECT_EQ(programBinding(*program), 1);
    EXPECT_TRUE(ubo->unbind());
    program->unbind();
    EXPECT_TRUE(empty->unbind(program.get()));
}

TEST_F(UniformBufferObjectTest, BindingPointsRunOutAtTheDriversLimit)
{
    const int maximum = VyxTest::glInteger(GL_MAX_UNIFORM_BUFFER_BINDINGS);
    ASSERT_GT(maximum, 7);
    std::vector<QSharedPointer<UniformBufferObject>> ubos;
    for (int i = 0; i <= maximum; ++i)
        ubos.push_back(colorsBuffer());
    for (int i = 0; i < maximum; ++i)
        ASSERT_TRUE(ubos[i]->bind(nullptr)) << i;
    EXPECT_EQ(boundAt(maximum - 1), ubos[maximum - 1]->bufferObject()->getBO());

    EXPECT_FALSE(ubos[maximum]->bind(nullptr));
    EXPECT_EQ(capture.bodies(QtWarningMsg), QStringList{"There is no available uniformBlockBindings"});
    ASSERT_TRUE(ubos[7]->unbind(nullptr));
    ASSERT_TRUE(ubos[maximum]->bind(nullptr));
    EXPECT_EQ(ubos[maximum]->uniformBlockBinding(), 7);
    EXPECT_EQ(boundAt(7), ubos[maximum]->bufferObject()->getBO());
    for (auto& ubo : ubos)
        ubo->unbind(nullptr);
}

TEST_F(UniformBufferObjectTest, ProgramsKeepTheirLinkedBindingWhereItIsFree)
{
    auto linkedTo5 = colorsProgram(5), alsoLinkedTo5 = colorsProgram(5);
    ASSERT_EQ(programBinding(*linkedTo5), 5);
    auto ubo = colorsBuffer(), otherUbo = colorsBuffer();
    ASSERT_TRUE(ubo->bind(linkedTo5.get()));
    EXPECT_EQ(ubo->uniformBlockBinding(), 5);
    EXPECT_EQ(boundAt(5), ubo->bufferObject()->getBO());
    ASSERT_TRUE(otherUbo->bind(alsoLinkedTo5.get()));
    EXPECT_EQ(otherUbo->uniformBlockBinding(), 0);
    EXPECT_EQ(programBinding(*alsoLinkedTo5), 0);
    EXPECT_TRUE(ubo->unbind(linkedTo5.get()) && otherUbo->unbind(alsoLinkedTo5.get()));
    EXPECT_TRUE((capture.texts(QtCriticalMsg) + capture.texts(QtWarningMsg)).isEmpty());
}

TEST_F(UniformBufferObjectTest, BatchedBindingsAreIssuedTogetherAndUnbindTheGaps)
{
    auto linkedTo7 = colorsProgram(7);
    std::vector<QSharedPointer<UniformBufferObject>> ubos;
    for (int i = 0; i < 5; ++i)
        ubos.push_back(colorsBuffer());
    ASSERT_TRUE(ubos[0]->bind(nullptr) && ubos[1]->bind(nullptr));
    // Leftovers at 4 to 6 that the flush must clear.
    const GLuint stray = ubos[0]->bufferObject()->getBO();
    for (GLuint binding = 4; binding <= 6; ++binding)
        glBindBufferBase(GL_UNIFORM_BUFFER, binding, stray);

    CallRecorder<&_ptrc_glBindBufferBase> bindBase;
    UniformBufferObject::bindBatchStart();
    ASSERT_TRUE(ubos[2]->bind(nullptr) && ubos[3]->bind(nullptr) && ubos[4]->bind(linkedTo7.get()));
    EXPECT_EQ(bindBase.count(), 0u);
    EXPECT_EQ(boundAt(2), 0u) << "nothing is bound before the flush";
    UniformBufferObject::bindBatchFlush();

    const std::vector<GLuint> expected{ubos[2]->bufferObject()->getBO(), ubos[3]->bufferObject()->getBO(), 0, 0, 0,
                                       ubos[4]->bufferObject()->getBO()};
    for (int binding = 2; binding <= 7; ++binding)
        EXPECT_EQ(boundAt(binding), expected[binding - 2]) << binding;
    if (isReducedProfileRun()) {
        // No multi-bind: one call per point of the range.
        ASSERT_EQ(bindBase.count(), 6u);
        for (int binding = 2; binding <= 7; ++binding)
            EXPECT_EQ(bindBase.calls()[binding - 2],
                      std::make_tuple(GLenum(GL_UNIFORM_BUFFER), GLuint(binding), expected[binding - 2]));
    } else {
        EXPECT_EQ(bindBase.count(), 0u) << "one multi-bind call instead";
    }

    bindBase.calls().clear();
    UniformBufferObject::bindBatchStart();
    UniformBufferObject::bindBatchFlush();
    ASSERT_TRUE(ubos[2]->unbind(nullptr));
    EXPECT_EQ(bindBase.count(), 1u) << "an empty batch binds nothing; unbinding is not batched";
    for (auto& ubo : ubos)
        ubo->unbind(nullptr);
}

TEST_F(UniformBufferObjectTest, ShaderReadsTheBlockAndObjectsAreReleased)
{
    {
        auto program = colorsProgram();
        auto ubo = colorsBuffer(0.2f, 0.4f, 0.6f, 1.0f);
        VyxTest::ColourTarget target(4, 4);
        auto vao = OpenGLDeviceContext::current()->newVAO();
        ASSERT_TRUE(vao->upload("va_Vertex", VyxTest::newBuffer(GL_ARRAY_BUFFER), QVector<float>{-1, -1, 3, -1, -1, 3}, 2,
                                GL_STATIC_DRAW));
        ASSERT_TRUE(program->bind() && ubo->bind() && vao->bind());
        ASSERT_TRUE(vao->enableShaderProgramArrays(program.get()));
        glDrawArrays(GL_TRIANGLES, 0, 3);
        ASSERT_TRUE(vao->unbind() && ubo->unbind());
        program->unbind();
        EXPECT_EQ(target.count({51, 102, 153, 255}), 16);
        EXPECT_EQ(UniformBufferObject::NumAlive(), 1);
    }
    EXPECT_EQ(UniformBufferObject::NumAlive() + VertexArrayObject::NumAlive() + BufferObject::NumAlive(), 0);
}
