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

TEST_F(BufferObjectTest, UploadsTakeTheDirectPathOnlyWhereTheDriverHasIt)
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

    // Storage buffers take replacement contents where the driver has them.
    auto storage = OpenGLDeviceContext::current()->newBuffer();
    storage->useStorageBuffer(16, GL_DYNAMIC_STORAGE_BIT);
    EXPECT_EQ(storage->isBindNeededForUpload(), isReducedProfileRun());
    if (!isReducedProfileRun()) {
        EXPECT_TRUE(storage->uploadArbitraryData(values.data(), 2, GL_STATIC_DRAW, 8));
        EXPECT_EQ(readBack(*storage, 4), values);
    }
}

TEST_F(BufferObjectTest, ManagedNamesAreDeletedAndAdoptedOnesKept)
{
    GLuint adoptedName = 0;
    glGenBuffers(1, &adoptedName);
    glBindBuffer(GL_ARRAY_BUFFER, adoptedName); // bound once, so glIsBuffer answers for it

    // Managed names are proven deleted by the fixture's name ledger; an adopted one must stay.
    {
        auto managed = newArrayBuffer(), adopted = OpenGLDeviceContext::current()->newBuffer(adoptedName);
        ASSERT_TRUE(managed->bind() && managed->unbind());
        EXPECT_EQ(std::make_pair(BufferObject::NumAlive(), BufferObject::NumAliveManaged()), std::make_pair(2, 1));
    }
    EXPECT_EQ(BufferObject::NumAlive() + BufferObject::NumAliveManaged(), 0);
    EXPECT_TRUE(glIsBuffer(adoptedName));
    glDeleteBuffers(1, &adoptedName);
    EXPECT_TRUE(capture.messages().empty());
}

// The one case the fixture's name ledger allows (support/glnameallowlist.cpp): destroying a bound
// buffer is refused, so its name stays.
TEST_F(BufferObjectTest, ABoundBufferRefusesToDieAndKeepsItsName)
{
    GLuint name = 0;
    {
        auto buffer = newArrayBuffer();
        ASSERT_TRUE(buffer->bind());
        name = buffer->getBO();
    }
    EXPECT_EQ(capture.bodies(QtCriticalMsg),
              QStringList{assertionText("0u == this->_boBountTarget", "Buffer Object is already bound on destroy to target 34962")});
    EXPECT_TRUE(glIsBuffer(name));
}
