// Skins, morph targets and animation playback, each checked against a CPU deformation of the same
// vertices: the pixels the deformed quads cover must be exactly those a CPU rasterisation of
// them covers, away from their edges.
#include "gl/drawing/camera.h"
#include "gl/model/gpumodel.h"
#include "gl/textures/samplertexturemanager.h"
#include "render/gltfimporter.h"
#include "render/sceneanimator.h"
#include "render/sceneframing.h"
#include "render/scenerenderer.h"
#include "support/gltfbuilder.h"
#include "support/scenetest.h"
#include "support/testenvironment.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QMatrix4x4>
#include <QVector2D>

#include <cmath>
#include <set>

using namespace Tavren::Vyx;

namespace {

constexpr int kPixelsPerUnit = 16;

QJsonArray array(std::initializer_list<double> values)
{
    QJsonArray out;
    for (double v : values)
        out.append(v);
    return out;
}

// A strip two units high (rows at y = 0, 1, 2) and one wide, in an unlit red, with the accessors
// a test adds; the camera sees x in [-2, 4] and y in [-1, 3].
struct StripScene : VyxTest::GLTFBuilder
{
    static std::vector<QVector3D> vertices()
    {
        return {{0, 0, 0}, {1, 0, 0}, {0, 1, 0}, {1, 1, 0}, {0, 2, 0}, {1, 2, 0}};
    }
    static std::vector<int> triangles() { return {0, 1, 3, 0, 3, 2, 2, 3, 5, 2, 5, 4}; }
    QJsonObject primitive(QJsonObject attributes)
    {
        std::vector<float> p;
        for (const QVector3D& v : vertices())
            p.insert(p.end(), {v.x(), v.y(), v.z()});
        const float n[18] = {0, 0, 1, 0, 0, 1, 0, 0, 1, 0, 0, 1, 0, 0, 1, 0, 0, 1};
        std::vector<quint16> idx;
        for (int i : triangles())
            idx.push_back(quint16(i));
        attributes["POSITION"] = accessor(p.data(), int(p.size() * 4), 5126, 6, "VEC3");
        attributes["NORMAL"] = accessor(n, sizeof(n), 5126, 6, "VEC3");
        return {{"attributes", attributes}, {"indices", accessor(idx.data(), 24, 5123, 12, "SCALAR")}, {"material", 0}};
    }
    QByteArray json(QJsonObject root, QJsonArray nodes) const
    {
        nodes.append(QJsonObject{{"camera", 0}, {"translation", array({1, 1, 5})}});
        QJsonArray roots;
        for (int i = 0; i < nodes.size(); ++i)
            if (!nodes[i].toObject().contains("parentOnly"))
                roots.append(i);
        for (int i = 0; i < nodes.size(); ++i) {
            QJsonObject n = nodes[i].toObject();
            n.remove("parentOnly");
            nodes[i] = n;
        }
        root["asset"] = QJsonObject{{"version", "2.0"}};
        root["scene"] = 0;
        root["scenes"] = QJsonArray{QJsonObject{{"nodes", roots}}};
        root["nodes"] = nodes;
        root["cameras"] = QJsonArray{QJsonObject{
            {"type", "orthographic"}, {"orthographic", QJsonObject{{"xmag", 3}, {"ymag", 2}, {"znear", 0.1}, {"zfar", 10}}}}};
        root["materials"] = QJsonArray{QJsonObject{{"pbrMetallicRoughness", QJsonObject{{"baseColorFactor", array({1, 0, 0, 1})}}},
                                                   {"extensions", QJsonObject{{"KHR_materials_unlit", QJsonObject{}}}}}};
        root["extensionsUsed"] = QJsonArray{"KHR_materials_unlit"};
        root["accessors"] = accessors;
        root["bufferViews"] = views;
        root["buffers"] = embeddedBuffer();
        return QJsonDocument(root).toJson(QJsonDocument::Compact);
    }
};

// Which pixels of the 96 x 64 view the triangles cover, by their centres; pixels whose centre
// lies within `margin` pixels of an edge are left out of the comparison as -1.
std::vector<int> rasterise(const std::vector<QVector3D>& v, const std::vector<int>& triangles, float margin = 0.75f)
{
    std::vector<int> covered(96 * 64, 0);
    for (int y = 0; y < 64; ++y)
        for (int x = 0; x < 96; ++x) {
            const QVector2D p(-2 + (x + 0.5f) / kPixelsPerUnit, 3 - (y + 0.5f) / kPixelsPerUnit);
            int& out = covered[size_t(y * 96 + x)];
            for (size_t t = 0; t + 2 < triangles.size(); t += 3) {
                float inside = 1e9f;
                bool inTriangle = true;
                for (int e = 0; e < 3; ++e) {
                    const QVector2D a = v[size_t(triangles[t + e])].toVector2D(), b = v[size_t(triangles[t + (e + 1) % 3])].toVector2D();
                    const QVector2D edge = b - a;
                    const float length = edge.length();
                    if (length < 1e-6f)
                        continue;
                    // Signed distance, positive inside for counter-clockwise triangles, in pixels.
                    const float d = (edge.x() * (p.y() - a.y()) - edge.y() * (p.x() - a.x())) / length * kPixelsPerUnit;
                    inside = std::min(inside, d);
                    inTriangle = inTriangle && d > 0;
                }
                if (std::abs(inside) < margin)
                    out = out == 1 ? 1 : -1;
                else if (inTriangle)
                    out = 1;
            }
        }
    return covered;
}

class AnimationTest : public VyxTest::SceneTest
{
protected:
    void TearDown() override
    {
        animator.reset();
        SceneTest::TearDown();
    }
    bool load(const QByteArray& json)
    {
        if (!importer.loadFromMemory(json, QString(), model, &lights))
            return false;
        animator = importer.takeAnimator();
        return animator != nullptr;
    }
    // Pixels that show the red strip (1) or not (0).
    std::vector<int> coverage()
    {
        renderer->setSamples(1);
        renderer->setShadowsEnabled(false);
        const QImage image = renderer->renderToImage(model, fileCamera(), QSize(96, 64));
        std::vector<int> out(96 * 64, 0);
        for (int y = 0; y < 64 && !image.isNull(); ++y)
            for (int x = 0; x < 96; ++x) {
                const QRgb c = image.pixel(x, y);
                out[size_t(y * 96 + x)] = qRed(c) > 200 && qGreen(c) < 60 && qBlue(c) < 60;
            }
        return out;
    }
    // Counts pixels where the picture and the CPU reference disagree, edges aside.
    static int mismatches(const std::vector<int>& drawn, const std::vector<int>& expected)
    {
        int wrong = 0;
        for (size_t i = 0; i < drawn.size(); ++i)
            wrong += expected[i] >= 0 && drawn[i] != expected[i];
        return wrong;
    }

