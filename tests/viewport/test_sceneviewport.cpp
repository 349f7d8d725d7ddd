#include "gl/model/gpumodel.h"
#include "render/scenerenderer.h"
#include "viewport/orbitcameracontroller.h"
#include "viewport/sceneviewport.h"

#include <gtest/gtest.h>

#include <QApplication>
#include <QFile>
#include <QHBoxLayout>
#include <QMouseEvent>
#include <QTemporaryDir>
#include <QWheelEvent>

#include <algorithm>
#include <cstdlib>

using namespace Tavren::Vyx;

namespace {

QString testData(const QString& relative)
{
    return QStringLiteral(VYX_TEST_DATA_DIR "/") + relative;
}

const QString kBox = QStringLiteral("gltf/Box/glTF-Binary/Box.glb");

struct Difference
{
    int largest = 0;
    double mean = 0;
};

Difference compare(const QImage& a, const QImage& b)
{
    Difference d;
    if (a.size() != b.size() || a.isNull())
        return {255, 255};
    const QImage x = a.convertToFormat(QImage::Format_RGB32), y = b.convertToFormat(QImage::Format_RGB32);
    qint64 sum = 0;
    for (int row = 0; row < x.height(); ++row) {
        const auto* p = reinterpret_cast<const QRgb*>(x.constScanLine(row));
        const auto* q = reinterpret_cast<const QRgb*>(y.constScanLine(row));
        for (int column = 0; column < x.width(); ++column) {
            for (int c : {std::abs(qRed(p[column]) - qRed(q[column])), std::abs(qGreen(p[column]) - qGreen(q[column])),
                          std::abs(qBlue(p[column]) - qBlue(q[column]))}) {
                d.largest = std::max(d.largest, c);
                sum += c;
            }
        }
    }
    d.mean = double(sum) / (3.0 * x.width() * x.height());
    return d;
}

void sendMouse(QWidget* widget, QEvent::Type type, const QPoint& at, Qt::MouseButton button, Qt::MouseButtons held)
{
    QMouseEvent event(type, QPointF(at), QPointF(widget->mapToGlobal(at)), button, held, Qt::NoModifier);
    QCoreApplication::sendEvent(widget, &event);
}

class SceneViewportTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        if (qEnvironmentVariableIsEmpty("DISPLAY"))
            GTEST_SKIP() << "needs an X server (ctest runs this under xvfb-run)";
        viewport = std::make_unique<SceneViewport>();
        viewport->resize(96, 64);
        viewport->show();
        // The context is made at the first grab or expose, whichever comes first.
        viewport->grabFramebuffer();
        ASSERT_TRUE(viewport->isValid());
        ASSERT_TRUE(viewport->loadScene(testData(kBox))) << viewport->errorString().toStdString();
    }
    void TearDown() override { viewport.reset(); }

    std::unique_ptr<SceneViewport> viewport;
};

} // namespace

TEST_F(SceneViewportTest, DraggingOrbitsAndDrawsCheaplyUntilRelease)
{
    const QImage before = viewport->grabFramebuffer();
    const QMatrix4x4 camera = viewport->cameraController()->camera().worldMatrix();
    sendMouse(viewport.get(), QEvent::MouseButtonPress, QPoint(48, 32), Qt::LeftButton, Qt::LeftButton);
    sendMouse(viewport.get(), QEvent::MouseMove, QPoint(78, 40), Qt::NoButton, Qt::LeftButton);
    EXPECT_TRUE(viewport->isInteractive());
    const QImage dragging = viewport->grabFramebuffer();
    sendMouse(viewport.get(), QEvent::MouseButtonRelease, QPoint(78, 40), Qt::LeftButton, Qt::NoButton);
    EXPECT_FALSE(viewport->isInteractive());
    EXPECT_FALSE(qFuzzyCompare(camera, viewport->cameraController()->camera().worldMatrix()));
    const QImage after = viewport->grabFramebuffer();
    EXPECT_GT(compare(before, after).mean, 2.0);
    // The same camera in the cheap and the full picture: close, but not the same pixels.
    const Difference quality = compare(dragging, after);
    EXPECT_GT(quality.largest, 0);
    EXPECT_LT(quality.mean, 4.0);
    // A drag is no click: nothing was selected.
    EXPECT_FALSE(viewport->selection().hit);
}

TEST_F(SceneViewportTest, WheelDolliesAndChangesThePicture)
{
    const QImage before = viewport->grabFramebuffer();
    const float distance = viewport->cameraController()->distance();
    const QPoint centre(48, 32);
    QWheelEvent wheel(QPointF(centre), QPointF(viewport->mapToGlobal(centre)), QPoint(), QPoint(0, 240), Qt::NoButton,
                      Qt::NoModifier, Qt::NoScrollPhase, false);
    QCoreApplication::sendEvent(viewport.get(), &wheel);
    EXPECT_LT(viewport->cameraController()->distance(), distance * 0.8f);
    EXPECT_TRUE(viewport->isInteractive());
    viewport->setInteractive(false);
    EXPECT_GT(compare(before, viewport->grabFramebuffer()).mean, 2.0);
}

