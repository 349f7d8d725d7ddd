#pragma once

#include "gl/platform/headlesscontext.h"
#include "support/glnameledger.h"

#include <gtest/gtest.h>

#include <memory>

namespace VyxTest {

// A test with a real GL context current (llvmpipe through EGL's surfaceless platform), the
// library's entry points loaded and a fresh OpenGLDeviceContext installed. Under MESA_GL_VERSION_OVERRIDE=3.2 the context is 3.2 core.
//
// The context stays current until the fixture's members are gone; then every buffer, texture,
// vertex-array, framebuffer, renderbuffer and program name made during the test must have been
// deleted, apart from the cases listed in glnameallowlist.cpp.
class GLTest : public ::testing::Test
{
protected:
    ~GLTest() override;
    void SetUp() override;
    void TearDown() override;

    // True when the context was created as the reduced 3.2 core run.
    static bool isReducedProfileRun();

    Tavren::Vyx::HeadlessGLContext context;

private:
    void checkNamesGivenBack();

    std::unique_ptr<GLNameLedger> _ledger;
};

} // namespace VyxTest
