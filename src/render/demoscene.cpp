#include "render/demoscene.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QMatrix4x4>
#include <QVector3D>
#include <QtMath>

#include <cmath>
#include <cstring>
#include <vector>

namespace Tavren::Vyx::DemoScene {

namespace {

struct Mesh
{
    std::vector<float> positions, normals;
    std::vector<quint32> indices;
};

Mesh sphere(float radius, int slices, int stacks)
{
    Mesh m;
    for (int j = 0; j <= stacks; ++j) {
        const float polar = float(M_PI) * j / stacks;
        for (int i = 0; i <= slices; ++i) {
            const float azimuth = 2 * float(M_PI) * i / slices;
            const QVector3D n(std::sin(polar) * std::cos(azimuth), std::cos(polar), std::sin(polar) * std::sin(azimuth));
            for (int k = 0; k < 3; ++k) {
                m.normals.push_back(n[k]);
                m.positions.push_back(n[k] * radius);
            }
        }
    }
    for (int j = 0; j < stacks; ++j)
        for (int i = 0; i < slices; ++i) {
            const quint32 a = quint32(j * (slices + 1) + i), b = a + quint32(slices + 1);
            m.indices.insert(m.indices.end(), {a, a + 1, b, a + 1, b + 1, b});
        }
    return m;
}

// An axis-aligned box with one quad per face, so every face has its own normal.
Mesh box(const QVector3D& half)
{
    Mesh m;
    for (int axis = 0; axis < 3; ++axis)
        for (float sign : {1.0f, -1.0f}) {
            QVector3D n, u, v;
            n[axis] = sign;
            u[(axis + 1) % 3] = 1;
            v = QVector3D::crossProduct(n, u);
            const quint32 base = quint32(m.positions.size() / 3);
            for (const auto& corner : {-u - v, u - v, u + v, -u + v}) {
                const QVector3D p = (n + corner) * half;
                for (int k = 0; k < 3; ++k) {
                    m.positions.push_back(p[k]);
                    m.normals.push_back(n[k]);
                }
            }
            m.indices.insert(m.indices.end(), {base, base + 1, base + 2, base, base + 2, base + 3});
        }
    return m;
}

class Writer
{
public:
    // Appends the mesh's data and returns the accessors {POSITION, NORMAL, indices}.
    QJsonObject primitive(const Mesh& mesh, int material)
    {
        const int position = accessor(mesh.positions.data(), mesh.positions.size() * 4, int(mesh.positions.size() / 3),
                                      5126, "VEC3", 34962, &mesh.positions);
        const int normal = accessor(mesh.normals.data(), mesh.normals.size() * 4, int(mesh.normals.size() / 3), 5126,
                                    "VEC3", 34962, nullptr);
        const int index = accessor(mesh.indices.data(), mesh.indices.size() * 4, int(mesh.indices.size()), 5125,
                                   "SCALAR", 34963, nullptr);
        return QJsonObject{{"attributes", QJsonObject{{"POSITION", position}, {"NORMAL", normal}}},
                           {"indices", index},
                           {"material", material}};
    }

