#include "gl/objects/textureformat.h"

#include <gtest/gtest.h>

using namespace Tavren::Vyx;

TEST(TextureFormat, MapsToGLEnumerantsWithItsFallback)
{
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
