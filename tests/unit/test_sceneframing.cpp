#include "render/sceneframing.h"
#include "support/messagecapture.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

using namespace Tavren::Vyx;

namespace {

QVector3D ndc(const Camera& camera, float aspect, const QVector3D& world)
{
    return (camera.projectionMatrix(aspect) * camera.viewMatrix()).map(world);
}

Camera lookingDownZ(float z, float nearPlane, float farPlane, Camera::ProjectionType type = Camera::ePerspective)
{
    Camera camera;
    camera.setProjectionType(type);
    camera.setNearFar(nearPlane, farPlane);
    camera.lookAt(QVector3D(0, 0, z), QVector3D(0, 0, z - 1), QVector3D(0, 1, 0));
    return camera;
}

} // namespace

TEST(SceneFraming, SphereFillsTheSmallerSideAtEveryScale)
{
    const BoundingBox boxes[] = {BoundingBox(QVector3D(5, 5, 5), QVector3D(5.001f, 5.0005f, 5.001f)),
                                 BoundingBox(QVector3D(-5000, 0, -5000), QVector3D(5000, 300, 5000))};
    for (const BoundingBox& box : boxes) {
        const QVector3D centre = box.center();
        const float radius = box.size().length() * 0.5f;
        for (const float aspect : {16.0f / 9.0f, 0.5f}) {
            const Camera camera = SceneFraming::framingCamera(box, aspect);
            EXPECT_GT(camera.nearPlane(), 0.0f);
            EXPECT_LT(camera.farPlane() / camera.nearPlane(), 10.0f);
            // Points all over the sphere stay inside the frustum; the widest reach kFill of the
            // smaller side.
            float widest = 0.0f;
            for (int i = 0; i < 13 * 16; ++i) {
                const float theta = float(M_PI) * (i % 13) / 12.0f, phi = 2.0f * float(M_PI) * (i / 13) / 16.0f;
                const QVector3D onSphere = centre + radius * QVector3D(std::sin(theta) * std::cos(phi),
                                                                       std::cos(theta), std::sin(theta) * std::sin(phi));
                const QVector3D p = ndc(camera, aspect, onSphere);
                ASSERT_LE(std::max({std::abs(p.x()), std::abs(p.y()), std::abs(p.z())}), 1.0f) << aspect;
                widest = std::max(widest, aspect >= 1.0f ? std::abs(p.y()) : std::abs(p.x()));
            }
            EXPECT_NEAR(widest, SceneFraming::kFill, 0.04f) << aspect;
        }
    }
}

TEST(SceneFraming, LooksAtTheFrontFromSlightlyAboveOrAtTheOriginWithoutBounds)
{
    const float nan = std::numeric_limits<float>::quiet_NaN(), inf = std::numeric_limits<float>::infinity();
    const BoundingBox boxes[] = {BoundingBox(QVector3D(-1, -2, -3), QVector3D(1, 2, 3)), BoundingBox(),
                                 BoundingBox(QVector3D(nan, 0, 0), QVector3D(1, 1, 1)),
                                 BoundingBox(QVector3D(-inf, 0, 0), QVector3D(1, 1, 1))};
    for (const BoundingBox& box : boxes) {
        const Camera camera = SceneFraming::framingCamera(box, 1.5f);
        const QVector3D forward = -camera.worldMatrix().column(2).toVector3D();
        EXPECT_NEAR(forward.x(), 0.0f, 1e-6f);
        EXPECT_LT(forward.z(), -0.9f);
        EXPECT_LT(forward.y(), -0.1f);
        EXPECT_GT(camera.worldMatrix().column(1).y(), 0.9f);
        EXPECT_NE(camera.projectionMatrix(1.5f), QMatrix4x4());
        EXPECT_LT(ndc(camera, 1.5f, QVector3D()).toVector2D().length(), 1e-4f);
    }
}

TEST(SceneFraming, FileCameraPlanesWidenOnlyWhenTheyShowNothing)
{
    const BoundingBox toy(QVector3D(-0.035f, -0.035f, -0.035f), QVector3D(0.035f, 0.035f, 0.035f));
    const struct
    {
        Camera camera;
        bool widens;
    } cases[] = {
        {lookingDownZ(0.2f, 1.0f, 100.0f), true},    // the toy between the eye and the near plane
        {lookingDownZ(500.0f, 0.01f, 100.0f), true}, // beyond the far plane
        {lookingDownZ(0.2f, 0.2f, 100.0f), false},   // cut in half, but the author's choice
        {lookingDownZ(-1.0f, 0.01f, 100.0f), false}, // behind the eye: no planes help
        {lookingDownZ(-1.0f, 0.0f, 10.0f, Camera::eOrthographic), true},
    };
    for (const auto& c : cases) {
        VyxTest::MessageCapture capture;
        bool widened = !c.widens;
        const Camera out = SceneFraming::enclosingPlanes(c.camera, c.camera.worldMatrix(), toy, &widened);
        EXPECT_EQ(widened, c.widens);
        EXPECT_EQ(capture.texts(QtDebugMsg).size(), c.widens ? 1 : 0);
        if (!c.widens) {
            EXPECT_EQ(out.nearPlane(), c.camera.nearPlane());
            continue;
        }
        for (const QVector3D& corner : toy.corners())
            EXPECT_LE(std::abs(ndc(out, 1.0f, corner).z()), 1.0f);
        EXPECT_GE(out.farPlane(), c.camera.farPlane());
        if (c.camera.projectionType() == Camera::ePerspective) {
            EXPECT_GT(out.nearPlane(), 0.0f);
            EXPECT_LE(out.farPlane() / out.nearPlane(), 1001.0f);
        }
    }
}