    QByteArray bin;
    QJsonArray views, accessors;

private:
    int accessor(const void* data, size_t bytes, int count, int componentType, const char* type, int target,
                 const std::vector<float>* bounds)
    {
        views.append(QJsonObject{{"buffer", 0}, {"byteOffset", bin.size()}, {"byteLength", int(bytes)}, {"target", target}});
        bin.append(static_cast<const char*>(data), int(bytes));
        QJsonObject a{{"bufferView", views.size() - 1}, {"componentType", componentType}, {"count", count}, {"type", type}};
        if (bounds) {
            QJsonArray lo{1e30, 1e30, 1e30}, hi{-1e30, -1e30, -1e30};
            for (size_t i = 0; i < bounds->size(); ++i) {
                const int k = int(i % 3);
                lo[k] = std::min(lo[k].toDouble(), double((*bounds)[i]));
                hi[k] = std::max(hi[k].toDouble(), double((*bounds)[i]));
            }
            a.insert("min", lo);
            a.insert("max", hi);
        }
        accessors.append(a);
        return accessors.size() - 1;
    }
};

QJsonArray columnMajor(const QMatrix4x4& m)
{
    QJsonArray out;
    for (int i = 0; i < 16; ++i)
        out.append(double(m.constData()[i]));
    return out;
}

// Node matrix whose -Z looks from eye towards centre.
QJsonArray looking(const QVector3D& eye, const QVector3D& centre)
{
    QMatrix4x4 view;
    view.lookAt(eye, centre, std::abs((centre - eye).normalized().y()) > 0.99f ? QVector3D(0, 0, 1) : QVector3D(0, 1, 0));
    return columnMajor(view.inverted());
}

QJsonObject material(const QString& name, const QVector3D& colour, float metallic, float roughness)
{
    return QJsonObject{{"name", name},
                       {"pbrMetallicRoughness", QJsonObject{{"baseColorFactor", QJsonArray{colour.x(), colour.y(), colour.z(), 1.0}},
                                                            {"metallicFactor", metallic},
                                                            {"roughnessFactor", roughness}}}};
}

} // namespace

QByteArray glb()
{
    Writer w;
    QJsonArray materials, meshes, nodes, sceneNodes;
    const auto addNode = [&](QJsonObject node) {
        nodes.append(node);
        sceneNodes.append(nodes.size() - 1);
    };

    materials.append(material("Ground", QVector3D(0.30f, 0.31f, 0.33f), 0.0f, 0.9f));
    meshes.append(QJsonObject{{"name", "Ground"}, {"primitives", QJsonArray{w.primitive(box(QVector3D(8, 0.05f, 8)), 0)}}});
    addNode(QJsonObject{{"name", "Ground"}, {"mesh", 0}, {"translation", QJsonArray{0, -0.05, 0}}});

    materials.append(material("Box", QVector3D(0.75f, 0.22f, 0.12f), 0.0f, 0.5f));
    meshes.append(QJsonObject{{"name", "Box"}, {"primitives", QJsonArray{w.primitive(box(QVector3D(0.6f, 0.6f, 0.6f)), 1)}}});
    addNode(QJsonObject{{"name", "Box"}, {"mesh", 1}, {"translation", QJsonArray{-3.4, 0.6, -0.6}},
                        {"rotation", QJsonArray{0, std::sin(0.3), 0, std::cos(0.3)}}});

    // Each sphere has its own material, so each is its own mesh over the same vertex data.
    const Mesh ball = sphere(0.38f, 48, 24);
    const QJsonObject shared = w.primitive(ball, 0);
    const int columns = 5, rows = 3;
    for (int row = 0; row < rows; ++row)
        for (int column = 0; column < columns; ++column) {
            const float roughness = 0.08f + 0.92f * column / (columns - 1);
            const float metallic = float(row) / (rows - 1);
            const QString name = QStringLiteral("Sphere r%1 m%2").arg(roughness, 0, 'f', 2).arg(metallic, 0, 'f', 1);
            materials.append(material(name, QVector3D(0.95f, 0.64f, 0.30f), metallic, roughness));
            QJsonObject primitive = shared;
            primitive["material"] = materials.size() - 1;
            meshes.append(QJsonObject{{"name", name}, {"primitives", QJsonArray{primitive}}});
            addNode(QJsonObject{{"name", name},
                                {"mesh", meshes.size() - 1},
                                {"translation", QJsonArray{(column - 2) * 1.0, 0.38, (1 - row) * 1.0 + 0.2}}});
        }

    const QJsonArray lights{
        QJsonObject{{"name", "Sun"}, {"type", "directional"}, {"color", QJsonArray{1.0, 0.95, 0.88}}, {"intensity", 2.2}},
        QJsonObject{{"name", "Spot"}, {"type", "spot"}, {"color", QJsonArray{1.0, 0.8, 0.55}}, {"intensity", 28.0},
                    {"spot", QJsonObject{{"innerConeAngle", 0.3}, {"outerConeAngle", 0.5}}}}};
    const QVector3D sun(0.45f, 0.8f, 0.35f); // towards the sun: the light travels the other way
    addNode(QJsonObject{{"name", "Sun"}, {"matrix", looking(QVector3D(), -sun)},
                        {"extensions", QJsonObject{{"KHR_lights_punctual", QJsonObject{{"light", 0}}}}}});
    addNode(QJsonObject{{"name", "Spot"}, {"matrix", looking(QVector3D(-1.5f, 4.5f, 3.5f), QVector3D(-1.8f, 0, -0.8f))},
                        {"extensions", QJsonObject{{"KHR_lights_punctual", QJsonObject{{"light", 1}}}}}});
    const QJsonArray cameras{QJsonObject{
        {"name", "Front"}, {"type", "perspective"},
        {"perspective", QJsonObject{{"yfov", 0.75}, {"znear", 0.1}, {"zfar", 100.0}, {"aspectRatio", 16.0 / 9.0}}}}};
    addNode(QJsonObject{{"name", "Camera"}, {"camera", 0}, {"matrix", looking(QVector3D(0.4f, 3.4f, 6.8f), QVector3D(-0.4f, 0.2f, 0))}});

    while (w.bin.size() % 4)
        w.bin.append('\0');
    const QJsonObject root{
        {"asset", QJsonObject{{"version", "2.0"}}},
        {"extensionsUsed", QJsonArray{"KHR_lights_punctual"}},
        {"extensions", QJsonObject{{"KHR_lights_punctual", QJsonObject{{"lights", lights}}}}},
        {"scene", 0},
        {"scenes", QJsonArray{QJsonObject{{"nodes", sceneNodes}}}},
        {"nodes", nodes},
        {"meshes", meshes},
        {"materials", materials},
        {"cameras", cameras},
        {"accessors", w.accessors},
        {"bufferViews", w.views},
        {"buffers", QJsonArray{QJsonObject{{"byteLength", w.bin.size()}}}}};
    QByteArray json = QJsonDocument(root).toJson(QJsonDocument::Compact);
    while (json.size() % 4)
        json.append(' ');

    QByteArray out;
    const auto word = [&out](quint32 v) { out.append(reinterpret_cast<const char*>(&v), 4); };
    out.append("glTF", 4);
    word(2);
    word(quint32(12 + 8 + json.size() + 8 + w.bin.size()));
    word(quint32(json.size()));
    out.append("JSON", 4);
    out.append(json);
    word(quint32(w.bin.size()));
    out.append("BIN\0", 4);
    out.append(w.bin);
    return out;
}

} // namespace Tavren::Vyx::DemoScene
