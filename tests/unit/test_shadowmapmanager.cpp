#include "gl/shadows/shadowmapmanager.h"
#include "support/messagecapture.h"

#include <gtest/gtest.h>

#include <QVector2D>
#include <QVector4D>

#include <array>
#include <functional>
#include <memory>
#include <random>
#include <vector>

using namespace Tavren::Vyx;
using VyxTest::assertionText;
using VyxTest::MessageCapture;
using Light = ShadowMapManager::Light;
using RenderData = ShadowMapManager::RenderData;

namespace {

struct Lights
{
    std::vector<std::unique_ptr<Light>> owned;
    QVariantList list;

    Light& add(Light::Type type, QVector3D position = {})
    {
        owned.push_back(std::make_unique<Light>());
        Light& light = *owned.back();
        light.setType(type);
        light.setSpotCutoff(0.5f);
        QMatrix4x4 transform;
        transform.translate(position);
        light.setTransform(transform);
        list.append(QVariant::fromValue<QObject*>(&light));
        return light;
    }
};

QVector3D project(const RenderData& data, int projector, QVector3D point)
{
    const QVector4D clip = data.transforms[projector].toMatrix() * QVector4D(point, 1.0f);
    return clip.w() > 0 ? clip.toVector3DAffine() : QVector3D(9, 9, 9);
}

bool inSquare(QVector3D ndc, float margin = 0.0f)
{
    return std::abs(ndc.x()) <= 1.0f - margin && std::abs(ndc.y()) <= 1.0f - margin;
}

} // namespace

