#include "gl/drawing/boundingbox.h"
#include "gl/drawing/camera.h"
#include "gl/drawing/drawbuffers.h"
#include "gl/drawing/plane.h"
#include "gl/model/gpumodel.h"
#include "support/messagecapture.h"

#include <gtest/gtest.h>

#include <cmath>
#include <functional>

using namespace Tavren::Vyx;

namespace {

bool near(const QMatrix4x4& a, const QMatrix4x4& b)
{
    for (int i = 0; i < 16; ++i) {
        if (std::abs(a.constData()[i] - b.constData()[i]) > 1e-4f)
            return false;
    }
    return true;
}

} // namespace

TEST(GPUModel, SortingByFlagsIsStableAndKeepsIdsAndMaterialsValid)
{
    DrawBuffers buffers[5];
    GPUModel model;
    const quint64 flags[] = {5, 1, 3, 1, 9};
    const int materials[] = {7, 2, 7, 2, 2};
    for (int i = 0; i < 5; ++i)
        EXPECT_EQ(model.add(&buffers[i], materials[i], nullptr, nullptr, flags[i]), i);
    EXPECT_TRUE(model.isUnsorted());
    model.sortDrawablesByFlags();
    EXPECT_FALSE(model.isUnsorted());
    // Ties keep their order of addition.
    const int expectedOrder[] = {1, 3, 2, 0, 4};
    for (int position = 0; position < 5; ++position) {
        EXPECT_EQ(model.drawable(position).id, expectedOrder[position]);
        EXPECT_EQ(model.drawableIndex(expectedOrder[position]), position);
        EXPECT_EQ(model.drawBuffers(position), &buffers[expectedOrder[position]]);
    }
    EXPECT_EQ(model.materialDrawables(7), (QVector<int>{3, 2}));    // ids 0, 2
    EXPECT_EQ(model.materialDrawables(2), (QVector<int>{0, 1, 4})); // ids 1, 3, 4

    // addSimple files under material 0 whatever it is given.
    GPUModel simple;
    simple.addSimple(&buffers[0], 3, nullptr, nullptr, 0);
    EXPECT_EQ(simple.materials(), QList<int>{0});
}

// Only add() marks the model unsorted: drawables whose flags are edited afterwards keep their
// place, unless a later add() asks for a sort anyway.
TEST(GPUModel, FlagEditsLeaveTheOrderToAdd)
{
    struct Case { const char* edit; std::function<void(GPUModel&, DrawBuffers*)> apply; };
    const Case cases[] = {
        {"set", [](GPUModel& m, DrawBuffers* b) { m.set(0, b, nullptr, nullptr, 9, ~quint64(0)); }},
        {"setFlags", [](GPUModel& m, DrawBuffers*) { m.setFlags(9, 0); }},
        {"addFlags", [](GPUModel& m, DrawBuffers*) { m.addFlags(8, 0); }},
        {"removeFlags", [](GPUModel& m, DrawBuffers*) { m.removeFlags(2, 1); }},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.edit);
        DrawBuffers buffers[4];
        GPUModel model;
        for (quint64 flags : {1, 2, 3})
            model.add(&buffers[flags - 1], 0, nullptr, nullptr, flags);
        c.apply(model, &buffers[0]);
        EXPECT_FALSE(model.isUnsorted());
        model.sortDrawablesByFlags();
        for (int position = 0; position < 3; ++position)
            EXPECT_EQ(model.drawable(position).id, position);

        model.add(&buffers[3], 0, nullptr, nullptr, 0);
        EXPECT_TRUE(model.isUnsorted());
        model.sortDrawablesByFlags();
        for (int position = 1; position < 4; ++position)
            EXPECT_LE(model.getFlags(position - 1), model.getFlags(position));
    }
}

// A clean transform under a dirty ancestor is stale: asking for any world matrix brings its
// chain up to date, and leaves nothing behind for updateTransforms() to miss.
TEST(GPUModel, WorldTransformsAreFreshWhicheverIsAskedFirst)
{
    const auto translation = [](float x, float y) {
        QMatrix4x4 m;
        m.translate(x, y, 0);
        return m;
    };
    const auto expectedWorld = [](const GPUModel& model, int t) {
        QMatrix4x4 world;
        for (; t >= 0; t = model.transformParent(t))
            world = model.localTransform(t) * world;
        return world;
    };
    enum { eRoot, eChild, eSibling, eGrandchild, eCount };
    for (int asked = eRoot; asked < eCount; ++asked) {
        SCOPED_TRACE(asked);
        GPUModel model;
        const int root = model.addTransform(-1, translation(1, 0));
        const int child = model.addTransform(root, translation(0, 0));
        model.addTransform(root, translation(2, 2)); // sibling
        model.addTransform(child, translation(0, 1)); // grandchild
        model.updateTransforms();

        model.setLocalTransform(root, translation(0, 3));
        EXPECT_TRUE(model.isTransformDirty(child));
        EXPECT_TRUE(near(model.worldTransform(asked), expectedWorld(model, asked)));
        for (int t = eRoot; t < eCount; ++t)
            EXPECT_TRUE(near(model.worldTransform(t), expectedWorld(model, t))) << "transform " << t;
        model.updateTransforms();
        for (int t = eRoot; t < eCount; ++t) {
            EXPECT_FALSE(model.isTransformDirty(t)) << "transform " << t;
            EXPECT_TRUE(near(model.worldTransform(t), expectedWorld(model, t))) << "transform " << t;
        }
    }
}

