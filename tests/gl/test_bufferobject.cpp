#include "gl/drawing/opengldevicecontext.h"
#include "gl/glloader.h"
#include "gl/objects/bufferobject.h"
#include "support/callrecorder.h"
#include "support/glhelpers.h"
#include "support/gltest.h"
#include "support/messagecapture.h"

using namespace Tavren::Vyx;
using VyxTest::assertionText;
using VyxTest::CallRecorder;
using VyxTest::glInteger;

namespace {

class BufferObjectTest : public VyxTest::GLTest
{
protected:
    static QSharedPointer<BufferObject> newArrayBuffer() { return VyxTest::newBuffer(GL_ARRAY_BUFFER); }

    static std::vector<float> readBack(BufferObject& buffer, int count)
    {
        std::vector<float> values(count, -1.0f);
        glBindBuffer(GL_COPY_READ_BUFFER, buffer.getBO());
        glGetBufferSubData(GL_COPY_READ_BUFFER, 0, count * 4, values.data());
        glBindBuffer(GL_COPY_READ_BUFFER, 0);
        return values;
    }

    VyxTest::MessageCapture capture;
};

} // namespace

TEST_F(BufferObjectTest, BindTwiceAndUnbindTwiceAreRefused)
{
    auto buffer = newArrayBuffer();
    EXPECT_TRUE(buffer->bind());
    EXPECT_EQ(glInteger(GL_ARRAY_BUFFER_BINDING), static_cast<GLint>(buffer->getBO()));
    EXPECT_FALSE(buffer->bind());
    EXPECT_TRUE(buffer->unbind());
    EXPECT_EQ(glInteger(GL_ARRAY_BUFFER_BINDING), 0);
    EXPECT_FALSE(buffer->unbind());
    EXPECT_EQ(capture.bodies(QtCriticalMsg),
              (QStringList{assertionText("0u == this->_boBountTarget",
                                     "Buffer Object is already bound on bind to target 34962"),
                           assertionText("0u != this->_boBountTarget", "Buffer Object is not bound on unbind")}));
}

TEST_F(BufferObjectTest, RebindMovesTheBindingAndSkipsTheSameName)
{
    auto first = newArrayBuffer(), other = newArrayBuffer();
    auto sameName = OpenGLDeviceContext::current()->newBuffer(first->getBO());
    sameName->setTarget(GL_ARRAY_BUFFER);
    ASSERT_TRUE(first->bind());
    {
        CallRecorder<&_ptrc_glBindBuffer> bindBuffer;
        EXPECT_TRUE(sameName->rebind(first.data(), false));
        EXPECT_EQ(bindBuffer.count(), 0u);
        EXPECT_TRUE(other->rebind(sameName.data(), false));
        EXPECT_EQ(bindBuffer.count(), 1u);
    }
    EXPECT_EQ(glInteger(GL_ARRAY_BUFFER_BINDING), static_cast<GLint>(other->getBO()));
    EXPECT_FALSE(first->unbind());
    EXPECT_FALSE(sameName->unbind());
    EXPECT_TRUE(other->unbind());
}

TEST_F(BufferObjectTest, IndexedUnbindReleasesBindingPointZero)
{
    auto buffer = newArrayBuffer();
    const std::vector<float> values(64, 1.0f);
    ASSERT_TRUE(buffer->bind());
    ASSERT_TRUE(buffer->upload(values.data(), 64, GL_STATIC_DRAW));
    ASSERT_TRUE(buffer->unbind());

    buffer->setIndexedTarget(GL_UNIFORM_BUFFER, 3, 0, 256);
    EXPECT_EQ(capture.bodies(QtCriticalMsg),
              QStringList{"Cannot use setIndexedTarget() for non-indexed buffer object such as GL_ARRAY_BUFFER. Use "
                          "setTarget() instead."});
    EXPECT_TRUE(buffer->isBindNeededForUpload());
    ASSERT_TRUE(buffer->bind());
    GLint bound = 0;
    glGetIntegeri_v(GL_UNIFORM_BUFFER_BINDING, 3, &bound);
    EXPECT_EQ(GLuint(bound), buffer->getBO());

    CallRecorder<&_ptrc_glBindBufferRange> bindRange;
    EXPECT_TRUE(buffer->unbind());
    ASSERT_EQ(bindRange.count(), 1u);
    EXPECT_EQ(bindRange.calls()[0], std::make_tuple(GLenum(GL_UNIFORM_BUFFER), 0u, 0u, GLintptr(0), GLsizeiptr(0)));
}