TEST(ShadowMapManager, RecordsFollowCapacityAndLightState)
{
    QObject unrelated;
    const struct
    {
        const char* name;
        std::function<void(Lights&)> build;
        std::vector<std::array<int, 3>> records; // record, its count, its first projector
        int projectors;
        QStringList messages;                    // debug, warning, critical
    } cases[] = {
        {"33 spot lights", [](Lights& l) { for (int i = 0; i < 33; ++i) l.add(Light::Spot); },
         {{0, 1, 0}, {1, 1, 1}, {31, 1, 31}}, 32,
         {"More lights 33 than shadow projection supports 32. Ignoring top most."}},
        {"six point lights need 36 projectors", [](Lights& l) { for (int i = 0; i < 6; ++i) l.add(Light::Point); },
         {{0, 6, 0}, {4, 6, 24}, {5, 2, 30}, {6, 0, 32}}, 32, {}},
        {"off, not casting, not a light, unknown type, no cone",
         [&](Lights& l) {
             l.add(Light::Spot);
             l.add(Light::Spot).setOn(false);
             l.add(Light::Point).setShadowCaster(false);
             l.list.append(QVariant::fromValue<QObject*>(&unrelated));
             l.add(Light::Type(7));
             l.add(Light::Spot).setSpotCutoff(-1.0f);
             l.add(Light::Spot);
         },
         {{0, 1, 0}, {1, 0, 1}, {2, 0, 1}, {3, 0, 1}, {4, 0, 1}, {5, 0, 1}, {6, 1, 1}, {7, 0, 2}}, 2,
         {"Spot light 5 has cutoff -1 outside (0, pi/2); it casts no shadow",
          assertionText("NULL != light", "Light 3 is NULL")}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        Lights lights;
        c.build(lights);
        RenderData data;
        MessageCapture capture;
        EXPECT_TRUE(ShadowMapManager::processLights(lights.list, data));
        for (const auto& [record, count, first] : c.records) {
            EXPECT_EQ(int(data.projectorInfos[record].count), count) << "record " << record;
            EXPECT_EQ(int(data.projectorInfos[record].index), first) << "record " << record;
        }
        EXPECT_EQ(data.projectorCount(), c.projectors);
        EXPECT_EQ(data.lightCount(), lights.list.size());
        EXPECT_EQ(capture.bodies(QtDebugMsg) + capture.bodies(QtWarningMsg) + capture.bodies(QtCriticalMsg), c.messages);
    }
}

TEST(ShadowMapManager, ReportsChangeOnlyWhenSomethingChanged)
{
    Lights lights;
    lights.add(Light::Point);
    Light& spot = lights.add(Light::Spot, {1, 2, 3});
    RenderData data;
    EXPECT_TRUE(ShadowMapManager::processLights(lights.list, data));
    EXPECT_FALSE(ShadowMapManager::processLights(lights.list, data));
    spot.setTransform(QMatrix4x4(1, 0, 0, 1, 0, 1, 0, 2, 0, 0, 1, 3.01f, 0, 0, 0, 1));
    EXPECT_TRUE(ShadowMapManager::processLights(lights.list, data));
    spot.setOn(false);
    EXPECT_TRUE(ShadowMapManager::processLights(lights.list, data));
    EXPECT_FALSE(ShadowMapManager::processLights(lights.list, data));
    EXPECT_TRUE(ShadowMapManager::processLights(QVariant(), data));
    EXPECT_EQ(data.lightCount(), 0);
}

// The six faces of a point light see every direction around it; the spot cone's half-angle is
// the cutoff; depth grows away from the light.
TEST(ShadowMapManager, ProjectorsSeeTheirLightsView)
{
    const QVector3D at(1, 2, 3);
    Lights lights;
    lights.add(Light::Point, at);
    lights.add(Light::Spot, at).setSpotCutoff(0.4f);
    RenderData data;
    ShadowMapManager::processLights(lights.list, data);
    std::mt19937 random(5);
    std::uniform_real_distribution<float> unit(-1.0f, 1.0f);
    for (int i = 0; i < 100; ++i) {
        const QVector3D direction = QVector3D(unit(random), unit(random), unit(random)).normalized();
        int faces = 0;
        for (int face = 0; face < 6; ++face)
            if (inSquare(project(data, face, at + direction * 2.0f))) {
                ++faces;
                EXPECT_LT(project(data, face, at + direction * 2.0f).z(), project(data, face, at + direction * 3.0f).z());
            }
        EXPECT_TRUE(faces >= 1 && faces <= 3) << faces;
    }
    for (float angle : {0.0f, 0.38f, 0.42f})
        EXPECT_EQ(inSquare(project(data, 6, at + 5.0f * QVector3D(std::sin(angle), 0, -std::cos(angle)))), angle < 0.4f);
}

namespace {

// Random camera poses inside a scene 100 x 20 x 100, and a light slanting down.
struct CascadeScene
{
    const QPair<QVector3D, QVector3D> bounds{QVector3D(-50, 0, -50), QVector3D(50, 20, 50)};
    std::mt19937 random{11};
    QMatrix4x4 view, projection;
    Lights lights;
    RenderData data;

    CascadeScene()
    {
        QMatrix4x4 frame;
        frame.lookAt(QVector3D(0, 0, 0), QVector3D(0.5f, 1.0f, 0.3f), QVector3D(0, 1, 0));
        Light& sun = lights.add(Light::Directional);
        sun.setTransform(frame.inverted()); // +Z travels down and sideways
        sun.setCSMLevels(4);
    }

    float uniform(float low, float high) { return std::uniform_real_distribution<float>(low, high)(random); }

    void randomPose()
    {
        const QVector3D eye(uniform(-50, 50), uniform(0, 20), uniform(-50, 50));
        const QVector3D look(uniform(-1, 1), uniform(-0.5f, 0.5f), uniform(-1, 1));
        view.setToIdentity();
        view.lookAt(eye, eye + look, QVector3D(0, 1, 0));
        projection.setToIdentity();
        projection.perspective(uniform(40, 90), uniform(1.0f, 2.0f), uniform(0.1f, 1.0f), uniform(100, 500));
        lights.owned[0]->setCSMLevels(int(uniform(1, 5)));
        // The finest grid, or a coarse one (the largest allowed for the map) whose margin must cover it too.
        data.setCascadeSnap(uniform(0, 1) < 0.5f ? 1 : 128);
    }

    int fit()
    {
        ShadowMapManager::processLights(lights.list, data, &view, &projection, &bounds);
        return int(data.projectorInfos[0].count);
    }

    // Texel coordinates of a point in a cascade's map.
    QVector2D texel(int cascade, QVector3D point) const
    {
        const QVector3D ndc = project(data, cascade, point);
        return (QVector2D(ndc) * 0.5f + QVector2D(0.5f, 0.5f)) * float(data.shadowMapSize());
    }
};

} // namespace

TEST(ShadowMapManagerCulling, CascadesCoverTheSeenPartOfTheScene)
{
    CascadeScene scene;
    int total = 0;
    for (int pose = 0; pose < 40; ++pose) {
        scene.randomPose();
        const int cascades = scene.fit();
        ASSERT_GE(cascades, 1);
        const QMatrix4x4 unproject = (scene.projection * scene.view).inverted();
        for (int sample = 0; sample < 1000; ++sample) {
            // Half evenly in depth up to the scene's diagonal, so the far cascades get their share, half
            // evenly in the depth buffer's range, which crowds the small near cascades.
            const float x = scene.uniform(-1, 1), y = scene.uniform(-1, 1);
            const QVector3D near = unproject.map(QVector3D(x, y, -1)), far = unproject.map(QVector3D(x, y, 1));
            const QVector3D world = sample % 2
                ? near + (far - near) * std::min(1.0f, scene.uniform(0, 150) / (far - near).length())
                : unproject.map(QVector3D(x, y, scene.uniform(-1, 1)));
            const QVector3D low = scene.bounds.first, high = scene.bounds.second;
            if (QVector3D(std::clamp(world.x(), low.x(), high.x()), std::clamp(world.y(), low.y(), high.y()),
                          std::clamp(world.z(), low.z(), high.z())) != world)
                continue;
            ++total;
            bool covered = false;
            for (int cascade = 0; cascade < cascades && !covered; ++cascade) {
                const QVector3D ndc = project(scene.data, cascade, world);
                // Half a texel in from the edge, where filtering still reads only this cascade.
                covered = inSquare(ndc, 1.0f / scene.data.shadowMapSize()) && ndc.z() > 0.0f && ndc.z() < 1.0f;
            }
            ASSERT_TRUE(covered) << "pose " << pose;
        }
    }
    EXPECT_GT(total, 5000);
}

TEST(ShadowMapManagerCulling, SmallCameraMovesKeepTheTexelGrid)
{
    CascadeScene scene;
    const QVector3D probes[] = {{0, 0, 0}, {13, 4, -7}, {-30, 10, 22}};
    for (int pose = 0; pose < 40; ++pose) {
        scene.randomPose();
        const int cascades = scene.fit();
        std::vector<std::vector<QVector2D>> before(cascades);
        for (int cascade = 0; cascade < cascades; ++cascade)
            for (const QVector3D& probe : probes)
                before[size_t(cascade)].push_back(scene.texel(cascade, probe));
        // The finest cascade has the smallest texels: move by less than one of them, or turn.
        const QVector3D xRow = scene.data.transforms[0].toMatrix().row(0).toVector3D();
        const float texel = 2.0f / (scene.data.shadowMapSize() * xRow.length());
        QMatrix4x4 move;
        if (pose % 2)
            move.translate(0.9f * texel
                           * QVector3D(scene.uniform(-1, 1), scene.uniform(-1, 1), scene.uniform(-1, 1)).normalized());
        else
            move.rotate(scene.uniform(-30, 30), QVector3D(scene.uniform(-1, 1), 1, scene.uniform(-1, 1)));
        scene.view = move.inverted() * scene.view;
        ASSERT_EQ(scene.fit(), cascades);
        for (int cascade = 0; cascade < cascades; ++cascade) {
            // Same texel size, shifted by whole steps of the snap grid: every probe moves by the
            // same multiples of it.
            const float snap = float(scene.data.cascadeSnap());
            const QVector2D shift = scene.texel(cascade, probes[0]) - before[size_t(cascade)][0];
            for (size_t p = 0; p < std::size(probes); ++p) {
                const QVector2D d = scene.texel(cascade, probes[p]) - before[size_t(cascade)][p];
                EXPECT_NEAR(d.x(), std::round(shift.x() / snap) * snap, 0.02f) << "pose " << pose << " cascade " << cascade;
                EXPECT_NEAR(d.y(), std::round(shift.y() / snap) * snap, 0.02f) << "pose " << pose << " cascade " << cascade;
            }
        }
    }
}
