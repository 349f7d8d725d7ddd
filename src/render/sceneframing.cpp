#include "render/sceneframing.h"

#include "core/logging.h"

#include <QtMath>

#include <algorithm>
#include <cmath>
#include <limits>

namespace Tavren::Vyx::SceneFraming {

namespace {

constexpr float kFieldOfView = 45.0f; // degrees, vertical
constexpr float kElevation = 15.0f;   // degrees above the horizontal
// Planes stand this share of the radius clear of the sphere, so rounding clips nothing.
constexpr float kPlaneMargin = 0.02f;
// Perspective near planes stay beyond this share of the scene's size: nearer wastes depth
// precision.
constexpr float kMinNearFraction = 1e-3f;
// Widened perspective planes keep far / near below this where the scene allows it.
constexpr float kMaxDepthRatio = 1e3f;
// Beyond this the eye's distance and the planes would overflow.
constexpr float kMaxRadius = 1e30f;

bool isFinite(const QVector3D& v)
{
    return std::isfinite(v.x()) && std::isfinite(v.y()) && std::isfinite(v.z());
}

// The bounding sphere, or false for a box that has none worth framing.
bool boundingSphere(const BoundingBox& bounds, QVector3D& centre, float& radius)
{
    if (bounds.isEmpty() || !isFinite(bounds.minimum()) || !isFinite(bounds.maximum()))
        return false;
    centre = bounds.center();
    radius = bounds.size().length() * 0.5f;
    if (!isFinite(centre) || !std::isfinite(radius) || radius > kMaxRadius)
        return false;
    // A point still gets a sphere that float positions around the centre can resolve.
    radius = std::max(radius, 1e-6f * std::max(1.0f, centre.length()));
    return true;
}

} // namespace

Camera framingCamera(const BoundingBox& bounds, float aspect)
{
    QVector3D centre;
    float radius = 1.0f;
    if (!boundingSphere(bounds, centre, radius)) {
        centre = QVector3D();
        radius = 1.0f;
    }
    if (!std::isfinite(aspect) || aspect <= 0.0f)
        aspect = 1.0f;
    // The sphere's silhouette seen from `distance` spans tan(asin(radius / distance)) of the
    // image plane at unit depth; that is kFill of the smaller half extent.
    const float halfExtent = std::tan(qDegreesToRadians(kFieldOfView * 0.5f)) * std::min(aspect, 1.0f);
    const float t = kFill * halfExtent;
    const float distance = radius * std::sqrt(1.0f + t * t) / t;
    const float elevation = qDegreesToRadians(kElevation);
    Camera camera;
    camera.setFieldOfView(kFieldOfView);
    camera.lookAt(centre + QVector3D(0.0f, std::sin(elevation), std::cos(elevation)) * distance, centre,
                  QVector3D(0, 1, 0));
    const float reach = radius * (1.0f + kPlaneMargin);
    camera.setNearFar(std::max(distance - reach, radius * kMinNearFraction), distance + reach);
    return camera;
}

Camera enclosingPlanes(const Camera& camera, const QMatrix4x4& cameraToWorld, const BoundingBox& bounds, bool* widened)
{
    Camera out = camera;
    out.setWorldMatrix(cameraToWorld);
    if (widened)
        *widened = false;
    QVector3D centre;
    float radius = 0.0f;
    bool invertible = false;
    const QMatrix4x4 view = cameraToWorld.inverted(&invertible);
    if (!invertible || !boundingSphere(bounds, centre, radius))
        return out;
    float nearest = std::numeric_limits<float>::max();
    float farthest = -nearest;
    for (const QVector3D& corner : bounds.corners()) {
        const float depth = -view.map(corner).z();
        nearest = std::min(nearest, depth);
        farthest = std::max(farthest, depth);
    }
    const float nearPlane = camera.nearPlane();
    const float farPlane = camera.farPlane();
    const bool perspective = camera.projectionType() == Camera::ePerspective;
    if (!std::isfinite(nearest) || !std::isfinite(farthest) || (nearest <= farPlane && farthest >= nearPlane) ||
        (perspective && farthest <= 0.0f))
        return out;

    const float margin = radius * kPlaneMargin + 1e-4f * std::max(std::abs(nearest), std::abs(farthest));
    float newNear = std::min(nearPlane, nearest - margin);
    const float newFar = std::max(farPlane, farthest + margin);
    if (perspective) {
        // In front of the eye, and for a scene beyond the far plane, raised from a near plane
        // far closer than the scene towards it, as depth precision falls with far / near.
        const float lowest = std::max(nearest - margin, farthest * kMinNearFraction);
        newNear = std::min(nearPlane, lowest);
        newNear = std::max(newNear, std::min(lowest, newFar / kMaxDepthRatio));
    }
    out.setNearFar(newNear, newFar);
    if (widened)
        *widened = true;
    VYX_DEBUG("The camera's planes %g to %g show nothing of the scene (depths %g to %g); drawing with %g to %g",
              double(nearPlane), double(farPlane), double(nearest), double(farthest), double(newNear), double(newFar));
    return out;
}

} // namespace Tavren::Vyx::SceneFraming
