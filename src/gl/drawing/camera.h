#pragma once

#include "core/vyxexport.h"

#include <QMatrix4x4>

namespace Tavren::Vyx {

// A viewpoint: where it sits (its camera-to-world matrix; it looks down its own -Z with +Y up,
// as GL's eye space does) and how it projects. The projection is symmetric: a vertical field of
// view for perspective, a vertical extent for orthographic; the width follows from the aspect
// ratio given when the projection is built, so one camera serves any viewport.
class VYXGL_EXPORT Camera
{
public:
    enum ProjectionType { ePerspective = 0, eOrthographic = 1 };

    Camera() = default;

    ProjectionType projectionType() const { return _type; }
    void setProjectionType(ProjectionType type) { _type = type; }
    // Degrees, vertical.
    float fieldOfView() const { return _fieldOfView; }
    void setFieldOfView(float degrees) { _fieldOfView = degrees; }
    // World units, vertical; orthographic only.
    float orthographicHeight() const { return _orthographicHeight; }
    void setOrthographicHeight(float height) { _orthographicHeight = height; }
    float nearPlane() const { return _near; }
    float farPlane() const { return _far; }
    void setNearFar(float nearPlane, float farPlane);

    const QMatrix4x4& worldMatrix() const { return _world; }
    void setWorldMatrix(const QMatrix4x4& cameraToWorld) { _world = cameraToWorld; }
    void lookAt(const QVector3D& eye, const QVector3D& center, const QVector3D& up);
    QMatrix4x4 viewMatrix() const { return _world.inverted(); }

    // A projection the camera cannot give (aspect, planes or angle out of range) is reported and
    // the identity is returned.
    QMatrix4x4 projectionMatrix(float aspect) const;

private:
    ProjectionType _type = ePerspective;
    float _fieldOfView = 45.0f;
    float _orthographicHeight = 2.0f;
    float _near = 0.1f;
    float _far = 1000.0f;
    QMatrix4x4 _world;
};

} // namespace Tavren::Vyx