    std::unique_ptr<SceneAnimator> animator;
};

// Two joints: the root at the origin and one at y = 1 that an animation turns from 0 to 60 degrees
// about Z over a second. The bottom row follows the root, the middle row both half and half, the
// top row the upper joint; the mesh node sits 1 unit right to show that the skin ignores it.
TEST_F(AnimationTest, SkinnedVerticesMatchCPUSkinningThroughTheAnimation)
{
    StripScene s;
    const quint8 joints[24] = {0, 1, 0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0};
    const float weights[24] = {1, 0, 0, 0, 1, 0, 0, 0, 0.5f, 0.5f, 0, 0, 0.5f, 0.5f, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0};
    const float inverseBind[32] = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, -1, 0, 1};
    const float times[2] = {0, 1};
    const float turn = float(std::sin(M_PI / 6)), keep = float(std::cos(M_PI / 6)); // 60 degrees about Z
    const float rotations[8] = {0, 0, 0, 1, 0, 0, turn, keep};
    QJsonObject primitive = s.primitive({{"JOINTS_0", s.accessor(joints, 24, 5121, 6, "VEC4")},
                                         {"WEIGHTS_0", s.accessor(weights, 96, 5126, 6, "VEC4")}});
    QJsonObject root{{"meshes", QJsonArray{QJsonObject{{"primitives", QJsonArray{primitive}}}}},
                     {"skins", QJsonArray{QJsonObject{{"joints", QJsonArray{1, 2}}, {"inverseBindMatrices", s.accessor(inverseBind, 128, 5126, 2, "MAT4")}}}}};
    root["animations"] = QJsonArray{QJsonObject{
        {"samplers", QJsonArray{QJsonObject{{"input", s.accessor(times, 8, 5126, 2, "SCALAR")},
                                            {"output", s.accessor(rotations, 32, 5126, 2, "VEC4")}}}},
        {"channels", QJsonArray{QJsonObject{{"sampler", 0}, {"target", QJsonObject{{"node", 2}, {"path", "rotation"}}}}}}}};
    const QJsonArray nodes{QJsonObject{{"mesh", 0}, {"skin", 0}, {"translation", array({1, 0, 0})}},
                           QJsonObject{{"children", QJsonArray{2}}},
                           QJsonObject{{"translation", array({0, 1, 0})}, {"parentOnly", true}}};
    ASSERT_TRUE(load(s.json(root, nodes))) << qPrintable(importer.errorString());
    ASSERT_EQ(animator->animationCount(), 1);
    EXPECT_FLOAT_EQ(animator->duration(0), 1.0f);

