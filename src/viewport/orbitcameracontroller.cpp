#include "viewport/orbitcameracontroller.h"

#include "gl/model/gpumodel.h"
#include "render/sceneframing.h"

#include <QMouseEvent>
#include <QResizeEvent>
#include <QWheelEvent>
#include <QWidget>
#include <QWindow>
#include <QtMath>

#include <algorithm>
#include <cmath>

namespace Tavren::Vyx {

namespace {

constexpr float kMaxPitch = float(M_PI) * 0.49f;
// Each wheel notch (120 units) moves this share of the way to the pivot.
constexpr float kDollyPerStep = 0.15f;

QVector3D eyeDirection(float yaw, float pitch)
{
    return QVector3D(std::sin(yaw) * std::cos(pitch), std::sin(pitch), std::cos(yaw) * std::cos(pitch));
}

QPointF eventPosition(const QMouseEvent* event)
{
#if QT_VERSION >= QT_VERSION_CHECK(6, 0, 0)
    return event->position();
#else
    return event->localPos();
#endif
}

QPointF eventPosition(const QWheelEvent* event)
{
    return event->position();
}

bool finite(const BoundingBox& box)
{
    const float extent = box.size().length() + box.center().length();
    return !box.isEmpty() && std::isfinite(extent);
}

} // namespace

OrbitCameraController::OrbitCameraController(QObject* parent)
    : QObject(parent)
{
    _wheelTimer.setSingleShot(true);
    _wheelTimer.setInterval(250);
    connect(&_wheelTimer, &QTimer::timeout, this, [this] {
        if (!_dragging)
            Q_EMIT interactionFinished();
    });
    rebuild();
}

void OrbitCameraController::attachTo(QObject* target)
{
    if (_target)
        _target->removeEventFilter(this);
    _target = target;
    if (!target)
        return;
    target->installEventFilter(this);
    if (auto* widget = qobject_cast<QWidget*>(target))
        setViewportSize(widget->size());
    else if (auto* window = qobject_cast<QWindow*>(target))
        setViewportSize(window->size());
}

void OrbitCameraController::setViewportSize(const QSize& size)
{
    _size = size.isEmpty() ? QSize(1, 1) : size;
}

float OrbitCameraController::aspect() const
{
    return float(_size.width()) / float(_size.height());
}

void OrbitCameraController::setCamera(const Camera& camera, float pivotDistance)
{
    _camera = camera;
    const QMatrix4x4& world = camera.worldMatrix();
    const QVector3D eye = world.column(3).toVector3D();
    const QVector3D back = world.column(2).toVector3D().normalized();
    if (!std::isfinite(pivotDistance) || pivotDistance <= 0 || back.isNull()) {
        rebuild();
        Q_EMIT cameraChanged();
        return;
    }
    _distance = pivotDistance;
    _pivot = eye - back * pivotDistance;
    _pitch = std::asin(std::clamp(back.y(), -1.0f, 1.0f));
    _yaw = std::atan2(back.x(), back.z());
    _framed = true;
    Q_EMIT cameraChanged();
}

void OrbitCameraController::setSceneBounds(const BoundingBox& bounds)
{
    _bounds = bounds;
    fitPlanes();
}

void OrbitCameraController::frameAll()
{
    frameBox(_bounds);
}

void OrbitCameraController::frameBox(const BoundingBox& box)
{
    const Camera framing = SceneFraming::framingCamera(box, aspect());
    const QVector3D centre = finite(box) ? box.center() : QVector3D();
    const float distance = (framing.worldMatrix().column(3).toVector3D() - centre).length();
    if (!_framed) {
        // The first framing is the one `vyxgl render` uses, so both show the same picture.
        setCamera(framing, distance);
        return;
    }
    _pivot = centre;
    _distance = distance;
    _camera.setProjectionType(Camera::ePerspective);
    _camera.setFieldOfView(framing.fieldOfView());
    rebuild();
    Q_EMIT cameraChanged();
}

bool OrbitCameraController::showSceneCamera(GPUModel& model, int index)
{
    if (index < 0 || index >= model.getCameraCount())
        return false;
    const Camera camera = SceneFraming::enclosingPlanes(model.getCamera(index), model.getCameraWorldSpaceMatrix(index), _bounds);
    const QVector3D eye = camera.worldMatrix().column(3).toVector3D();
    const float toCentre = finite(_bounds) ? (_bounds.center() - eye).length() : 0.0f;
    setCamera(camera, toCentre > 0 ? toCentre : std::max(camera.nearPlane() * 10.0f, 1.0f));
    return true;
}

void OrbitCameraController::orbit(const QPointF& delta)
{
    _yaw -= qDegreesToRadians(float(delta.x()) * _degreesPerPixel);
    _pitch = std::clamp(_pitch + qDegreesToRadians(float(delta.y()) * _degreesPerPixel), -kMaxPitch, kMaxPitch);
    rebuild();
    Q_EMIT cameraChanged();
}

float OrbitCameraController::halfHeightAtPivot() const
{
    if (_camera.projectionType() == Camera::eOrthographic)
        return _camera.orthographicHeight() * 0.5f;
    return _distance * std::tan(qDegreesToRadians(_camera.fieldOfView()) * 0.5f);
}

void OrbitCameraController::pan(const QPointF& delta)
{
    const float perPixel = 2.0f * halfHeightAtPivot() / float(_size.height());
    const QMatrix4x4& world = _camera.worldMatrix();
    const QVector3D right = world.column(0).toVector3D().normalized();
    const QVector3D up = world.column(1).toVector3D().normalized();
    _pivot += (-right * float(delta.x()) + up * float(delta.y())) * perPixel;
    placeEyeAtPivot();
}

void OrbitCameraController::dolly(float steps, const QPointF& cursor)
{
    if (!std::isfinite(steps) || steps == 0)
        return;
    const float factor = std::pow(1.0f - kDollyPerStep, steps);
    // The cursor's point on the focal plane, relative to the pivot.
    const float ndcX = float(cursor.x()) / float(_size.width()) * 2.0f - 1.0f;
    const float ndcY = 1.0f - float(cursor.y()) / float(_size.height()) * 2.0f;
    const float halfHeight = halfHeightAtPivot();
    const QMatrix4x4& world = _camera.worldMatrix();
    const QVector3D offset = world.column(0).toVector3D().normalized() * (ndcX * halfHeight * aspect()) +
                             world.column(1).toVector3D().normalized() * (ndcY * halfHeight);
    _pivot += offset * (1.0f - factor);
    if (_camera.projectionType() == Camera::eOrthographic)
        _camera.setOrthographicHeight(_camera.orthographicHeight() * factor);
    else
        _distance = std::max(_distance * factor, 1e-6f);
    placeEyeAtPivot();
}

void OrbitCameraController::placeEyeAtPivot()
{
    // Same orientation (roll included), the eye moved to keep the pivot straight ahead.
    QMatrix4x4 moved = _camera.worldMatrix();
    moved.setColumn(3, QVector4D(_pivot + moved.column(2).toVector3D().normalized() * _distance, 1.0f));
    _camera.setWorldMatrix(moved);
    fitPlanes();
    Q_EMIT cameraChanged();
}

void OrbitCameraController::rebuild()
{
    const QVector3D eye = _pivot + eyeDirection(_yaw, _pitch) * _distance;
    _camera.lookAt(eye, _pivot, QVector3D(0, 1, 0));
    fitPlanes();
}

void OrbitCameraController::fitPlanes()
{
    const QVector3D centre = finite(_bounds) ? _bounds.center() : _pivot;
    const float radius = finite(_bounds) ? std::max(_bounds.size().length() * 0.5f, 1e-6f) : std::max(_distance, 1.0f);
    const QVector3D eye = _camera.worldMatrix().column(3).toVector3D();
    const float toCentre = (centre - eye).length();
    const float farPlane = (toCentre + radius) * 1.01f;
    // Inside the bounds the near plane cannot hug them; a fixed share of the far one keeps
    // enough depth precision.
    const float nearPlane = std::max((toCentre - radius) * 0.99f, farPlane * 1e-4f);
    if (std::isfinite(nearPlane) && std::isfinite(farPlane) && farPlane > nearPlane)
        _camera.setNearFar(nearPlane, farPlane);
}

void OrbitCameraController::beginInteraction()
{
    if (!isInteracting())
        Q_EMIT interactionStarted();
}

void OrbitCameraController::endInteraction()
{
    if (!isInteracting())
        Q_EMIT interactionFinished();
}

bool OrbitCameraController::eventFilter(QObject* watched, QEvent* event)
{
    if (watched != _target)
        return false;
    switch (event->type()) {
    case QEvent::Resize:
        setViewportSize(static_cast<QResizeEvent*>(event)->size());
        break;
    case QEvent::MouseButtonPress: {
        auto* mouse = static_cast<QMouseEvent*>(event);
        if (_drag != Drag::None)
            break;
        const bool shift = mouse->modifiers() & Qt::ShiftModifier;
        if (mouse->button() == Qt::LeftButton)
            _drag = shift ? Drag::Pan : Drag::Orbit;
        else if (mouse->button() == Qt::MiddleButton)
            _drag = Drag::Pan;
        else if (mouse->button() == Qt::RightButton)
            _drag = Drag::Dolly;
        if (_drag != Drag::None) {
            _last = eventPosition(mouse);
            beginInteraction();
            _dragging = true;
        }
        break;
    }
    case QEvent::MouseMove: {
        if (_drag == Drag::None)
            break;
        const QPointF position = eventPosition(static_cast<QMouseEvent*>(event));
        const QPointF delta = position - _last;
        _last = position;
        if (_drag == Drag::Orbit)
            orbit(delta);
        else if (_drag == Drag::Pan)
            pan(delta);
        else
            dolly(float(-delta.y()) / 20.0f, QPointF(_size.width() * 0.5, _size.height() * 0.5));
        break;
    }
    case QEvent::MouseButtonRelease: {
        if (_drag == Drag::None || static_cast<QMouseEvent*>(event)->buttons() != Qt::NoButton)
            break;
        _drag = Drag::None;
        _dragging = false;
        endInteraction();
        break;
    }
    case QEvent::Wheel: {
        auto* wheel = static_cast<QWheelEvent*>(event);
        const float steps = float(wheel->angleDelta().y()) / 120.0f;
        if (steps == 0)
            break;
        beginInteraction();
        _wheelTimer.start();
        dolly(steps, eventPosition(wheel));
        break;
    }
    default:
        break;
    }
    return false;
}

} // namespace Tavren::Vyx
