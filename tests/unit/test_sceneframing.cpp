#include "render/sceneframing.h"
#include "support/messagecapture.h"

#include <QVector2D>

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

using namespace Tavren::Vyx;

namespace {

QVector3D ndc(const Camera& camera, float aspect, const QVector3D& world)
{
    return (camera.projectionMatrix(aspect) * camera.viewMatrix()).map(world);
}

} // namespace

// A 1 mm box, a 10 km one, and bounds that are empty or not finite (framed as a unit sphere at
// the origin): seen from the front and a little above, points all over the bounding sphere stay
// inside the frustum, the widest reaching kFill of the smaller side, with planes that hug it.
TEST(SceneFraming, SphereFillsTheSmallerSideAtEveryScaleSeenFromTheFront)
{
    const float nan = std::numeric_limits<float>::quiet_NaN(), inf = std::numeric_limits<float>::infinity();
    const BoundingBox unit(QVector3D(-1, -1, -1) / std::sqrt(3.0f), QVector3D(1, 1, 1) / std::sqrt(3.0f));
    const std::pair<BoundingBox, BoundingBox> cases[] = {
        {BoundingBox(QVector3D(5, 5, 5), QVector3D(5.001f, 5.0005f, 5.001f)), {}},
        {BoundingBox(QVector3D(-5000, 0, -5000), QVector3D(5000, 300, 5000)), {}},
        {BoundingBox(), unit},
        {BoundingBox(QVector3D(nan, 0, 0), QVector3D(1, 1, 1)), unit},
        {BoundingBox(QVector3D(-inf, 0, 0), QVector3D(1, 1, 1)), unit}};
    for (const auto& [box, framed] : cases)
        for (const float aspect : {16.0f / 9.0f, 0.5f}) {
            SCOPED_TRACE(testing::Message() << box.minimum().x() << ", aspect " << aspect);
            const BoundingBox& sphere = framed.isEmpty() ? box : framed;
            const Camera camera = SceneFraming::framingCamera(box, aspect);
            const QVector3D forward = -camera.worldMatrix().column(2).toVector3D();
            EXPECT_NEAR(forward.x(), 0.0f, 1e-6f);
            EXPECT_LT(forward.z(), -0.9f);
            EXPECT_LT(forward.y(), -0.1f);
            EXPECT_GT(camera.worldMatrix().column(1).y(), 0.9f) << "upright";
            EXPECT_GT(camera.nearPlane(), 0.0f);
            EXPECT_LT(camera.farPlane() / camera.nearPlane(), 10.0f);
            EXPECT_LT(ndc(camera, aspect, sphere.center()).toVector2D().length(), 1e-3f);
            float widest = 0.0f;
            for (int i = 0; i < 13 * 16; ++i) {
                const float theta = float(M_PI) * (i % 13) / 12.0f, phi = 2.0f * float(M_PI) * (i / 13) / 16.0f;
                const QVector3D direction(std::sin(theta) * std::cos(phi), std::cos(theta), std::sin(theta) * std::sin(phi));
                const QVector3D p = ndc(camera, aspect, sphere.center() + sphere.size().length() * 0.5f * direction);
                ASSERT_LE(std::max({std::abs(p.x()), std::abs(p.y()), std::abs(p.z())}), 1.0f);
                widest = std::max(widest, std::abs(aspect >= 1.0f ? p.y() : p.x()));
            }
            EXPECT_NEAR(widest, SceneFraming::kFill, 0.04f);
        }
}

TEST(SceneFraming, FileCameraPlanesWidenOnlyWhenTheyShowNothing)
{
    const BoundingBox toy(QVector3D(-0.035f, -0.035f, -0.035f), QVector3D(0.035f, 0.035f, 0.035f));
    // A camera at z looking down -z, with its planes and projection.
    const struct { float z, nearPlane, farPlane; Camera::ProjectionType type; bool widens; } cases[] = {
        {0.2f, 1.0f, 100.0f, Camera::ePerspective, true},    // the toy between the eye and the near plane
        {500.0f, 0.01f, 100.0f, Camera::ePerspective, true}, // beyond the far plane
        {0.2f, 0.2f, 100.0f, Camera::ePerspective, false},   // cut in half, but the author's choice
        {-1.0f, 0.01f, 100.0f, Camera::ePerspective, false}, // behind the eye: no planes help
        {-1.0f, 0.0f, 10.0f, Camera::eOrthographic, true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.z);
        Camera camera;
        camera.setProjectionType(c.type);
        camera.setNearFar(c.nearPlane, c.farPlane);
        camera.lookAt(QVector3D(0, 0, c.z), QVector3D(0, 0, c.z - 1), QVector3D(0, 1, 0));
        VyxTest::MessageCapture capture;
        bool widened = !c.widens;
        const Camera out = SceneFraming::enclosingPlanes(camera, camera.worldMatrix(), toy, &widened);
        EXPECT_EQ(widened, c.widens);
        EXPECT_EQ(capture.texts(QtDebugMsg).size(), c.widens ? 1 : 0);
        if (!c.widens) {
            EXPECT_EQ(out.nearPlane(), c.nearPlane);
            continue;
        }
        for (const QVector3D& corner : toy.corners())
            EXPECT_LE(std::abs(ndc(out, 1.0f, corner).z()), 1.0f);
        EXPECT_GE(out.farPlane(), c.farPlane);
        if (c.type == Camera::ePerspective) {
            EXPECT_GT(out.nearPlane(), 0.0f);
            EXPECT_LE(out.farPlane() / out.nearPlane(), 1001.0f);
        }
    }
}