TEST_F(BufferObjectTest, UploadTakesTheDirectPathOnlyWhereTheDriverHasIt)
{
    auto buffer = newArrayBuffer();
    const std::vector<float> values{1, 2, 3, 4};
    CallRecorder<&_ptrc_glBufferData> bufferData;
    if (isReducedProfileRun()) {
        EXPECT_FALSE(buffer->upload(values.data(), 4, GL_STATIC_DRAW));
        EXPECT_EQ(capture.bodies(QtCriticalMsg),
                  QStringList{assertionText("0u != this->_boBountTarget", "Buffer Object is not bound on upload")});
        ASSERT_TRUE(buffer->bind());
        EXPECT_TRUE(buffer->upload(values.data(), 4, GL_STATIC_DRAW));
        EXPECT_EQ(bufferData.count(), 1u);
        EXPECT_TRUE(buffer->isBindNeededForUpload());
    } else {
        EXPECT_TRUE(buffer->upload(values.data(), 4, GL_STATIC_DRAW));
        EXPECT_EQ(bufferData.count(), 0u);
        EXPECT_FALSE(buffer->isBindNeededForUpload());
        ASSERT_TRUE(buffer->bind());
    }
    EXPECT_EQ(readBack(*buffer, 4), values);

    const std::vector<float> replacement{7, 8};
    EXPECT_TRUE(buffer->subUpload(replacement.data(), 2, 2));
    EXPECT_EQ(readBack(*buffer, 4), (std::vector<float>{1, 2, 7, 8}));
    capture.clear();
    EXPECT_FALSE(buffer->subUpload(values.data(), 3, 2));
    EXPECT_EQ(capture.bodies(QtCriticalMsg),
              QStringList{assertionText("offset + valueCount <= _valueCount", "Buffer Object is not large enough to hold data")});
    EXPECT_TRUE(buffer->unbind());
}

TEST_F(BufferObjectTest, StorageBufferReplacesContentsWhereAvailable)
{
    auto buffer = OpenGLDeviceContext::current()->newBuffer();
    buffer->useStorageBuffer(16, GL_DYNAMIC_STORAGE_BIT);
    if (isReducedProfileRun()) {
        EXPECT_TRUE(buffer->isBindNeededForUpload());
        return;
    }
    const float values[4] = {5, 6, 7, 8};
    EXPECT_TRUE(buffer->uploadArbitraryData(values, 2, GL_STATIC_DRAW, 8));
    EXPECT_EQ(readBack(*buffer, 4), (std::vector<float>{5, 6, 7, 8}));
}

TEST_F(BufferObjectTest, ManagedNamesAreDeletedAndAdoptedOnesKept)
{
    GLuint adoptedName = 0;
    glGenBuffers(1, &adoptedName);
    glBindBuffer(GL_ARRAY_BUFFER, adoptedName); // bound once, so glIsBuffer answers for it

    std::vector<GLuint> managedNames;
    {
        std::vector<QSharedPointer<BufferObject>> buffers;
        for (int i = 0; i < 3; ++i) {
            buffers.push_back(newArrayBuffer());
            ASSERT_TRUE(buffers.back()->bind() && buffers.back()->unbind());
            managedNames.push_back(buffers.back()->getBO());
        }
        buffers.push_back(OpenGLDeviceContext::current()->newBuffer(adoptedName));
        EXPECT_EQ(std::make_pair(BufferObject::NumAlive(), BufferObject::NumAliveManaged()), std::make_pair(4, 3));
    }
    EXPECT_EQ(BufferObject::NumAlive() + BufferObject::NumAliveManaged(), 0);
    for (GLuint name : managedNames)
        EXPECT_FALSE(glIsBuffer(name)) << name;
    EXPECT_TRUE(glIsBuffer(adoptedName));
    glDeleteBuffers(1, &adoptedName);
    EXPECT_TRUE(capture.messages().empty());
}
