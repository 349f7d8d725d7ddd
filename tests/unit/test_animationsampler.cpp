#include "scene/animationsampler.h"
#include "scene/gltfscenereader.h"

#include "support/qtprinters.h"
#include "support/testenvironment.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <limits>

using namespace Tavren::Vyx;

namespace {

using Animation = SceneData::Animation;

// Two nodes; node 0 rests at translation (5, 6, 7), scale 2.
SceneData sceneWith(const Animation& animation)
{
    SceneData scene;
    scene.nodes.resize(2);
    scene.nodes[0].translation = {5, 6, 7};
    scene.nodes[0].scale = {2, 2, 2};
    scene.animations.push_back(animation);
    return scene;
}

Animation oneChannel(const char* path, const char* interpolation, std::vector<float> times, std::vector<float> values)
{
    const int components = QString(path) == "rotation" ? 4 : QString(path) == "weights" ? 1 : 3;
    return {"", {{std::move(times), std::move(values), components, interpolation}}, {{0, 0, path}}};
}

// The sampled property of a node as x, y, z(, w), or its weights.
std::vector<float> property(const AnimationPose& pose, const QString& path, int index = 0)
{
    const AnimationPose::Node& node = pose.nodes[size_t(index)];
    if (path == "rotation")
        return {node.rotation.x(), node.rotation.y(), node.rotation.z(), node.rotation.scalar()};
    if (path == "weights")
        return {pose.weightsOf(index), pose.weightsOf(index) + node.weightCount};
    const QVector3D v = path == "translation" ? node.translation : node.scale;
    return {v.x(), v.y(), v.z()};
}

const float kInfinity = std::numeric_limits<float>::infinity();
const float kSin45 = std::sqrt(0.5f), kSin22 = 0.38268343f, kCos22 = 0.92387953f;

TEST(AnimationSampler, InterpolatesAndClampsEachMode)
{
    struct Case
    {
        const char* name;
        const char* path;
        const char* interpolation;
        std::vector<float> times, values;
        float time;
        std::vector<float> expected;
    };
    const std::vector<float> line{0, 0, 0, 2, 4, -6};
    // Cubic keys: in-tangent, value, out-tangent. Over 2 s at the midpoint the Hermite weights
    // are 0.5 and 0.5 for the values, 0.25 for the first out-tangent, -0.25 for the second in-tangent.
    const std::vector<float> cubic{9, 9, 9, 0, 2, 0, 1, 0, 0, /**/ 0, -3, 0, 1, 2, 0, 9, 9, 9};
    const std::vector<float> quarterTurn{0, 0, 0, 1, 0, kSin45, 0, kSin45};
    const std::vector<float> halfwayTurn{0, kSin22, 0, kCos22};
    const Case cases[] = {
        {"linear", "translation", "LINEAR", {1, 3}, line, 2.5f, {1.5f, 3, -4.5f}},
        {"unnamed is linear", "scale", "", {1, 3}, line, 2, {1, 2, -3}},
        {"before the first key", "translation", "LINEAR", {1, 3}, line, 0, {0, 0, 0}},
        {"after the last key", "translation", "LINEAR", {1, 3}, line, 10, {2, 4, -6}},
        {"step holds", "translation", "STEP", {1, 3}, line, 2.9f, {0, 0, 0}},
        {"step at a key", "translation", "STEP", {1, 3}, line, 3, {2, 4, -6}},
        {"slerp midway through a quarter turn", "rotation", "LINEAR", {0, 1}, quarterTurn, 0.5f, halfwayTurn},
        {"slerp takes the shorter arc", "rotation", "LINEAR", {0, 1}, {0, 0, 0, 1, 0, -kSin45, 0, -kSin45}, 0.5f, halfwayTurn},
        {"cubic", "translation", "CUBICSPLINE", {0, 2}, cubic, 1, {0.75f, 2.75f, 0}},
        {"cubic after the last key", "translation", "CUBICSPLINE", {0, 2}, cubic, 5, {1, 2, 0}},
        {"cubic rotation is normalised", "rotation", "CUBICSPLINE", {0, 2},
         {0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0, 0, /**/ 0, 0, 0, 0, 0, kSin45, 0, kSin45, 0, 0, 0, 0}, 1, halfwayTurn},
        {"weights", "weights", "LINEAR", {0, 1}, {0, 1, 1, 0}, 0.25f, {0.25f, 0.75f}},
    };
    for (const Case& c : cases) {
        const SceneData scene = sceneWith(oneChannel(c.path, c.interpolation, c.times, c.values));
        AnimationSampler sampler(scene, 0);
        ASSERT_EQ(sampler.channelCount(), 1) << c.name << ": " << sampler.warnings().join(", ").toStdString();
        AnimationPose pose = sampler.makePose();
        EXPECT_EQ(sampler.sample(c.time, pose), std::vector<int>{0}) << c.name;
        const std::vector<float> actual = property(pose, c.path);
        ASSERT_EQ(actual.size(), c.expected.size()) << c.name;
        for (size_t i = 0; i < actual.size(); ++i)
            EXPECT_NEAR(actual[i], c.expected[i], 1e-5f) << c.name << " [" << i << "]";
    }
}

TEST(AnimationSampler, KeepsRestValuesOfWhatNoChannelDrives)
{
    SceneData scene = sceneWith(oneChannel("rotation", "LINEAR", {0, 1}, {0, 0, 0, 1, 0, 0, 0, 1}));
    AnimationSampler sampler(scene, 0);
    AnimationPose pose = sampler.makePose();
    sampler.sample(0.5f, pose);
    EXPECT_EQ(pose.nodes[0].translation, QVector3D(5, 6, 7));
    EXPECT_EQ(pose.nodes[0].scale, QVector3D(2, 2, 2));
    EXPECT_EQ(pose.nodes[1].scale, QVector3D(1, 1, 1));
    EXPECT_EQ(sampler.animatedNodes(), std::vector<int>{0});
    AnimationPose foreign; // not made by this sampler: left alone
    EXPECT_TRUE(sampler.sample(0.5f, foreign).empty());
}

// The remembered interval, and the one after it read ahead, must not leak into a jump backwards,
// a skip of several keys, a return from outside the keys or a step onto a key time. All channels
// play in one animation, each on a node of its own, so that those sharing key times share their
// layout too, beside one whose keys are as many but later.
TEST(AnimationSampler, FindsTheKeyInAnyOrderOfTimes)
{
    // Ten keys a second apart; key k is a translation of k * k along x, a weight of k * k, and a
    // turn of k * 30 degrees about y, so that neighbouring keys are apart enough for slerp's turn
    // in a plane. Weights are played from the keys, the rest from prepared intervals.
    std::vector<float> times, laterTimes, translations, rotations, weights;
    for (int k = 0; k < 10; ++k) {
        times.push_back(float(k));
        laterTimes.push_back(float(k) + 0.5f);
        weights.push_back(float(k * k));
        translations.insert(translations.end(), {float(k * k), 0, 0});
        const QQuaternion q = QQuaternion::fromAxisAndAngle(0, 1, 0, float(k * 30));
        rotations.insert(rotations.end(), {q.x(), q.y(), q.z(), q.scalar()});
    }
    struct Case
    {
        const char* path;
        const char* interpolation;
        const std::vector<float>& values;
        // The value a fraction of the way from key `key` to the next; a step holds the key before.
        std::function<std::vector<float>(int key, float fraction)> expected;
    };
    const auto turn = [&](int key, float fraction) {
        const QQuaternion q = QQuaternion::fromAxisAndAngle(0, 1, 0, (float(key) + fraction) * 30);
        return std::vector<float>{q.x(), q.y(), q.z(), q.scalar()};
    };
    const auto square = [](int key) { return float(key * key); };
    const auto linear = [&](int k, float s) { return std::vector<float>{square(k) + s * float(2 * k + 1), 0, 0}; };
    const Case cases[] = {
        {"translation", "LINEAR", translations, linear},
        {"translation", "STEP", translations, [&](int k, float s) { return std::vector<float>{square(k + (s >= 1)), 0, 0}; }},
        {"weights", "LINEAR", weights, [&](int k, float s) { return std::vector<float>{square(k) + s * float(2 * k + 1)}; }},
        {"rotation", "LINEAR", rotations, turn},
        {"rotation", "STEP", rotations, [&](int k, float s) { return turn(k + (s >= 1), 0); }},
        {"translation", "LINEAR", translations, linear}, // played half a second later
    };
    const int later = 5;
    SceneData scene;
    Animation& animation = scene.animations.emplace_back();
    for (const Case& c : cases) {
        const int n = int(scene.nodes.size());
        scene.nodes.emplace_back();
        const Animation one = oneChannel(c.path, c.interpolation, n == later ? laterTimes : times, c.values);
        animation.samplers.push_back(one.samplers[0]);
        animation.channels.push_back({n, n, one.channels[0].path});
    }
    AnimationSampler sampler(scene, 0);
    ASSERT_EQ(sampler.channelCount(), int(std::size(cases))) << sampler.warnings().join(", ").toStdString();
    AnimationPose pose = sampler.makePose();
    const float sequence[] = {0.5f, 1.0f, 1.5f, 2.0f, 2.25f, 3.0f, 7.5f, 3.5f, 0.25f, 8.75f, 9.0f, 20.0f, kInfinity, 8.5f, -1.0f, 0.75f, 1.25f};
    for (float t : sequence) {
        sampler.sample(t, pose);
        for (int n = 0; n < int(std::size(cases)); ++n) {
            const Case& c = cases[n];
            const float at = n == later ? t - 0.5f : t;
            const float clamped = std::clamp(at, 0.0f, 9.0f), k = std::min(std::floor(clamped), 8.0f);
            const std::vector<float> expected = c.expected(int(k), clamped - k), actual = property(pose, c.path, n);
            for (size_t i = 0; i < expected.size(); ++i)
                EXPECT_NEAR(actual[i], expected[i], 1e-4f) << c.path << " " << c.interpolation << " on node " << n << " at " << t << " [" << i << "]";
        }
    }
}

TEST(AnimationSampler, WarnsOfAndIgnoresChannelsItCannotPlay)
{
    struct Case
    {
        const char* warning;
        std::function<void(Animation&)> spoil; // of a second sampler and channel, on node 1
    };
    const Case cases[] = {
        {"sampler 7 does not exist", [](Animation& a) { a.channels[1].sampler = 7; }},
        {"node 9 does not exist", [](Animation& a) { a.channels[1].node = 9; }},
        {"node -1 does not exist", [](Animation& a) { a.channels[1].node = -1; }},
        {"unknown path \"skew\"", [](Animation& a) { a.channels[1].path = "skew"; }},
        {"unknown interpolation \"QUADRATIC\"", [](Animation& a) { a.samplers[1].interpolation = "QUADRATIC"; }},
        {"do not strictly increase at key 1", [](Animation& a) { a.samplers[1].input = {1, 1}; }},
        {"do not strictly increase at key 1", [](Animation& a) { a.samplers[1].input = {1, 0}; }},
        {"has 0 keys", [](Animation& a) { a.samplers[1].input.clear(); }},
        {"gives 5 floats in groups of 3 where 2 translation keys need 6",
         [](Animation& a) { a.samplers[1].output.resize(5); }},
        {"where 2 cubic spline translation keys need 18",
         [](Animation& a) { a.samplers[1].interpolation = "CUBICSPLINE"; }},
        {"not a whole number of weights",
         [](Animation& a) { a.channels[1].path = "weights", a.samplers[1].outputComponents = 1, a.samplers[1].output.resize(5); }},
        {"node 0 already has a translation channel", [](Animation& a) { a.channels[1].node = 0; }},
        {"placed by a matrix", [](Animation&) {}},
    };
    for (const Case& c : cases) {
        Animation animation = oneChannel("translation", "LINEAR", {0, 1}, {0, 0, 0, 1, 1, 1});
        animation.samplers.push_back(animation.samplers[0]);
        animation.channels.push_back({1, 1, "translation"});
        c.spoil(animation);
        SceneData scene = sceneWith(animation);
        scene.nodes[1].hasMatrix = QString(c.warning) == "placed by a matrix";
        AnimationSampler sampler(scene, 0);
        ASSERT_EQ(sampler.warnings().size(), 1) << c.warning << ": " << sampler.warnings().join(", ").toStdString();
        EXPECT_TRUE(sampler.warnings()[0].contains(c.warning)) << sampler.warnings()[0].toStdString();
        EXPECT_EQ(sampler.channelCount(), 1) << c.warning;
        AnimationPose pose = sampler.makePose();
        EXPECT_EQ(sampler.sample(0.5f, pose), std::vector<int>{0}) << c.warning;
        EXPECT_EQ(pose.nodes[0].translation, QVector3D(0.5f, 0.5f, 0.5f)) << c.warning;
    }
    const SceneData empty;
    EXPECT_EQ(AnimationSampler(empty, 0).warnings(), QStringList{"Animation 0 does not exist"});
}

TEST(AnimationSampler, PlaysTheFoxThroughDifferentPoses)
{
    GLTFSceneReader reader;
    const auto scene = reader.read(VyxTest::testDataPath("gltf/Fox/glTF-Binary/Fox.glb"));
    ASSERT_TRUE(scene) << reader.errorString().toStdString();
    AnimationSampler sampler(*scene, 0);
    EXPECT_TRUE(sampler.warnings().isEmpty());
    EXPECT_EQ(sampler.channelCount(), 21);
    EXPECT_NEAR(sampler.duration(), 3.4166667f, 1e-5f);
    std::vector<AnimationPose> poses;
    for (float t : {0.0f, 1.0f, 2.0f}) {
        poses.push_back(sampler.makePose());
        ASSERT_EQ(sampler.sample(t, poses.back()), sampler.animatedNodes());
    }
    const auto difference = [&](const AnimationPose& a, const AnimationPose& b) {
        float largest = 0;
        for (int n : sampler.animatedNodes()) {
            EXPECT_NEAR(a.nodes[size_t(n)].rotation.length(), 1.0f, 1e-5f);
            largest = std::max(largest, 1 - std::abs(QQuaternion::dotProduct(a.nodes[size_t(n)].rotation, b.nodes[size_t(n)].rotation)));
        }
        return largest;
    };
    EXPECT_GT(difference(poses[0], poses[1]), 1e-3f);
    EXPECT_GT(difference(poses[1], poses[2]), 1e-3f);
    EXPECT_GT(difference(poses[0], poses[2]), 1e-3f);
}

} // namespace