TEST(GPUModel, TransformHierarchyKeepsItsOperandOrderAndRefusesCycles)
{
    GPUModel model;
    QMatrix4x4 parentLocal;
    parentLocal.rotate(90, 0, 0, 1);
    parentLocal.translate(2, 0, 0);
    const int root = model.addTransform(-1, parentLocal);
    const int child = model.addTransform(root, QMatrix4x4());
    const int grandchild = model.addTransform(child, QMatrix4x4());
    EXPECT_TRUE(model.updateTransforms());
    EXPECT_FALSE(model.updateTransforms());

    QMatrix4x4 m;
    m.translate(0, 5, 0);
    model.setWorldTransform(child, m);
    EXPECT_TRUE(model.isTransformDirty(grandchild));
    EXPECT_TRUE(model.updateTransforms());
    const QMatrix4x4 p = model.worldTransform(root);
    EXPECT_TRUE(near(model.worldTransform(child), p * m * p.inverted()));
    EXPECT_FALSE(near(model.worldTransform(child), m)) << "P and m do not commute here";
    EXPECT_TRUE(near(model.worldTransform(grandchild), model.worldTransform(child)));

    VyxTest::MessageCapture capture;
    EXPECT_FALSE(model.setTransformParent(root, grandchild));
    EXPECT_EQ(capture.texts(QtCriticalMsg).size(), 1);
    EXPECT_TRUE(model.isDescendant(grandchild, root));
    EXPECT_FALSE(model.isDescendant(root, grandchild));

    model.setVisibility(root, 3);
    EXPECT_TRUE(model.isParentHidden(grandchild));
    EXPECT_TRUE(model.isVisible(child));
    model.setVisibility(root, 2);
    EXPECT_FALSE(model.isParentHidden(grandchild));

    QMatrix4x4 mirror;
    mirror.scale(1, -1, 1);
    model.setLocalTransform(grandchild, mirror);
    model.updateTransforms();
    EXPECT_TRUE(model.isTransformMirrored(grandchild));
    EXPECT_FALSE(model.isTransformMirrored(child));
}

TEST(GPUModel, BoxesFrustaAndCamerasAgree)
{
    const BoundingBox unit(QVector3D(-1, -1, -1), QVector3D(1, 1, 1));
    QMatrix4x4 turn;
    turn.rotate(45, 0, 0, 1);
    const BoundingBox turned = unit.transformed(turn);
    EXPECT_NEAR(turned.maximum().x(), std::sqrt(2.0f), 1e-5f) << "the box around the turned corners";
    EXPECT_EQ(BoundingBox().united(unit), unit);
    EXPECT_TRUE(BoundingBox().transformed(turn).isEmpty());
    EXPECT_EQ(BoundingBox(QVector3D(2, 0, 0), QVector3D(0, 2, 2)).center(), QVector3D(1, 1, 1));

    Camera camera;
    camera.setNearFar(1, 10);
    camera.setFieldOfView(90);
    camera.lookAt(QVector3D(0, 0, 5), QVector3D(), QVector3D(0, 1, 0));
    const Frustum frustum(camera.projectionMatrix(1.0f) * camera.viewMatrix());
    struct Case { QVector3D centre; bool inside; };
    const Case cases[] = {
        {QVector3D(0, 0, 0), true},      {QVector3D(0, 0, 8), false},   // behind the eye
        {QVector3D(0, 0, -9), false},    {QVector3D(0, 0, -5.5f), true}, // past far / straddling it
        {QVector3D(5.5f, 0, 0), true},   {QVector3D(8, 0, 0), false},   // straddling / beyond the side
    };
    for (const Case& c : cases)
        EXPECT_EQ(frustum.intersects(BoundingBox(c.centre - QVector3D(1, 1, 1), c.centre + QVector3D(1, 1, 1))),
                  c.inside)
            << c.centre.x() << " " << c.centre.y() << " " << c.centre.z();
    EXPECT_FALSE(frustum.intersects(BoundingBox()));

    camera.setProjectionType(Camera::eOrthographic);
    camera.setOrthographicHeight(4);
    const QVector3D corner = camera.projectionMatrix(2.0f).inverted().map(QVector3D(1, 1, -1));
    EXPECT_NEAR(corner.x(), 4, 1e-5f);
    EXPECT_NEAR(corner.y(), 2, 1e-5f);

    VyxTest::MessageCapture capture;
    EXPECT_TRUE(camera.projectionMatrix(0.0f).isIdentity());
    EXPECT_EQ(capture.texts(QtCriticalMsg).size(), 1);

    GPUModel model;
    const int index = model.addCamera(camera, "Top");
    EXPECT_EQ(model.getCameraIndex("Top"), index);
    EXPECT_EQ(model.getCameraIndex("Side"), GPUModel::kInvalidCameraIndex);
    QMatrix4x4 lift;
    lift.translate(0, 3, 0);
    model.setCameraTransform(index, model.addTransform(-1, lift));
    EXPECT_TRUE(near(model.getCameraWorldSpaceMatrix(index), lift * camera.worldMatrix()));
}

