#include "gl/drawing/opengldevicecontext.h"
#include "gl/objects/bufferobject.h"
#include "gl/objects/vertexarrayobject.h"
#include "gl/platform/glcontexttracker.h"
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

// Positions as floats, integer ids as unsigned bytes and weights as normalised unsigned bytes.
const char* const kVertexShader = R"(#version 150
in vec2 va_Vertex; in uvec4 va_Index; in vec4 va_Weight;
flat out uvec4 vo_Index; out vec4 vo_Weight;
void main() { vo_Index = va_Index; vo_Weight = va_Weight; gl_Position = vec4(va_Vertex, 0.0, 1.0); })";
const char* const kFragmentShader = R"(#version 150
flat in uvec4 vo_Index; in vec4 vo_Weight; out vec4 out_FragColor;
void main() { out_FragColor = vec4(vec2(vo_Index.xy) / 255.0, vo_Weight.zw); })";

class VertexArrayObjectTest : public VyxTest::GLTest
{
protected:
    static QSharedPointer<BufferObject> arrayBuffer(const void* data = nullptr, int bytes = 0)
    {
        return VyxTest::newBuffer(GL_ARRAY_BUFFER, data, bytes, 1);
    }

    // A triangle covering the target, each vertex with the same id and weight bytes.
    static void registerTriangle(VertexArrayObject& vao)
    {
        const float positions[] = {-1, -1, 3, -1, -1, 3};
        const unsigned char ids[] = {200, 100, 0, 0, 200, 100, 0, 0, 200, 100, 0, 0};
        const unsigned char weights[] = {0, 0, 51, 255, 0, 0, 51, 255, 0, 0, 51, 255};
        vao.registerBO("va_Vertex", arrayBuffer(positions, sizeof(positions)), 2, GL_FLOAT);
        vao.registerBO("va_Index", arrayBuffer(ids, sizeof(ids)), 4, GL_UNSIGNED_BYTE);
        vao.registerBO("va_Weight", arrayBuffer(weights, sizeof(weights)), 4, GL_UNSIGNED_BYTE, true, 0, 0);
    }

    static std::unique_ptr<ShaderProgram> program() { return VyxTest::linkedProgram(kVertexShader, kFragmentShader); }

    VyxTest::MessageCapture capture;
};

} // namespace

TEST_F(VertexArrayObjectTest, MisuseIsReportedAndRefused)
{
    auto vao = OpenGLDeviceContext::current()->newVAO();
    auto other = OpenGLDeviceContext::current()->newVAO();
    auto shader = program();
    EXPECT_FALSE(vao->isBound());
    EXPECT_FALSE(vao->unbind());
    EXPECT_FALSE(vao->enableShaderProgramArrays(shader.get()));
    ASSERT_TRUE(vao->bind());
    EXPECT_FALSE(vao->bind());
    ASSERT_TRUE(vao->unbind());
    EXPECT_FALSE(vao->enableShaderProgramArrays(shader.get()));
    bool boundNow = true;
    EXPECT_FALSE(vao->rebind(other.data(), boundNow));
    EXPECT_FALSE(boundNow);

    const float values[10] = {};
    auto buffer = arrayBuffer();
    EXPECT_FALSE(vao->upload("va_Vertex", buffer, values, 10, 3, GL_STATIC_DRAW));
    EXPECT_FALSE(vao->upload("va_Vertex", QSharedPointer<BufferObject>(), values, 9, 3, GL_STATIC_DRAW));
    EXPECT_FALSE(vao->upload("va_Vertex", QSharedPointer<BufferObject>(), 3, GL_FLOAT));
    EXPECT_TRUE(vao->bo("va_Vertex").isNull());
    vao->registerBO("va_Signed", buffer, 2, GL_BYTE);
    EXPECT_EQ(vao->bo("va_Signed"), buffer) << "an unsupported type is still stored";
    EXPECT_FALSE(vao->subUpload("va_Missing", values, 2, 2, 0));
    EXPECT_FALSE(vao->subUpload("va_Signed", values, 3, 3, 0));
    EXPECT_FALSE(vao->upload("va_Vertex", OpenGLDeviceContext::current()->newBuffer(), values, 9, 3, GL_STATIC_DRAW));
    EXPECT_EQ(capture.bodies(QtCriticalMsg),
              (QStringList{assertionText("0u != this->_vao", "Vertex Array Object is NULL on isBound"),
                           assertionText("0u != this->_vao", "Vertex Array Object is NULL on unbind"),
                           assertionText("0u != this->_vao", "Vertex Array Object is NULL on enable array"),
                           assertionText("false == this->_vaoBound", "Vertex Array Object is already bound on bind"),
                           assertionText("true == this->_vaoBound", "Vertex Array Object is not bound on enable array"),
                           assertionText("true == vertexArrayObjectBound->_vaoBound",
                                         "Vertex Array Object is not already bound on rebind"),
                           assertionText("0 == (valueCount \\% valuesPerVertex)",
                                         "Data size (10) must be a multi of the values per vertex (3)"),
                           assertionText("NULL != bufferObj", "Must Supply a valid BO pointer"),
                           assertionText("!bufferObj.isNull()", "Must Supply a valid BO pointer"),
                           assertionText("true == isTypeSupported(type)", "Unsupported type 0x1400"),
                           assertionText("_attributesData.contains(attrName)", "Must Supply an existing BO attribute name"),
                           assertionText("_attributesData[attrName]._valuesPerVertex == valuesPerVertex",
                                         "Values per vertex must match (Current 2 != New 3)"),
                           assertionText("0u != this->_target", "Buffer Object's target is not set when bind() is called"),
                           "[ !! ] Failed to bind BO"}));
    EXPECT_TRUE(VertexArrayObject::isTypeSupported(GL_HALF_FLOAT));
    EXPECT_FALSE(VertexArrayObject::isTypeSupported(GL_INT));
}

