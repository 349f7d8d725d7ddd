#include "gl/drawing/boundingbox.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace Tavren::Vyx {

namespace {

QVector3D minOf(const QVector3D& a, const QVector3D& b)
{
    return {std::min(a.x(), b.x()), std::min(a.y(), b.y()), std::min(a.z(), b.z())};
}

QVector3D maxOf(const QVector3D& a, const QVector3D& b)
{
    return {std::max(a.x(), b.x()), std::max(a.y(), b.y()), std::max(a.z(), b.z())};
}

} // namespace

BoundingBox::BoundingBox()
    : _min(QVector3D(1, 1, 1) * std::numeric_limits<float>::max())
    , _max(QVector3D(1, 1, 1) * -std::numeric_limits<float>::max())
{
}

BoundingBox::BoundingBox(const QVector3D& minimum, const QVector3D& maximum)
    : _min(minOf(minimum, maximum))
    , _max(maxOf(minimum, maximum))
{
}

QVector3D BoundingBox::center() const
{
    return isEmpty() ? QVector3D() : (_min + _max) * 0.5f;
}

QVector3D BoundingBox::size() const
{
    return isEmpty() ? QVector3D() : _max - _min;
}

std::array<QVector3D, 8> BoundingBox::corners() const
{
    std::array<QVector3D, 8> out;
    for (int i = 0; i < 8; ++i)
        out[size_t(i)] = QVector3D(i & 1 ? _max.x() : _min.x(), i & 2 ? _max.y() : _min.y(), i & 4 ? _max.z() : _min.z());
    return out;
}

void BoundingBox::expand(const QVector3D& point)
{
    _min = minOf(_min, point);
    _max = maxOf(_max, point);
}

void BoundingBox::unite(const BoundingBox& other)
{
    if (other.isEmpty())
        return;
    _min = minOf(_min, other._min);
    _max = maxOf(_max, other._max);
}

BoundingBox BoundingBox::united(const BoundingBox& other) const
{
    BoundingBox out = *this;
    out.unite(other);
    return out;
}

BoundingBox BoundingBox::transformed(const QMatrix4x4& matrix) const
{
    BoundingBox out;
    if (isEmpty())
        return out;
    const float* m = matrix.constData();
    if (m[3] != 0.0f || m[7] != 0.0f || m[11] != 0.0f || m[15] != 1.0f) {
        for (const QVector3D& corner : corners())
            out.expand(matrix.map(corner));
        return out;
    }
    // Affine: move the centre, and grow the half extents by the absolute linear part; the same
    // box as around the eight moved corners, for a fraction of the work.
    const QVector3D c = (_min + _max) * 0.5f;
    const QVector3D e = (_max - _min) * 0.5f;
    QVector3D centre, extent;
    for (int row = 0; row < 3; ++row) {
        centre[row] = m[row] * c.x() + m[4 + row] * c.y() + m[8 + row] * c.z() + m[12 + row];
        extent[row] = std::abs(m[row]) * e.x() + std::abs(m[4 + row]) * e.y() + std::abs(m[8 + row]) * e.z();
    }
    out._min = centre - extent;
    out._max = centre + extent;
    return out;
}

bool BoundingBox::contains(const QVector3D& point) const
{
    return point.x() >= _min.x() && point.y() >= _min.y() && point.z() >= _min.z() && point.x() <= _max.x() &&
           point.y() <= _max.y() && point.z() <= _max.z();
}

bool BoundingBox::operator==(const BoundingBox& other) const
{
    return (isEmpty() && other.isEmpty()) || (_min == other._min && _max == other._max);
}

} // namespace Tavren::Vyx
