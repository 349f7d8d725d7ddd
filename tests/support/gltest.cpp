#include "support/gltest.h"

#include "gl/glutilities.h"
#include "gl/opengldevicecontext.h"

#include <cstdlib>

namespace VyxTest {

void GLTest::SetUp()
{
    ASSERT_TRUE(context.create()) << context.errorString().toStdString();
    ASSERT_TRUE(context.makeCurrent());
    ASSERT_TRUE(initializeGLFunctions());
    Tavren::Vyx::OpenGLDeviceContext::resetContext();
}

void GLTest::TearDown()
{
    // Cached objects (the full-screen quad) must go while their context is still current.
    Tavren::Vyx::OpenGLDeviceContext::resetContext();
    context.doneCurrent();
}

bool GLTest::isReducedProfileRun()
{
    return std::getenv("MESA_GL_VERSION_OVERRIDE") != nullptr;
}

} // namespace VyxTest
