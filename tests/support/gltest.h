#pragma once

#include "gl/headlesscontext.h"

#include <gtest/gtest.h>

namespace VyxTest {

// A test with a real GL context current (llvmpipe through EGL's surfaceless platform), the
// library's entry points loaded and a fresh OpenGLDeviceContext installed. Under MESA_GL_VERSION_OVERRIDE=3.2 the context is 3.2 core.
class GLTest : public ::testing::Test
{
protected:
    void SetUp() override;
    void TearDown() override;

    // True when the context was created as the reduced 3.2 core run.
    static bool isReducedProfileRun();

    Tavren::Vyx::HeadlessGLContext context;
};

} // namespace VyxTest
