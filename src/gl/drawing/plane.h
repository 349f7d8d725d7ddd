#pragma once

#include "core/vyxexport.h"

#include <QMatrix4x4>
#include <QVector3D>
#include <QVector4D>

#include <array>

namespace Tavren::Vyx {

class BoundingBox;

// The plane normal · p + distance = 0; points with a positive signed distance lie on the side
// the normal points to. Normalised planes give distances in world units.
class VYXGL_EXPORT Plane
{
public:
    Plane() = default;
    Plane(const QVector3D& normal, float distance);
    // (a, b, c, d) of a x + b y + c z + d = 0.
    explicit Plane(const QVector4D& coefficients);

    const QVector3D& normal() const { return _normal; }
    float distance() const { return _distance; }
    float signedDistance(const QVector3D& point) const
    {
        return _normal.x() * point.x() + _normal.y() * point.y() + _normal.z() * point.z() + _distance;
    }
    // A plane with a zero normal stays as it is.
    Plane normalized() const;

private:
    QVector3D _normal;
    float _distance = 0.0f;
};

// The six planes of a clip volume, taken from a projection (or view-projection, or
// model-view-projection) matrix, normals pointing inwards, in the space the matrix maps from.
// The box test is conservative: a box that straddles two planes' outer corner can pass although
// it lies outside, but no box that reaches into the volume is ever rejected.
class VYXGL_EXPORT Frustum
{
public:
    enum Side { eLeft = 0, eRight, eBottom, eTop, eNear, eFar, eSideCount };

    Frustum() = default;
    explicit Frustum(const QMatrix4x4& clipFromSpace);

    const Plane& plane(Side side) const { return _planes[size_t(side)]; }
    bool contains(const QVector3D& point) const;
    // False only when the box lies wholly behind one plane; an empty box is outside.
    bool intersects(const BoundingBox& box) const;

private:
    std::array<Plane, eSideCount> _planes;
};

} // namespace Tavren::Vyx
