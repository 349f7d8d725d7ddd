#include "gl/environment/okuimagecubemaputils.h"

#include <gtest/gtest.h>

using namespace Tavren::Vyx::OkuImageCubemapUtils;

TEST(OkuImageCubemapNames, RoundTripAndUnknowns)
{
    const char* names[] = {"None", "Cubemap", "Sphere", "LatLong", "Linear", "Cross"};
    for (int type = 0; type < 6; ++type) {
        EXPECT_EQ(typeAsString(type), QString::fromLatin1(names[type]));
        EXPECT_EQ(int(typeFromString(QString::fromLatin1(names[type]))), type);
    }
    EXPECT_EQ(typeAsString(6), QStringLiteral("Unknown"));
    EXPECT_EQ(typeAsString(-1), QStringLiteral("Unknown"));
    EXPECT_EQ(typeFromString(QStringLiteral("cross")), SourceNone);
    EXPECT_EQ(typeFromString(QStringLiteral("Unknown")), SourceNone);
    EXPECT_EQ(supportedTypes(), (QList<OkuImageCubemapSourceType>{SourceSphere, SourceLatLong, SourceCross}));
    EXPECT_TRUE(canFileSupport3DCubemap(QStringLiteral("/a/b.dds")));
    EXPECT_FALSE(canFileSupport3DCubemap(QStringLiteral("b.dds.ktx")));
    EXPECT_FALSE(canFileSupport3DCubemap(QStringLiteral("dds")));
}
