#include "scene/internal/gltfgeometry.h"

#include <QVector3D>

namespace Tavren::Vyx {

namespace {

void select(std::vector<float>& values, size_t width, const std::vector<quint32>& sources)
{
    if (values.empty())
        return;
    std::vector<float> selected(sources.size() * width);
    for (size_t v = 0; v < sources.size(); ++v)
        std::copy_n(&values[size_t(sources[v]) * width], width, &selected[v * width]);
    values.swap(selected);
}

QVector3D position(const SceneData::Primitive& p, size_t v)
{
    return QVector3D(p.positions[3 * v], p.positions[3 * v + 1], p.positions[3 * v + 2]);
}

} // namespace

void selectVertices(SceneData::Primitive& p, const std::vector<quint32>& sources)
{
    select(p.positions, 3, sources);
    select(p.normals, 3, sources);
    select(p.tangents, 4, sources);
    for (std::vector<float>& set : p.texCoords)
        select(set, 2, sources);
    select(p.colors, 4, sources);
    const size_t influences = 4 * size_t(p.influenceSets);
    select(p.weights, influences, sources);
    if (!p.joints.empty()) {
        std::vector<quint32> joints(sources.size() * influences);
        for (size_t v = 0; v < sources.size(); ++v)
            std::copy_n(&p.joints[size_t(sources[v]) * influences], influences, &joints[v * influences]);
        p.joints.swap(joints);
    }
    for (SceneData::Primitive::MorphTarget& target : p.targets) {
        select(target.positions, 3, sources);
        select(target.normals, 3, sources);
        select(target.tangents, 3, sources);
    }
}

size_t unrollToList(SceneData::Primitive& p)
{
    using P = SceneData::Primitive;
    const size_t n = p.indexed ? p.indices.size() : p.vertexCount();
    const auto at = [&](size_t i) { return p.indexed ? p.indices[i] : quint32(i); };
    std::vector<quint32> list;
    size_t leftOver = 0;
    switch (p.mode) {
    default:
        return 0;
    case P::kLines:
    case P::kTriangles: {
        leftOver = n % (p.mode == P::kLines ? 2 : 3);
        if (leftOver == 0)
            return 0;
        if (p.indexed) {
            p.indices.resize(n - leftOver);
        } else {
            std::vector<quint32> kept(n - leftOver);
            for (size_t v = 0; v < kept.size(); ++v)
                kept[v] = quint32(v);
            selectVertices(p, kept);
        }
        return leftOver;
    }
    case P::kLineLoop:
    case P::kLineStrip:
        if (n < 2)
            leftOver = n;
        for (size_t i = 0; i + 1 < n; ++i)
            list.insert(list.end(), {at(i), at(i + 1)});
        if (p.mode == P::kLineLoop && n > 2)
            list.insert(list.end(), {at(n - 1), at(0)});
        p.mode = P::kLines;
        break;
    case P::kTriangleStrip:
    case P::kTriangleFan:
        if (n < 3)
            leftOver = n;
        for (size_t i = 0; i + 2 < n; ++i) {
            // Odd strip triangles swap two vertices so that all of them face the same way.
            const quint32 a = p.mode == P::kTriangleFan ? at(i + 1) : at(i);
            const quint32 b = p.mode == P::kTriangleFan ? at(i + 2) : at(i + 1 + i % 2);
            const quint32 c = p.mode == P::kTriangleFan ? at(0) : at(i + 2 - i % 2);
            // Repeated vertices are how strips are stitched together; such triangles have no area.
            if (a != b && b != c && a != c)
                list.insert(list.end(), {a, b, c});
        }
        p.mode = P::kTriangles;
        break;
    }
    p.indexed = true;
    p.indices.swap(list);
    return leftOver;
}

void makeFlatNormals(SceneData::Primitive& p)
{
    if (p.indexed) {
        selectVertices(p, p.indices);
        p.indexed = false;
        p.indices.clear();
    }
    const size_t vertices = p.vertexCount();
    p.normals.assign(vertices * 3, 0.0f);
    for (size_t v = 0; v + 2 < vertices; v += 3) {
        QVector3D n = QVector3D::crossProduct(position(p, v + 1) - position(p, v), position(p, v + 2) - position(p, v));
        // A triangle without area is not drawn; any unit normal keeps the shading finite.
        n = n.lengthSquared() > 0 ? n.normalized() : QVector3D(0, 0, 1);
        for (size_t k = 0; k < 3; ++k) {
            float* normal = &p.normals[(v + k) * 3];
            normal[0] = n.x(), normal[1] = n.y(), normal[2] = n.z();
        }
    }
}

} // namespace Tavren::Vyx
