#include "gl/drawing/camera.h"

#include "core/logging.h"

#include <cmath>

namespace Tavren::Vyx {

void Camera::setNearFar(float nearPlane, float farPlane)
{
    _near = nearPlane;
    _far = farPlane;
}

void Camera::lookAt(const QVector3D& eye, const QVector3D& center, const QVector3D& up)
{
    QMatrix4x4 view;
    view.lookAt(eye, center, up);
    _world = view.inverted();
}

QMatrix4x4 Camera::projectionMatrix(float aspect) const
{
    QMatrix4x4 projection;
    VYX_CHECK_RETURN(std::isfinite(aspect) && aspect > 0.0f && std::isfinite(_far - _near) && _far > _near, projection,
                     "Camera cannot project with aspect %g, near %g, far %g", double(aspect), double(_near),
                     double(_far));
    if (_type == eOrthographic) {
        const float half = _orthographicHeight * 0.5f;
        VYX_CHECK_RETURN(half > 0.0f, projection, "Orthographic camera with height %g", double(_orthographicHeight));
        projection.ortho(-half * aspect, half * aspect, -half, half, _near, _far);
        return projection;
    }
    VYX_CHECK_RETURN(_near > 0.0f && _fieldOfView > 0.0f && _fieldOfView < 180.0f, projection,
                     "Perspective camera with near %g and field of view %g", double(_near), double(_fieldOfView));
    projection.perspective(_fieldOfView, aspect, _near, _far);
    return projection;
}

} // namespace Tavren::Vyx
