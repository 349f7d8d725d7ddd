#include "gl/boundingbox.h"
#include "gl/camera.h"
#include "gl/drawbuffers.h"
#include "gl/gpumodel.h"
#include "gl/plane.h"
#include "support/messagecapture.h"

#include <gtest/gtest.h>

#include <cmath>

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

    // Raising a flag past the next drawable's breaks the order again.
    model.setFlags(4, 0);
    EXPECT_TRUE(model.isUnsorted());
    // addSimple files under material 0 whatever it is given.
    GPUModel simple;
    simple.addSimple(&buffers[0], 3, nullptr, nullptr, 0);
    EXPECT_EQ(simple.materials(), QList<int>{0});
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
    struct Case
    {
        QVector3D centre;
        bool inside;
    };
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