TEST_F(VertexArrayObjectTest, RebindTakesOverAndDestroyingABoundArrayIsReportedInOrder)
{
    auto first = OpenGLDeviceContext::current()->newVAO();
    auto second = OpenGLDeviceContext::current()->newVAO();
    ASSERT_TRUE(first->bind());
    bool boundNow = true;
    EXPECT_TRUE(first->rebind(first.data(), boundNow));
    EXPECT_FALSE(boundNow);
    EXPECT_TRUE(second->rebind(first.data(), boundNow));
    EXPECT_TRUE(boundNow);
    EXPECT_EQ(VyxTest::glInteger(GL_VERTEX_ARRAY_BINDING), GLint(second->getVAO()));
    EXPECT_FALSE(first->isBound());
    EXPECT_TRUE(capture.messages().empty());

    // Releasing a bound array: destroy() refuses and leaves its name, so both destructor checks
    // print and its own destroy() refuses again.
    const GLuint name = second->getVAO();
    second.reset();
    const QString boundOnDestroy =
        assertionText("false == this->_vaoBound", "Vertex Array Object is already bound on destroy");
    EXPECT_EQ(capture.bodies(QtCriticalMsg),
              (QStringList{boundOnDestroy,
                           assertionText("false == this->_vaoBound", "Vertex Array Object is bound during class destructor"),
                           assertionText("0u == this->_vao", "Vertex Array Object needs to be destroied before class destructor"),
                           boundOnDestroy}));
    EXPECT_TRUE(glIsVertexArray(name));
    glBindVertexArray(0);
    glDeleteVertexArrays(1, &name);
}

