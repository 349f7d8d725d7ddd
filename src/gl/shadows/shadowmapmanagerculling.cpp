#include "gl/shadows/shadowmapmanagerculling.h"

#include "gl/model/gpumodel.h"

#include <QVector4D>

#include <algorithm>
#include <cmath>

namespace Tavren::Vyx {

namespace {

float s_splitBlend = 0.75f;

// Depths of the scene bounds land in this part of the projector's (0, 1) range.
constexpr double kDepthLow = 0.05;
constexpr double kDepthHigh = 0.95;
// Texels of the extent kept free around the slice's sphere: snapping moves the centre by up to half
// a texel, and filtering reads half a texel past the last one that is sampled.
constexpr int kGuardTexels = 2;

std::array<QVector3D, 8> boxCorners(const QVector3D& low, const QVector3D& high)
{
    std::array<QVector3D, 8> corners;
    for (int i = 0; i < 8; ++i)
        corners[i] = QVector3D(i & 1 ? high.x() : low.x(), i & 2 ? high.y() : low.y(), i & 4 ? high.z() : low.z());
    return corners;
}

// Rounds a positive distance out to quarter-octave steps, so that a small camera move keeps it.
float roundOut(float distance, bool up)
{
    if (!(distance > 0.0f))
        return distance;
    const float steps = 4.0f * std::log2(distance);
    return std::exp2((up ? std::ceil(steps) : std::floor(steps)) / 4.0f);
}

} // namespace

void ShadowMapManagerCulling::setSplitBlend(float blend)
{
    s_splitBlend = std::clamp(blend, 0.0f, 1.0f);
}

float ShadowMapManagerCulling::splitBlend()
{
    return s_splitBlend;
}

void ShadowMapManagerCulling::setupCameras(const QMatrix4x4* view, const QMatrix4x4* projection)
{
    _hasCamera = view && projection;
    if (_hasCamera) {
        _view = *view;
        _projection = *projection;
    }
}

void ShadowMapManagerCulling::setupScene(const QPair<QVector3D, QVector3D>* sceneBounds)
{
    _hasScene = sceneBounds != nullptr;
    if (_hasScene) {
        const QVector3D& a = sceneBounds->first;
        const QVector3D& b = sceneBounds->second;
        _sceneMin = QVector3D(std::min(a.x(), b.x()), std::min(a.y(), b.y()), std::min(a.z(), b.z()));
        _sceneMax = QVector3D(std::max(a.x(), b.x()), std::max(a.y(), b.y()), std::max(a.z(), b.z()));
    }
}

bool ShadowMapManagerCulling::sceneBounds(GPUModel& model, QPair<QVector3D, QVector3D>& bounds, quint64 flags,
                                          quint64 mask)
{
    model.updateTransforms();
    BoundingBox box;
    for (int i = 0; i < model.numDrawables(); ++i) {
        const GPUModel::Drawable& d = model.drawable(i);
        if ((d.flags & mask) != (flags & mask) || (d.flags & GPUModel::kHiddenFlag))
            continue;
        for (int c = 0; c < d.boundingBoxRefs.size(); ++c) {
            const int t = d.transformRefs[c];
            if (!model.isValidBoundingBox(d.boundingBoxRefs[c]))
                continue;
            const BoundingBox local = model.getBoundingBox(d.boundingBoxRefs[c]);
            if (!model.isValidTransform(t))
                box.unite(local);
            else if (model.visibility(t) != 2 && model.visibility(t) != 3 && !model.isParentHidden(t))
                box.unite(local.transformed(model.worldTransform(t)));
        }
    }
    if (box.isEmpty())
        return false;
    bounds = qMakePair(box.minimum(), box.maximum());
    return true;
}

void ShadowMapManagerCulling::setupPost()
{
    _ready = false;
    if (!_hasCamera || !_hasScene)
        return;
    bool projectionInvertible = false, viewInvertible = false;
    const QMatrix4x4 inverseProjection = _projection.inverted(&projectionInvertible);
    _inverseView = _view.inverted(&viewInvertible);
    if (!projectionInvertible || !viewInvertible)
        return;

    static const float kCornerX[4] = {-1, 1, 1, -1};
    static const float kCornerY[4] = {-1, -1, 1, 1};
    float nearSum = 0.0f, farSum = 0.0f;
    for (int i = 0; i < 8; ++i) {
        const QVector4D corner = inverseProjection * QVector4D(kCornerX[i % 4], kCornerY[i % 4], i < 4 ? -1.0f : 1.0f, 1.0f);
        if (std::abs(corner.w()) < 1e-12f)
            return;
        _corners[i] = corner.toVector3DAffine();
        (i < 4 ? nearSum : farSum) -= _corners[i].z() / 4.0f;
    }
    if (!(farSum > nearSum) || !std::isfinite(farSum))
        return;

    _near = nearSum;
    _far = farSum;
    const QVector3D eye = _inverseView.map(QVector3D());
    const bool eyeInside = eye.x() >= _sceneMin.x() && eye.y() >= _sceneMin.y() && eye.z() >= _sceneMin.z()
        && eye.x() <= _sceneMax.x() && eye.y() <= _sceneMax.y() && eye.z() <= _sceneMax.z();
    if (eyeInside) {
        // No scene point is farther than the diagonal; unlike the corners' depths it does not
        // change as the camera moves.
        _far = std::min(_far, std::max(_near * 1.001f + 1e-4f, (_sceneMax - _sceneMin).length()));
    } else {
        float sceneNear = INFINITY, sceneFar = -INFINITY;
        for (const QVector3D& corner : boxCorners(_sceneMin, _sceneMax)) {
            const float depth = -_view.map(corner).z();
            sceneNear = std::min(sceneNear, depth);
            sceneFar = std::max(sceneFar, depth);
        }
        if (sceneFar > _near && sceneNear < _far) {
            _far = std::min(_far, roundOut(sceneFar, true));
            _near = std::max(_near, roundOut(sceneNear, false));
        }
    }
    _ready = _far > _near;
}

QVector3D ShadowMapManagerCulling::edgePoint(int corner, float depth) const
{
    const QVector3D& nearCorner = _corners[corner];
    const QVector3D& farCorner = _corners[corner + 4];
    const float span = nearCorner.z() - farCorner.z();
    if (span == 0.0f)
        return nearCorner;
    return nearCorner + (farCorner - nearCorner) * ((depth + nearCorner.z()) / span);
}

bool ShadowMapManagerCulling::processLightDirectional(ShadowMapRenderData& data,
                                                      ShadowMapRenderData::ProjectorInfo& info,
                                                      const ShadowMapLight& light, int projectorCapacity,
                                                      bool& changed) const
{
    const int count = std::min(std::max(1, light.csmLevels()), projectorCapacity - int(info.index));
    if (!_ready || count < 1)
        return false;

    // The light's frame without its position or scale: only its rotation may move the grid.
    const QMatrix4x4& transform = light.transform();
    const QVector3D zAxis = transform.column(2).toVector3D().normalized();
    const QVector3D xRaw = transform.column(0).toVector3D();
    const QVector3D xAxis = (xRaw - zAxis * QVector3D::dotProduct(xRaw, zAxis)).normalized();
    if (zAxis.isNull() || xAxis.isNull())
        return false;
    const QVector3D yAxis = QVector3D::crossProduct(zAxis, xAxis);

    double depthLow = INFINITY, depthHigh = -INFINITY;
    for (const QVector3D& corner : boxCorners(_sceneMin, _sceneMax)) {
        const double depth = QVector3D::dotProduct(zAxis, corner);
        depthLow = std::min(depthLow, depth);
        depthHigh = std::max(depthHigh, depth);
    }
    const double depthPad = 1e-3 * (depthHigh - depthLow) + 1e-4;
    const double depthScale = (kDepthHigh - kDepthLow) / (depthHigh - depthLow + 2.0 * depthPad);
    const double depthOffset = kDepthLow - depthScale * (depthLow - depthPad);

    const int size = std::max(data.shadowMapSize(), 2 * kGuardTexels + 2);
    const int snap = std::max(1, std::min(data.cascadeSnap(), size / 8));
    const double blend = s_splitBlend;
    const double logNear = std::max<double>(_near, 1e-3 * (_far - _near));
    auto split = [&](int i) {
        if (i == 0 || i == count)
            return double(i == 0 ? _near : _far);
        const double fraction = double(i) / count;
        return blend * logNear * std::pow(_far / logNear, fraction) + (1.0 - blend) * (_near + (_far - _near) * fraction);
    };

    for (int cascade = 0; cascade < count; ++cascade) {
        std::array<QVector3D, 8> slice;
        for (int corner = 0; corner < 4; ++corner) {
            slice[corner] = edgePoint(corner, float(split(cascade)));
            slice[corner + 4] = edgePoint(corner, float(split(cascade + 1)));
        }
        QVector3D centre;
        for (const QVector3D& point : slice)
            centre += point / 8.0f;
        double sphereRadius = 0.0;
        for (const QVector3D& point : slice)
            sphereRadius = std::max(sphereRadius, double((point - centre).length()));

        // Snapping moves the centre by up to half a step each way: the guard covers a one-texel
        // step, and the extent grows by the rest of a coarser one.
        const double radius = std::max(sphereRadius, 1e-6) * size / (size - 2 * kGuardTexels - (snap - 1));
        const double step = 2.0 * radius / size * snap;
        const QVector3D centreWorld = _inverseView.map(centre);
        const double centreX = std::round(QVector3D::dotProduct(xAxis, centreWorld) / step) * step;
        const double centreY = std::round(QVector3D::dotProduct(yAxis, centreWorld) / step) * step;

        const QMatrix4x4 projector(
            float(xAxis.x() / radius), float(xAxis.y() / radius), float(xAxis.z() / radius), float(-centreX / radius),
            float(yAxis.x() / radius), float(yAxis.y() / radius), float(yAxis.z() / radius), float(-centreY / radius),
            float(zAxis.x() * depthScale), float(zAxis.y() * depthScale), float(zAxis.z() * depthScale),
            float(depthOffset), 0.0f, 0.0f, 0.0f, 1.0f);
        changed |= data.setTransform(int(info.index) + cascade, projector);
    }
    info.count = quint32(count);
    return true;
}

} // namespace Tavren::Vyx
