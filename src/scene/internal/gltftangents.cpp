#include "scene/internal/gltftangents.h"

#include "scene/internal/gltfgeometry.h"

#include <QVector2D>
#include <QVector3D>

#include <algorithm>
#include <cmath>

namespace Tavren::Vyx {

namespace {

QVector3D vec3(const std::vector<float>& values, size_t v)
{
    return QVector3D(values[3 * v], values[3 * v + 1], values[3 * v + 2]);
}

QVector3D unitNormal(const std::vector<float>& normals, size_t v)
{
    const QVector3D n = vec3(normals, v);
    return n.lengthSquared() > 0 ? n.normalized() : QVector3D(0, 0, 1);
}

// Any unit vector perpendicular to n.
QVector3D perpendicular(const QVector3D& n)
{
    const QVector3D axis = std::abs(n.x()) < 0.9f ? QVector3D(1, 0, 0) : QVector3D(0, 1, 0);
    return QVector3D::crossProduct(axis, n).normalized();
}

float angleBetween(QVector3D a, QVector3D b)
{
    if (a.lengthSquared() == 0 || b.lengthSquared() == 0)
        return 0.0f;
    return std::acos(std::clamp(QVector3D::dotProduct(a.normalized(), b.normalized()), -1.0f, 1.0f));
}

} // namespace

void generateTangents(SceneData::Primitive& p, int set)
{
    const size_t vertices = p.vertexCount();
    if (set < 0 || size_t(set) >= p.texCoords.size() || p.normals.size() != vertices * 3)
        return;
    const bool wasIndexed = p.indexed;
    if (!wasIndexed) {
        p.indices.resize(vertices);
        for (size_t v = 0; v < vertices; ++v)
            p.indices[v] = quint32(v);
    }
    const std::vector<float>& uvs = p.texCoords[size_t(set)];
    // MikkTSpace measures v upwards; glTF's texture origin is the top-left corner.
    const auto uv = [&](size_t v) { return QVector2D(uvs[2 * v], 1.0f - uvs[2 * v + 1]); };

    // Per vertex, the weighted sums of its triangles' tangents, one for each handedness.
    struct Sum
    {
        QVector3D tangent[2];
        bool used[2] = {false, false};
    };
    std::vector<Sum> sums(vertices);
    const size_t triangles = p.indices.size() / 3;
    // Per corner: 0 or 1 for the handedness its triangle asks for, -1 when its UVs are degenerate.
    std::vector<int> cornerSide(triangles * 3, -1);
    for (size_t t = 0; t < triangles; ++t) {
        const quint32* corner = &p.indices[3 * t];
        const QVector3D d1 = vec3(p.positions, corner[1]) - vec3(p.positions, corner[0]);
        const QVector3D d2 = vec3(p.positions, corner[2]) - vec3(p.positions, corner[0]);
        const QVector2D t21 = uv(corner[1]) - uv(corner[0]), t31 = uv(corner[2]) - uv(corner[0]);
        const float area = t21.x() * t31.y() - t21.y() * t31.x();
        const QVector3D alongU = (t31.y() * d1 - t21.y() * d2) * (area > 0 ? 1.0f : -1.0f);
        if (area == 0 || !std::isfinite(area) || alongU.lengthSquared() == 0)
            continue;
        const int side = area > 0 ? 0 : 1;
        for (int k = 0; k < 3; ++k) {
            const quint32 v = corner[k];
            const QVector3D n = unitNormal(p.normals, v);
            QVector3D tangent = alongU - n * QVector3D::dotProduct(n, alongU);
            if (tangent.lengthSquared() == 0)
                continue;
            const auto inPlane = [&](const QVector3D& e) { return e - n * QVector3D::dotProduct(n, e); };
            const QVector3D here = vec3(p.positions, v);
            const float weight = angleBetween(inPlane(vec3(p.positions, corner[(k + 1) % 3]) - here),
                                              inPlane(vec3(p.positions, corner[(k + 2) % 3]) - here));
            sums[v].tangent[side] += tangent.normalized() * weight;
            sums[v].used[side] = true;
            cornerSide[3 * t + size_t(k)] = side;
        }
    }

    // A vertex used with both handednesses keeps the first for itself; the other goes to a copy.
    std::vector<quint32> sources(vertices);
    std::vector<int> vertexSide(vertices, 0);
    std::vector<quint32> copyOf(vertices, 0);
    for (size_t v = 0; v < vertices; ++v) {
        sources[v] = quint32(v);
        vertexSide[v] = sums[v].used[0] ? 0 : sums[v].used[1] ? 1 : 0;
    }
    for (size_t v = 0; v < vertices; ++v)
        if (sums[v].used[0] && sums[v].used[1]) {
            copyOf[v] = quint32(sources.size());
            sources.push_back(quint32(v));
            vertexSide.push_back(1);
        }
    const bool split = sources.size() > vertices;
    if (split) {
        for (size_t c = 0; c < cornerSide.size(); ++c) {
            const quint32 v = p.indices[c];
            if (cornerSide[c] == 1 && sums[v].used[0])
                p.indices[c] = copyOf[v];
        }
        selectVertices(p, sources);
        p.indexed = true;
    } else if (!wasIndexed) {
        p.indices.clear();
    }

    p.tangents.assign(sources.size() * 4, 0.0f);
    for (size_t out = 0; out < sources.size(); ++out) {
        const size_t v = sources[out];
        const int side = vertexSide[out];
        const QVector3D n = unitNormal(p.normals, out);
        QVector3D tangent = sums[v].tangent[side];
        // Gram-Schmidt once more: the sum of in-plane vectors can still be short or cancel out.
        tangent -= n * QVector3D::dotProduct(n, tangent);
        tangent = tangent.lengthSquared() > 1e-12f ? tangent.normalized() : perpendicular(n);
        float* into = &p.tangents[out * 4];
        into[0] = tangent.x(), into[1] = tangent.y(), into[2] = tangent.z();
        into[3] = side == 0 ? 1.0f : -1.0f;
    }
}

} // namespace Tavren::Vyx
