#include "viewport/orbitcameracontroller.h"

#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QMouseEvent>
#include <QWidget>

#include <cmath>

using namespace Tavren::Vyx;

namespace {

constexpr QSize kSize(200, 100);

// Window pixel (y down) of a world point.
QPointF project(const OrbitCameraController& controller, const QVector3D& point)
{
    const Camera& camera = controller.camera();
    const QVector3D ndc = (camera.projectionMatrix(controller.aspect()) * camera.viewMatrix()).map(point);
    return QPointF((ndc.x() + 1) * 0.5 * kSize.width(), (1 - ndc.y()) * 0.5 * kSize.height());
}

// The world point on the plane through the pivot under a window pixel.
QVector3D onFocalPlane(const OrbitCameraController& controller, const QPointF& pixel)
{
    const Camera& camera = controller.camera();
    const QMatrix4x4 inverse = (camera.projectionMatrix(controller.aspect()) * camera.viewMatrix()).inverted();
    const float x = float(pixel.x() / kSize.width() * 2 - 1), y = float(1 - pixel.y() / kSize.height() * 2);
    const QVector3D nearPoint = inverse.map(QVector3D(x, y, -1)), farPoint = inverse.map(QVector3D(x, y, 1));
    const QVector3D forward = -camera.worldMatrix().column(2).toVector3D().normalized();
    const QVector3D direction = farPoint - nearPoint;
    const float t = QVector3D::dotProduct(controller.pivot() - nearPoint, forward) / QVector3D::dotProduct(direction, forward);
    return nearPoint + direction * t;
}

OrbitCameraController* framedController(QObject* parent, Camera::ProjectionType type)
{
    auto* controller = new OrbitCameraController(parent);
    controller->setViewportSize(kSize);
    controller->setSceneBounds(BoundingBox(QVector3D(-1, -2, -3), QVector3D(3, 2, 1)));
    controller->frameAll();
    if (type == Camera::eOrthographic) {
        Camera camera = controller->camera();
        camera.setProjectionType(Camera::eOrthographic);
        camera.setOrthographicHeight(6.0f);
        controller->setCamera(camera, controller->distance());
    }
    return controller;
}

} // namespace

TEST(OrbitCameraController, FramingShowsTheBoundsAndOrbitKeepsThePivotDistance)
{
    QObject owner;
    OrbitCameraController* controller = framedController(&owner, Camera::ePerspective);
    const BoundingBox bounds = controller->sceneBounds();
    for (float yaw : {0.0f, 90.0f, 300.0f}) {
        controller->orbit(QPointF(yaw / 0.4f, 37.0f));
        const QVector3D eye = controller->camera().worldMatrix().column(3).toVector3D();
        EXPECT_NEAR((eye - controller->pivot()).length(), controller->distance(), 1e-3f * controller->distance());
        for (const QVector3D& corner : bounds.corners()) {
            const QPointF pixel = project(*controller, corner);
            EXPECT_TRUE(QRectF(QPointF(0, 0), QSizeF(kSize)).contains(pixel)) << "corner off screen at yaw " << yaw;
            const float depth = -(controller->camera().viewMatrix().map(corner)).z();
            EXPECT_GT(depth, controller->camera().nearPlane());
            EXPECT_LT(depth, controller->camera().farPlane());
        }
    }
    // Pitch stops short of the poles, where lookAt would lose its up vector.
    controller->orbit(QPointF(0, 10000));
    EXPECT_TRUE(std::isfinite(controller->camera().viewMatrix()(0, 0)));
    EXPECT_LT(std::abs(controller->camera().worldMatrix().column(2).toVector3D().normalized().y()), 0.9999f);
}

TEST(OrbitCameraController, DollyKeepsThePointUnderTheCursor)
{
    for (const auto type : {Camera::ePerspective, Camera::eOrthographic}) {
        for (const QPointF cursor : {QPointF(100, 50), QPointF(20, 80), QPointF(190, 5)}) {
            for (float steps : {1.0f, -2.5f, 6.0f}) {
                QObject owner;
                OrbitCameraController* controller = framedController(&owner, type);
                const QVector3D target = onFocalPlane(*controller, cursor);
                const float before = controller->distance();
                const float height = controller->camera().orthographicHeight();
                controller->dolly(steps, cursor);
                const QPointF after = project(*controller, target);
                EXPECT_NEAR(after.x(), cursor.x(), 0.05) << type << " steps " << steps;
                EXPECT_NEAR(after.y(), cursor.y(), 0.05) << type << " steps " << steps;
                if (type == Camera::ePerspective)
                    EXPECT_EQ(controller->distance() < before, steps > 0);
                else
                    EXPECT_EQ(controller->camera().orthographicHeight() < height, steps > 0);
            }
        }
    }
}

TEST(OrbitCameraController, FollowsAnyWidgetsEventsAndReportsInteraction)
{
    QWidget widget;
    widget.resize(kSize);
    OrbitCameraController controller;
    controller.attachTo(&widget);
    EXPECT_EQ(controller.viewportSize(), kSize);
    controller.setSceneBounds(BoundingBox(QVector3D(-1, -1, -1), QVector3D(1, 1, 1)));
    controller.frameAll();
    int started = 0, finished = 0, changed = 0;
    QObject::connect(&controller, &OrbitCameraController::interactionStarted, [&] { ++started; });
    QObject::connect(&controller, &OrbitCameraController::interactionFinished, [&] { ++finished; });
    QObject::connect(&controller, &OrbitCameraController::cameraChanged, [&] { ++changed; });
    const QVector3D pivot = controller.pivot();
    const QMatrix4x4 view = controller.camera().viewMatrix();
    QMouseEvent press(QEvent::MouseButtonPress, QPointF(50, 50), QPointF(50, 50), Qt::MiddleButton, Qt::MiddleButton,
                      Qt::NoModifier);
    QMouseEvent move(QEvent::MouseMove, QPointF(70, 40), QPointF(70, 40), Qt::NoButton, Qt::MiddleButton, Qt::NoModifier);
    QMouseEvent release(QEvent::MouseButtonRelease, QPointF(70, 40), QPointF(70, 40), Qt::MiddleButton, Qt::NoButton,
                        Qt::NoModifier);
    QCoreApplication::sendEvent(&widget, &press);
    EXPECT_TRUE(controller.isInteracting());
    QCoreApplication::sendEvent(&widget, &move);
    QCoreApplication::sendEvent(&widget, &release);
    EXPECT_EQ(started, 1);
    EXPECT_EQ(finished, 1);
    EXPECT_EQ(changed, 1);
    // Panning drags the scene with the cursor: the pivot goes the other way.
    const QVector3D moved = view.map(controller.pivot()) - view.map(pivot);
    EXPECT_LT(moved.x(), 0);
    EXPECT_LT(moved.y(), 0);
    controller.attachTo(nullptr);
    QCoreApplication::sendEvent(&widget, &press);
    EXPECT_FALSE(controller.isInteracting());
}