TEST_F(SceneViewportTest, PicksTheBoxAndNothingInTheSkyAndTintsTheSelection)
{
    const ViewportPick box = viewport->pick(QPoint(48, 32));
    ASSERT_TRUE(box.hit);
    EXPECT_EQ(box.node, QStringLiteral("node1"));
    EXPECT_EQ(box.mesh, QStringLiteral("Mesh"));
    EXPECT_EQ(box.material, QStringLiteral("Red"));
    EXPECT_EQ(box.command, 0);
    EXPECT_GT(box.depth, 0.0f);
    EXPECT_LT(box.depth, 1.0f);
    for (const QPoint sky : {QPoint(1, 1), QPoint(94, 62)})
        EXPECT_FALSE(viewport->pick(sky).hit) << sky.x() << "," << sky.y();
    EXPECT_FALSE(viewport->pick(QPoint(-5, 200)).hit);

    const QImage plain = viewport->grabFramebuffer();
    // A click selects what is under it; the selection is tinted, the sky left alone.
    sendMouse(viewport.get(), QEvent::MouseButtonPress, QPoint(48, 32), Qt::LeftButton, Qt::LeftButton);
    sendMouse(viewport.get(), QEvent::MouseButtonRelease, QPoint(48, 32), Qt::LeftButton, Qt::NoButton);
    ASSERT_TRUE(viewport->selection().hit);
    const QImage tinted = viewport->grabFramebuffer();
    EXPECT_NE(plain.pixel(48, 32), tinted.pixel(48, 32));
    EXPECT_EQ(plain.pixel(1, 1), tinted.pixel(1, 1));
    EXPECT_TRUE(viewport->frameSelection());
}

TEST_F(SceneViewportTest, RestingFrameIsTheRenderersPicture)
{
    const QImage shown = viewport->grabFramebuffer();
    viewport->makeCurrent();
    SceneRenderer renderer;
    const QImage reference =
        renderer.renderToImage(*viewport->model(), viewport->cameraController()->camera(), shown.size());
    viewport->doneCurrent();
    const Difference d = compare(shown, reference);
    EXPECT_LE(d.largest, 2);
    EXPECT_LT(d.mean, 0.05);
}

TEST_F(SceneViewportTest, AFailedLoadKeepsThePreviousScene)
{
    QTemporaryDir dir;
    QFile broken(dir.filePath(QStringLiteral("broken.glb")));
    ASSERT_TRUE(broken.open(QIODevice::WriteOnly));
    broken.write(QByteArray("glTF\x02\0\0\0\xff\xff\0\0", 12));
    broken.close();
    const QImage before = viewport->grabFramebuffer();
    const int drawables = viewport->model()->numDrawables();
    for (const QString& path : {broken.fileName(), dir.filePath(QStringLiteral("missing.glb"))}) {
        EXPECT_FALSE(viewport->loadScene(path));
        EXPECT_FALSE(viewport->errorString().isEmpty());
        EXPECT_EQ(viewport->scenePath(), testData(kBox));
        EXPECT_EQ(viewport->model()->numDrawables(), drawables);
    }
    EXPECT_EQ(compare(before, viewport->grabFramebuffer()).largest, 0);
    EXPECT_TRUE(viewport->reload());
    EXPECT_TRUE(viewport->pick(QPoint(48, 32)).hit);
}

// Two viewports of one window share the textures and each keeps its own vertex arrays: both
// draw the textured Duck alike, and the one left after the other goes still draws it as before.
TEST(SceneViewportPair, BothDrawAndOneOutlivesTheOther)
{
    if (qEnvironmentVariableIsEmpty("DISPLAY"))
        GTEST_SKIP() << "needs an X server (ctest runs this under xvfb-run)";
    QWidget window;
    auto* layout = new QHBoxLayout(&window);
    auto* first = new SceneViewport;
    auto* second = new SceneViewport;
    for (SceneViewport* viewport : {first, second}) {
        viewport->setFixedSize(96, 64);
        layout->addWidget(viewport);
    }
    window.show();
    for (SceneViewport* viewport : {first, second}) {
        viewport->grabFramebuffer();
        ASSERT_TRUE(viewport->loadScene(testData(QStringLiteral("gltf/Duck/glTF-Binary/Duck.glb"))))
            << viewport->errorString().toStdString();
    }
    const QImage left = first->grabFramebuffer(), right = second->grabFramebuffer();
    EXPECT_LE(compare(left, right).largest, 2);
    EXPECT_TRUE(second->pick(QPoint(48, 32)).hit);
    delete first;
    EXPECT_LE(compare(second->grabFramebuffer(), right).largest, 2);
    EXPECT_TRUE(second->pick(QPoint(48, 32)).hit);
}