// Integer attributes stay integers and normalised ones are scaled, as the drawn colour shows.
TEST_F(VertexArrayObjectTest, EnablingAProgramAgainCostsNoCallsUntilAnAttributeChanges)
{
    auto shader = program();
    VyxTest::ColourTarget target(8, 8);
    auto vao = OpenGLDeviceContext::current()->newVAO();
    registerTriangle(*vao);
    ASSERT_TRUE(shader->bind() && vao->bind());
    {
        CallRecorder<&_ptrc_glVertexAttribPointer> pointer;
        CallRecorder<&_ptrc_glVertexAttribIPointer> integerPointer;
        CallRecorder<&_ptrc_glEnableVertexAttribArray> enable;
        ASSERT_TRUE(vao->enableShaderProgramArrays(shader.get()));
        EXPECT_EQ(enable.count(), 3u);
        EXPECT_EQ(pointer.count(), 2u) << "floats and normalised bytes";
        ASSERT_EQ(integerPointer.count(), 1u) << "plain unsigned bytes stay integers";
        EXPECT_EQ(integerPointer.calls()[0], std::make_tuple(GLuint(shader->getVertexAttributeLocation("va_Index")), GLint(4),
                                                             GLenum(GL_UNSIGNED_BYTE), GLsizei(0), static_cast<const void*>(nullptr)));
        glDrawArrays(GL_TRIANGLES, 0, 3);
        EXPECT_EQ(target.count({200, 100, 51, 255}), 64);
        pointer.calls().clear();
        integerPointer.calls().clear();
        enable.calls().clear();
        ASSERT_TRUE(vao->enableShaderProgramArrays(shader.get()));
        EXPECT_EQ(pointer.count() + integerPointer.count() + enable.count(), 0u);

        const float moved[] = {-1, -1, 1, -1, -1, 1};
        vao->registerBO("va_Vertex", arrayBuffer(moved, sizeof(moved)), 2, GL_FLOAT);
        ASSERT_TRUE(vao->enableShaderProgramArrays(shader.get()));
        EXPECT_EQ(integerPointer.count(), 0u);
        ASSERT_EQ(pointer.count(), 1u);
        EXPECT_EQ(std::get<0>(pointer.calls()[0]), GLuint(shader->getVertexAttributeLocation("va_Vertex")));
    }
    GLint buffer = -1;
    glGetVertexAttribiv(GLuint(shader->getVertexAttributeLocation("va_Vertex")), GL_VERTEX_ATTRIB_ARRAY_BUFFER_BINDING, &buffer);
    EXPECT_EQ(GLuint(buffer), vao->bo("va_Vertex")->getBO());
    ASSERT_TRUE(vao->unbind());
    shader->unbind();
    EXPECT_TRUE(capture.messages().empty());
}

TEST_F(VertexArrayObjectTest, UploadsReachTheRegisteredBuffer)
{
    auto vao = OpenGLDeviceContext::current()->newVAO();
    ASSERT_TRUE(vao->upload("va_Vertex", arrayBuffer(), QVector<float>{1, 2, 3, 4, 5, 6}, 2, GL_STATIC_DRAW));
    ASSERT_TRUE(vao->subUpload("va_Vertex", QVector<float>{8, 9}, 2, 2));
    const auto* mapped = static_cast<const float*>(vao->mapBO("va_Vertex"));
    ASSERT_NE(mapped, nullptr);
    EXPECT_EQ(std::vector<float>(mapped, mapped + 6), (std::vector<float>{1, 2, 8, 9, 5, 6}));
    vao->unmapBO("va_Vertex");
    EXPECT_EQ(vao->mapBO("va_Missing"), nullptr);
    EXPECT_EQ(vao->memoryEstimateGPU(), 24u);
    EXPECT_TRUE(capture.messages().empty());
}

// The fixture's name ledger proves the names went; here, that nothing is reported on the way.
TEST_F(VertexArrayObjectTest, NamesDieWithTheirObjectsInTheContextThatMadeThem)
{
    {
        auto shader = program();
        auto used = OpenGLDeviceContext::current()->newVAO();
        registerTriangle(*used);
        ASSERT_TRUE(used->bind() && used->enableShaderProgramArrays(shader.get()) && used->unbind());
        EXPECT_EQ(std::make_pair(VertexArrayObject::NumAlive(), BufferObject::NumAlive()), std::make_pair(1, 3));
    }
    EXPECT_EQ(VertexArrayObject::NumAlive() + BufferObject::NumAlive(), 0);
    // The device context's owner releases each name before the object dies.
    EXPECT_TRUE(capture.messages().empty());

    // Dying while another context is current must not delete that context's vertex array.
    auto vao = OpenGLDeviceContext::current()->newVAO();
    ASSERT_TRUE(vao->bind() && vao->unbind());
    const GLuint name = vao->getVAO();
    HeadlessGLContext otherContext;
    ASSERT_TRUE(otherContext.create() && otherContext.makeCurrent());
    EXPECT_FALSE(vao->getContextTracker()->check());
    vao.reset();
    EXPECT_TRUE(capture.messages().empty());
    ASSERT_TRUE(context.makeCurrent());
    EXPECT_TRUE(glIsVertexArray(name));
    glDeleteVertexArrays(1, &name);
}