    for (const float time : {0.0f, 0.5f, 1.0f, 2.0f}) { // 2 s clamps to the last key
        SCOPED_TRACE(time);
        ASSERT_TRUE(animator->setTime(0, time));
        QMatrix4x4 upper;
        upper.translate(0, 1, 0);
        upper.rotate(60.0f * std::min(time, 1.0f), 0, 0, 1); // slerp about one axis is linear in angle
        upper.translate(0, -1, 0);
        std::vector<QVector3D> skinned = StripScene::vertices();
        const QMatrix4x4 jointMatrices[2] = {QMatrix4x4(), upper};
        for (size_t v = 0; v < skinned.size(); ++v) {
            QVector3D blended;
            for (size_t i = 0; i < 4; ++i)
                blended += jointMatrices[joints[v * 4 + i]].map(skinned[v]) * weights[v * 4 + i];
            skinned[v] = blended;
        }
        EXPECT_EQ(mismatches(coverage(), rasterise(skinned, StripScene::triangles())), 0);
        const BoundingBox bounds = model.sceneBounds();
        for (const QVector3D& v : skinned)
            EXPECT_TRUE(bounds.contains(v)) << "the culling box misses a skinned vertex";
    }
}

// Two targets, one moving the top row right and one moving it down, drawn by three nodes with
// weights [1, 0], [0, 1] and [0.5, 0.5], side by side.
TEST_F(AnimationTest, MorphTargetsBlendAsTheCPUDoes)
{
    StripScene s;
    const float right[18] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0.5f, 0, 0, 0.5f, 0, 0};
    const float down[18] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, -1, 0, 0, -1, 0};
    QJsonObject primitive = s.primitive({});
    primitive["targets"] = QJsonArray{QJsonObject{{"POSITION", s.accessor(right, 72, 5126, 6, "VEC3")}},
                                      QJsonObject{{"POSITION", s.accessor(down, 72, 5126, 6, "VEC3")}}};
    QJsonObject root{{"meshes", QJsonArray{QJsonObject{{"primitives", QJsonArray{primitive}}, {"weights", array({0.5, 0.5})}}}}};
    const double weights[3][2] = {{1, 0}, {0, 1}, {0.5, 0.5}};
    QJsonArray nodes;
    std::vector<QVector3D> all;
    std::vector<int> triangles;
    for (int n = 0; n < 3; ++n) {
        QJsonObject node{{"mesh", 0}, {"translation", array({-1.75 + 2 * n, -0.5, 0})}};
        if (n < 2) // the third keeps the mesh's default weights
            node["weights"] = array({weights[n][0], weights[n][1]});
        nodes.append(node);
        const size_t first = all.size();
        for (size_t v = 0; v < 6; ++v)
            all.push_back(StripScene::vertices()[v] + QVector3D(-1.75f + 2 * n, -0.5f, 0) +
                          QVector3D(right[3 * v], 0, 0) * float(weights[n][0]) + QVector3D(0, down[3 * v + 1], 0) * float(weights[n][1]));
        for (int i : StripScene::triangles())
            triangles.push_back(int(first) + i);
    }
    ASSERT_TRUE(load(s.json(root, nodes))) << qPrintable(importer.errorString());
    EXPECT_EQ(mismatches(coverage(), rasterise(all, triangles)), 0);
}