// Culling keeps per-transform verdicts and world-space boxes between frames; whatever is edited,
// a cull must agree with the verdicts recomputed from the public state. Zero scale culls by the
// world matrix's first three rows, translation included: a leaf flattened along x but moved
// along it keeps a row and is drawn (as nothing).
TEST(GPUModel, CullingFollowsEveryEditOfTransformsVisibilityAndBoxes)
{
    constexpr int kCommands = 40;
    std::vector<DrawElementsIndirectCommand> commands(kCommands, DrawElementsIndirectCommand{3, 1, 0, 0, 0});
    DrawBuffers buffers[2];
    GPUModel model;
    const BoundingBox boxes[] = {BoundingBox(QVector3D(-0.1f, -0.1f, 0), QVector3D(0.1f, 0.1f, 0)),
                                 BoundingBox(QVector3D(0, 0, 0), QVector3D(0.5f, 0.2f, 0)), BoundingBox()};
    model.loadBoundingBoxes(boxes, 3);
    const int root = model.addTransform(-1, QMatrix4x4());
    const int groups[] = {model.addTransform(root, QMatrix4x4()), model.addTransform(root, QMatrix4x4())};
    std::vector<int> leaves;
    for (int k = 0; k < 2; ++k) {
        buffers[k].setDrawElementsIndirectCommands(commands.data(), kCommands);
        const int id = model.add(&buffers[k], k, nullptr, nullptr, 0);
        for (int c = 0; c < kCommands; ++c) {
            QMatrix4x4 local;
            local.translate(float(c % 8) / 4 - 1, float(c / 8) / 3 - 1);
            leaves.push_back(model.addTransform(groups[c % 2], local));
            model.useTransform(id, c, leaves.back());
            model.useBoundingBox(id, c, c % 5 == 4 ? -1 : 0);
        }
    }
    quint32 seed = 7;
    const auto next = [&seed](int range) {
        seed = seed * 1664525u + 1013904223u;
        return int((seed >> 8) % quint32(range));
    };
    for (int step = 0; step < 600; ++step) {
        SCOPED_TRACE(step);
        const int leaf = leaves[size_t(next(int(leaves.size())))];
        switch (next(6)) {
        case 0: {
            QMatrix4x4 local;
            local.translate(float(next(96)) / 8 - 6, float(next(96)) / 8 - 6);
            local.scale(next(8) == 0 ? 0.0f : 1.0f, 1, 1);
            model.setLocalTransform(leaf, local);
            break;
        }
        case 1: model.setVisibility(next(3) == 0 ? groups[next(2)] : leaf, next(4)); break;
        case 2: model.setTransformParent(leaf, next(3) == 0 ? root : groups[next(2)]); break;
        case 3: model.useBoundingBox(next(2), next(kCommands), next(4) - 1); break;
        case 4: model.useTransform(next(2), next(kCommands), next(10) == 0 ? -1 : leaf); break;
        default: {
            QMatrix4x4 local;
            local.translate(float(next(5)) / 4 - 0.5f, 0);
            model.setLocalTransform(groups[next(2)], local);
        }
        }
        model.updateTransforms();
        model.resetCulling();
        model.visibilityCull();
        // Around everything, beside everything, or through the middle.
        const float x[][2] = {{-3.5f, 3.5f}, {5, 7}, {-1, 0.5f}};
        const int window = next(3);
        QMatrix4x4 view;
        view.ortho(x[window][0], x[window][1], -3.5f, 3.5f, -1, 1);
        model.frustumCull(view);
        const Frustum frustum(view);
        for (int k = 0; k < 2; ++k) {
            for (int c = 0; c < kCommands; ++c) {
                const int t = model.drawable(k).transformRefs[c];
                const int box = model.drawable(k).boundingBoxRefs[c];
                bool expected = !model.isValidTransform(t) || !model.isVisible(t) || model.isParentHidden(t);
                const QMatrix4x4 world = model.worldTransform(expected ? root : t);
                for (int i = 0; i < 3; ++i)
                    expected = expected || world.row(i).lengthSquared() < 1e-6f;
                if (!expected && model.isValidBoundingBox(box))
                    expected = !frustum.intersects(model.getBoundingBox(box).transformed(world));
                ASSERT_EQ(model.isCommandCulled(k, c), expected) << "drawable " << k << " command " << c;
            }
        }
    }
}
