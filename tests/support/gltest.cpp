#include "support/gltest.h"

#include "gl/drawing/opengldevicecontext.h"
#include "gl/platform/glutilities.h"

#include "gl/glloader.h"

#include <cstdlib>

namespace VyxTest {

void GLTest::SetUp()
{
    ASSERT_TRUE(context.create()) << context.errorString().toStdString();
    ASSERT_TRUE(context.makeCurrent());
    ASSERT_TRUE(initializeGLFunctions());
    Tavren::Vyx::OpenGLDeviceContext::resetContext();
    _ledger = std::make_unique<GLNameLedger>();
}

void GLTest::TearDown()
{
    // Cached objects (the full-screen quad) must go while their context is still current.
    if (context.isValid())
        context.makeCurrent();
    // No test may leave an error behind in the context it ran on.
    if (_ledger)
        EXPECT_EQ(glGetError(), GLenum(GL_NO_ERROR));
    Tavren::Vyx::OpenGLDeviceContext::resetContext();
}

GLTest::~GLTest()
{
    // Runs after the derived fixture's members are destroyed, in the context they were made in.
    Tavren::Vyx::OpenGLDeviceContext::resetContext();
    if (_ledger)
        checkNamesGivenBack();
    _ledger.reset();
    context.doneCurrent();
}

void GLTest::checkNamesGivenBack()
{
    const ::testing::TestInfo* info = ::testing::UnitTest::GetInstance()->current_test_info();
    const QString test = info ? QStringLiteral("%1.%2").arg(info->test_suite_name(), info->name()) : QString();
    const auto live = _ledger->live();
    for (int kind = 0; kind < GLNameLedger::KindCount; ++kind) {
        const auto k = GLNameLedger::Kind(kind);
        const int allowed = allowedLiveNames(test, k);
        if (live[std::size_t(kind)] > allowed)
            ADD_FAILURE() << live[std::size_t(kind)] << " " << GLNameLedger::kindName(k)
                          << " name(s) still live at the end of the test (" << allowed
                          << " listed in glnameallowlist.cpp)";
    }
}

bool GLTest::isReducedProfileRun()
{
    return std::getenv("MESA_GL_VERSION_OVERRIDE") != nullptr;
}

} // namespace VyxTest