// Broken skins are drawn unskinned with a warning, whatever else the file holds.
TEST_F(AnimationTest, BrokenSkinsWarnAndDrawUnskinned)
{
    const struct
    {
        const char* name;
        QJsonArray joints;
        quint8 highestJoint;
        const char* warning;
    } cases[] = {
        {"joint outside the scene", QJsonArray{1, 9}, 1, "Skin 0 uses node 9, which does not exist"},
        {"joint index past the skin", QJsonArray{1}, 3, "uses joint 3 of skin 0, which has 1"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        StripScene s;
        quint8 joints[24] = {};
        joints[20] = c.highestJoint;
        const float weights[24] = {1, 0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0};
        QJsonObject primitive = s.primitive({{"JOINTS_0", s.accessor(joints, 24, 5121, 6, "VEC4")},
                                             {"WEIGHTS_0", s.accessor(weights, 96, 5126, 6, "VEC4")}});
        QJsonObject root{{"meshes", QJsonArray{QJsonObject{{"primitives", QJsonArray{primitive}}}}},
                         {"skins", QJsonArray{QJsonObject{{"joints", c.joints}}}}};
        const QJsonArray nodes{QJsonObject{{"mesh", 0}, {"skin", 0}},
                               QJsonObject{{"translation", array({5, 5, 0})}}};
        ASSERT_TRUE(load(s.json(root, nodes))) << qPrintable(importer.errorString());
        EXPECT_TRUE(importer.warnings().join('\n').contains(QLatin1String(c.warning))) << qPrintable(importer.warnings().join('\n'));
        EXPECT_EQ(mismatches(coverage(), rasterise(StripScene::vertices(), StripScene::triangles())), 0);
        model.clear();
    }
}

// Real animated assets move: three instants of their first animation give three pictures.
TEST_F(AnimationTest, SampleAssetsChangeOverTheirFirstAnimation)
{
    for (const char* file : {"gltf/Fox/glTF-Binary/Fox.glb", "gltf/CesiumMan/glTF-Binary/CesiumMan.glb",
                             "gltf/RiggedSimple/glTF-Binary/RiggedSimple.glb", "gltf/SimpleMorph/glTF/SimpleMorph.gltf"}) {
        SCOPED_TRACE(file);
        ASSERT_TRUE(importer.load(VyxTest::testDataPath(QLatin1String(file)), model, &lights)) << qPrintable(importer.errorString());
        animator = importer.takeAnimator();
        ASSERT_TRUE(animator && animator->animationCount() > 0);
        const float duration = animator->duration(0);
        std::set<QByteArray> pictures;
        for (int k = 0; k < 3; ++k) {
            ASSERT_TRUE(animator->setTime(0, duration * k / 3));
            const Camera camera = SceneFraming::framingCamera(model.sceneBounds(), 1.0f);
            const QImage image = renderer->renderToImage(model, camera, QSize(48, 48));
            ASSERT_FALSE(image.isNull());
            pictures.insert(QByteArray(reinterpret_cast<const char*>(image.constBits()), int(image.sizeInBytes())));
        }
        EXPECT_EQ(pictures.size(), 3u);
        animator.reset();
        model.clear();
    }
}

} // namespace
