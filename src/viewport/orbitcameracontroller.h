#pragma once

#include "core/vyxexport.h"
#include "gl/drawing/boundingbox.h"
#include "gl/drawing/camera.h"

#include <QObject>
#include <QPointF>
#include <QSize>
#include <QTimer>
#include <QVector3D>

namespace Tavren::Vyx {

class GPUModel;

// Turns mouse input into a Camera that circles a pivot: left drag orbits (yaw about +Y, pitch
// held short of the poles), middle or Shift+left drag pans, right drag and the wheel dolly, the
// wheel towards the point under the cursor. attachTo() filters the events of any QWidget or
// QWindow (and follows its size) without eating them; the plain methods serve hosts that route
// input themselves. Sizes and positions are in logical pixels, y down.
//
// A camera set whole (setCamera, a scene camera) is kept exactly, roll included, until the next
// orbit; the planes hug the scene bounds so depth precision holds at any scale.
class VYXGL_EXPORT OrbitCameraController : public QObject
{
    Q_OBJECT
public:
    explicit OrbitCameraController(QObject* parent = nullptr);

    // Follows the target's mouse, wheel and resize events; null detaches.
    void attachTo(QObject* target);
    void setViewportSize(const QSize& size);
    QSize viewportSize() const { return _size; }
    float aspect() const;

    const Camera& camera() const { return _camera; }
    // Takes the camera as it is; the pivot lies pivotDistance ahead of it.
    void setCamera(const Camera& camera, float pivotDistance);
    QVector3D pivot() const { return _pivot; }
    float distance() const { return _distance; }

    // What frameAll() shows and the planes enclose.
    void setSceneBounds(const BoundingBox& bounds);
    BoundingBox sceneBounds() const { return _bounds; }
    // The bounds whole from the current direction (from the front the first time).
    void frameAll();
    void frameBox(const BoundingBox& box);
    // The model's camera `index`, its planes widened if they would show nothing; false for an
    // index the model does not have.
    bool showSceneCamera(GPUModel& model, int index);

    // Degrees a pixel of drag turns.
    void setOrbitSpeed(float degreesPerPixel) { _degreesPerPixel = degreesPerPixel; }
    void orbit(const QPointF& delta);
    void pan(const QPointF& delta);
    // Positive steps move in; the point of the focal plane under the cursor stays put.
    void dolly(float steps, const QPointF& cursor);

    bool isInteracting() const { return _dragging || _wheelTimer.isActive(); }

Q_SIGNALS:
    void cameraChanged();
    // A drag or a run of wheel steps began or ended: time to drop or restore picture quality.
    void interactionStarted();
    void interactionFinished();

protected:
    bool eventFilter(QObject* watched, QEvent* event) override;

private:
    enum class Drag { None, Orbit, Pan, Dolly };
    void rebuild();
    void placeEyeAtPivot();
    void fitPlanes();
    void beginInteraction();
    void endInteraction();
    // Half the view's height at the pivot's distance, in world units.
    float halfHeightAtPivot() const;

    Camera _camera;
    BoundingBox _bounds;
    QSize _size{1, 1};
    QVector3D _pivot;
    float _distance = 5.0f;
    float _yaw = 0.0f, _pitch = 0.0f; // radians; the eye sits at pivot + distance * direction(yaw, pitch)
    float _degreesPerPixel = 0.4f;
    bool _framed = false;
    bool _dragging = false;
    Drag _drag = Drag::None;
    QPointF _last;
    QObject* _target = nullptr;
    QTimer _wheelTimer;
};

} // namespace Tavren::Vyx
