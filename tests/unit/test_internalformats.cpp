#include "gl/glloader.h"
#include "gl/platform/glutilities.h"
#include "support/messagecapture.h"

#include <gtest/gtest.h>

using VyxTest::MessageCapture;

TEST(InternalFormatTables, KnownRows)
{
    EXPECT_EQ(bytesFromInternalFormat(GL_RGBA16F), 8);
    EXPECT_EQ(bytesFromInternalFormat(GL_RGB32F), 12);
    EXPECT_EQ(bytesFromInternalFormat(GL_RGBA32UI), 16);
    EXPECT_EQ(typeFromInternalFormat(GL_RG16F), unsigned(GL_HALF_FLOAT));
    EXPECT_EQ(typeFromInternalFormat(GL_R16I), unsigned(GL_SHORT));
    EXPECT_EQ(typeFromInternalFormat(GL_DEPTH_COMPONENT32F), unsigned(GL_FLOAT));
    EXPECT_EQ(formatFromInternalFormat(GL_SRGB8_ALPHA8), unsigned(GL_RGBA));
    EXPECT_EQ(formatFromInternalFormat(GL_RG16UI), unsigned(GL_RG_INTEGER));
    EXPECT_EQ(formatFromInternalFormat(GL_DEPTH24_STENCIL8), unsigned(GL_DEPTH_STENCIL));
    // Index types are sized too.
    EXPECT_EQ(bytesFromInternalFormat(GL_UNSIGNED_SHORT), 2);
    EXPECT_EQ(bytesFromInternalFormat(GL_UNSIGNED_INT), 4);
}

TEST(InternalFormatTables, DeliberateGapsTakeTheErrorPath)
{
    MessageCapture capture;
    EXPECT_EQ(bytesFromInternalFormat(GL_SRGB8), 3);
    EXPECT_EQ(typeFromInternalFormat(GL_SRGB8), 0u);
    EXPECT_EQ(formatFromInternalFormat(GL_SRGB8), 0u);
    EXPECT_EQ(bytesFromInternalFormat(GL_R16I), 0);
    EXPECT_EQ(typeFromInternalFormat(GL_R16UI), 0u);
    EXPECT_EQ(formatFromInternalFormat(GL_R16UI), unsigned(GL_RED_INTEGER));
    EXPECT_EQ(bytesFromInternalFormat(GL_DEPTH_COMPONENT24), 0);
    EXPECT_EQ(typeFromInternalFormat(GL_UNSIGNED_INT), 0u);
    EXPECT_EQ(formatFromInternalFormat(GL_R8), 0u);
    EXPECT_EQ(capture.bodies(QtCriticalMsg),
              (QStringList{"typeFromInternalFormat() does not implement yet : 0x8C41",
                           "formatFromInternalFormat() does not implement yet : 0x8C41",
                           "bytesFromInternalFormat() does not implement yet : 0x8233",
                           "typeFromInternalFormat() does not implement yet : 0x8234",
                           "bytesFromInternalFormat() does not implement yet : 0x81A6",
                           "typeFromInternalFormat() does not implement yet : 0x1405",
                           "formatFromInternalFormat() does not implement yet : 0x8229"}));
}

TEST(GLUtilitiesWithoutContext, NothingLoadedIsHarmless)
{
    EXPECT_EQ(vyxGetMemory(), 0);
    // Before any load the error pointer is null: draining reports nothing.
    EXPECT_FALSE(Tavren::Vyx::hasGLError(__FILE__, __LINE__));
    EXPECT_EQ(getGLProcAddress("glClear", true), nullptr);
}
