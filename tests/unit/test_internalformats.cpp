#include "gl/glloader.h"
#include "gl/objects/textureformat.h"
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
    EXPECT_EQ(bytesFromInternalFormat(GL_R16I), 0);
    EXPECT_EQ(typeFromInternalFormat(GL_SRGB8), 0u);
    EXPECT_EQ(formatFromInternalFormat(GL_R8), 0u);
    EXPECT_EQ(capture.bodies(QtCriticalMsg),
              (QStringList{"bytesFromInternalFormat() does not implement yet : 0x8233",
                           "typeFromInternalFormat() does not implement yet : 0x8C41",
                           "formatFromInternalFormat() does not implement yet : 0x8229"}));
}

TEST(GLUtilitiesWithoutContext, NothingLoadedIsHarmless)
{
    EXPECT_EQ(vyxGetMemory(), 0);
    // Before any load the error pointer is null: draining reports nothing.
    EXPECT_FALSE(Tavren::Vyx::hasGLError(__FILE__, __LINE__));
    EXPECT_EQ(getGLProcAddress("glClear", true), nullptr);
}

TEST(TextureFormat, MapsToGLEnumerantsWithItsFallback)
{
    using namespace Tavren::Vyx;
    // Values checked against the GL registry's numbers.
    EXPECT_EQ(internalFormat(RGBA), 0x1908);
    EXPECT_EQ(externalType(R16F), 0x1406);
    EXPECT_EQ(internalFormat(R), 0x1903);
    EXPECT_EQ(externalFormat(RGBA16I), 0x8D99);
    EXPECT_EQ(externalType(DEPTH32F_STENCIL8), 0x84FA);
    const auto outOfRange = static_cast<TextureFormat>(23);
    EXPECT_EQ(internalFormat(outOfRange), 0x1908);
    EXPECT_EQ(externalFormat(outOfRange), 0x1908);
    EXPECT_EQ(externalType(outOfRange), 0x1406);
    EXPECT_EQ(internalFormat(static_cast<TextureFormat>(-1)), 0x1908);
}
