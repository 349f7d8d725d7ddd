#include "gl/drawing/plane.h"

#include "gl/drawing/boundingbox.h"

namespace Tavren::Vyx {

Plane::Plane(const QVector3D& normal, float distance)
    : _normal(normal)
    , _distance(distance)
{
}

Plane::Plane(const QVector4D& coefficients)
    : _normal(coefficients.toVector3D())
    , _distance(coefficients.w())
{
}

Plane Plane::normalized() const
{
    const float length = _normal.length();
    return length > 0.0f ? Plane(_normal / length, _distance / length) : *this;
}

Frustum::Frustum(const QMatrix4x4& m)
{
    // A clip-space point is inside when -w <= x, y, z <= w; each inequality is a plane in the
    // matrix's source space.
    const QVector4D w = m.row(3);
    for (int axis = 0; axis < 3; ++axis) {
        _planes[size_t(2 * axis)] = Plane(w + m.row(axis)).normalized();
        _planes[size_t(2 * axis + 1)] = Plane(w - m.row(axis)).normalized();
    }
}

bool Frustum::contains(const QVector3D& point) const
{
    for (const Plane& plane : _planes) {
        if (plane.signedDistance(point) < 0.0f)
            return false;
    }
    return true;
}

bool Frustum::intersects(const BoundingBox& box) const
{
    if (box.isEmpty())
        return false;
    const QVector3D& lo = box.minimum();
    const QVector3D& hi = box.maximum();
    for (const Plane& plane : _planes) {
        // The corner furthest along the normal decides.
        const QVector3D& n = plane.normal();
        const QVector3D corner(n.x() >= 0 ? hi.x() : lo.x(), n.y() >= 0 ? hi.y() : lo.y(), n.z() >= 0 ? hi.z() : lo.z());
        if (plane.signedDistance(corner) < 0.0f)
            return false;
    }
    return true;
}

} // namespace Tavren::Vyx
