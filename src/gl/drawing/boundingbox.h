#pragma once

#include "core/vyxexport.h"

#include <QMatrix4x4>
#include <QVector3D>

#include <array>

namespace Tavren::Vyx {

// An axis-aligned box given by its two extreme corners. A default box is empty (min above max),
// so the union of an empty box with anything is the other box, and an empty box transforms to
// an empty box. transformed() returns the axis-aligned box around the eight moved corners: it
// grows under rotation, which keeps culling conservative.
class VYXGL_EXPORT BoundingBox
{
public:
    BoundingBox();
    BoundingBox(const QVector3D& minimum, const QVector3D& maximum);

    bool isEmpty() const { return _min.x() > _max.x() || _min.y() > _max.y() || _min.z() > _max.z(); }
    const QVector3D& minimum() const { return _min; }
    const QVector3D& maximum() const { return _max; }
    // The origin for an empty box.
    QVector3D center() const;
    QVector3D size() const;
    std::array<QVector3D, 8> corners() const;

    void expand(const QVector3D& point);
    void unite(const BoundingBox& other);
    BoundingBox united(const BoundingBox& other) const;
    BoundingBox transformed(const QMatrix4x4& matrix) const;
    bool contains(const QVector3D& point) const;

    bool operator==(const BoundingBox& other) const;
    bool operator!=(const BoundingBox& other) const { return !(*this == other); }

private:
    QVector3D _min;
    QVector3D _max;
};

} // namespace Tavren::Vyx
