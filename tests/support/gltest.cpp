#include "support/gltest.h"

#include "gl/glutilities.h"

#include <cstdlib>

namespace VyxTest {

void GLTest::SetUp()
{
    ASSERT_TRUE(context.create()) << context.errorString().toStdString();
    ASSERT_TRUE(context.makeCurrent());
    ASSERT_TRUE(initializeGLFunctions());
}

void GLTest::TearDown()
{
    context.doneCurrent();
}

bool GLTest::isReducedProfileRun()
{
    return std::getenv("MESA_GL_VERSION_OVERRIDE") != nullptr;
}

} // namespace VyxTest
