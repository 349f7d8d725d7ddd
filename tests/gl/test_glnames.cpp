// The fixture fails a test that ends with GL names still live, except those listed in
// support/glnameallowlist.cpp; this is the listed case the library leaves behind on purpose.
#include "gl/drawing/opengldevicecontext.h"
#include "gl/glloader.h"
#include "gl/objects/bufferobject.h"
#include "support/glhelpers.h"
#include "support/gltest.h"
#include "support/messagecapture.h"

using namespace Tavren::Vyx;

using GLNamesTest = VyxTest::GLTest;

TEST_F(GLNamesTest, ABoundBufferRefusesToDieAndKeepsItsName)
{
    VyxTest::MessageCapture capture;
    GLuint name = 0;
    {
        auto buffer = OpenGLDeviceContext::current()->newBuffer();
        buffer->setTarget(GL_ARRAY_BUFFER);
        ASSERT_TRUE(buffer->bind());
        name = buffer->getBO();
    }
    EXPECT_EQ(capture.bodies(QtCriticalMsg),
              QStringList{VyxTest::assertionText("0u == this->_boBountTarget",
                                                 "Buffer Object is already bound on destroy to target 34962")});
    EXPECT_TRUE(glIsBuffer(name));
}
