#include "gl/drawing/camera.h"
#include "gl/glloader.h"
#include "gl/model/gpumodel.h"
#include "gl/textures/samplertexturemanager.h"
#include "render/demoscene.h"
#include "render/gltfimporter.h"
#include "render/scenerenderer.h"
#include "support/callrecorder.h"
#include "support/glhelpers.h"
#include "support/messagecapture.h"
#include "support/scenetest.h"
#include "support/testenvironment.h"

#include <QBuffer>
#include <QDir>
#include <QFileInfo>

#include <algorithm>
#include <cmath>

using namespace Tavren::Vyx;
using VyxTest::CallRecorder;
using VyxTest::MessageCapture;

namespace {

const QSize kSize(160, 90);
const QString kModels = QStringLiteral("/usr/share/assimp/models/glTF2");

class SceneRenderTest : public VyxTest::SceneTest
{
protected:
    QImage render(const Camera* chosen = nullptr)
    {
        renderer->setSamples(1);
        renderer->setShadowMapSize(512);
        return renderer->renderToImage(model, chosen ? *chosen : fileCamera(), kSize);
    }

    // Where a world point lands in the image (top row first).
    QPoint pixelOf(const QVector3D& world)
    {
        const QVector3D ndc = (model.getCameraProjectionMatrix(0, float(kSize.width()) / kSize.height()) *
                               model.getCameraWorldSpaceMatrix(0).inverted())
                                  .map(world);
        return QPoint(int((ndc.x() + 1) * 0.5f * kSize.width()), int((1 - ndc.y()) * 0.5f * kSize.height()));
    }
};

// A one-triangle scene with the faults a case asks for, as glTF JSON with an embedded buffer.
QByteArray triangleScene(int accessorCount, quint16 lastIndex, const QString& imageUri)
{
    const float positions[] = {0, 0, 0, 1, 0, 0, 0, 1, 0};
    const quint16 indices[] = {0, 1, lastIndex, 0};
    const QByteArray bin = QByteArray(reinterpret_cast<const char*>(positions), sizeof(positions)) +
                           QByteArray(reinterpret_cast<const char*>(indices), sizeof(indices));
    return QStringLiteral(R"({"asset": {"version": "2.0"}, "scenes": [{"nodes": [0]}], "nodes": [{"mesh": 0}],
 "meshes": [{"primitives": [{"attributes": {"POSITION": 0}, "indices": 1, "material": 0}]}],
 "materials": [{"pbrMetallicRoughness": {"baseColorTexture": {"index": 0}}}], "textures": [{"source": 0, "sampler": 0}],
 "samplers": [{"magFilter": 9728, "minFilter": 9728, "wrapS": 33071, "wrapT": 33648}], "images": [{"uri": "%3"}],
 "accessors": [{"bufferView": 0, "componentType": 5126, "count": %1, "type": "VEC3", "min": [0, 0, 0], "max": [1, 1, 0]},
               {"bufferView": 1, "componentType": 5123, "count": 3, "type": "SCALAR"}],
 "bufferViews": [{"buffer": 0, "byteLength": 36}, {"buffer": 0, "byteOffset": 36, "byteLength": 8}],
 "buffers": [{"byteLength": 44, "uri": "data:application/octet-stream;base64,%2"}]})")
        .arg(QString::number(accessorCount), QString::fromLatin1(bin.toBase64()), imageUri)
        .toUtf8();
}

} // namespace

TEST_F(SceneRenderTest, DemoMatchesItsReferenceAndTheBoxShadowsTheGround)
{
    ASSERT_TRUE(importer.loadFromMemory(DemoScene::glb(), QString(), model, &lights)) << qPrintable(importer.errorString());
    // Lights arrive in the shadow code's conventions: a directional light travels along its +Z.
    ASSERT_EQ(model.lightCount(), 2);
    QVariant sun, spot;
    model.getLight(0, sun);
    model.getLight(1, spot);
    auto* sunLight = qobject_cast<PunctualLight*>(sun.value<QObject*>());
    auto* spotLight = qobject_cast<PunctualLight*>(spot.value<QObject*>());
    ASSERT_TRUE(sunLight && spotLight);
    EXPECT_EQ(sunLight->type(), ShadowMapLight::Directional);
    const QVector3D travel = sunLight->transform().mapVector(QVector3D(0, 0, 1));
    EXPECT_LT((travel + QVector3D(0.45f, 0.8f, 0.35f).normalized()).length(), 1e-4f);
    EXPECT_EQ(spotLight->type(), ShadowMapLight::Spot);
    EXPECT_FLOAT_EQ(spotLight->spotCutoff(), 0.5f);
    EXPECT_FLOAT_EQ(spotLight->intensity, 28.0f);
    ASSERT_EQ(model.getCameraCount(), 1);
    EXPECT_NEAR(model.getCamera(0).fieldOfView(), 0.75 * 180 / M_PI, 1e-3);
    EXPECT_LT((model.sceneBounds().minimum() - QVector3D(-8, -0.1f, -8)).length(), 1e-4f) << "ground plane bounds";
    const QImage image = render().convertToFormat(QImage::Format_RGB32);
    ASSERT_FALSE(image.isNull()) << qPrintable(renderer->errorString());
    EXPECT_EQ(glGetError(), GLenum(GL_NO_ERROR));

    const QImage reference(VyxTest::testSourcePath(QStringLiteral("gl/data/demo-160x90.png")));
    ASSERT_EQ(reference.size(), kSize);
    const QImage expected = reference.convertToFormat(QImage::Format_RGB32);
    double total = 0;
    int far = 0;
    for (int y = 0; y < kSize.height(); ++y)
        for (int x = 0; x < kSize.width(); ++x) {
            const QRgb a = image.pixel(x, y), b = expected.pixel(x, y);
            const int d = std::max({std::abs(qRed(a) - qRed(b)), std::abs(qGreen(a) - qGreen(b)), std::abs(qBlue(a) - qBlue(b))});
            total += d;
            far += d > 24;
        }
    EXPECT_LT(total / (kSize.width() * kSize.height()), 2.0);
    EXPECT_LT(far, kSize.width() * kSize.height() / 100) << "pixels far from the reference";

    // The sun's shadow of the box on the ground, against open ground in front of the spheres.
    const QPoint shadowed = pixelOf(QVector3D(-4.35f, 0, -0.9f)), lit = pixelOf(QVector3D(0.5f, 0, 2.6f));
    ASSERT_TRUE(QRect(QPoint(), kSize).contains(shadowed) && QRect(QPoint(), kSize).contains(lit));
    EXPECT_LT(qGray(image.pixel(shadowed)) + 25, qGray(image.pixel(lit)));
}

// The state a host sets around a viewport draw, as one comparable record.
struct CallerState
{
    static CallerState current()
    {
        CallerState s;
        s.values = {VyxTest::glInteger(GL_DRAW_FRAMEBUFFER_BINDING), VyxTest::glInteger(GL_READ_FRAMEBUFFER_BINDING),
                    VyxTest::glInteger(GL_DEPTH_FUNC), glIsEnabled(GL_BLEND), glIsEnabled(GL_DEPTH_TEST),
                    glIsEnabled(GL_CULL_FACE), VyxTest::glInteger(GL_DEPTH_WRITEMASK)};
        GLint viewport[4];
        GLfloat clear[4];
        glGetIntegerv(GL_VIEWPORT, viewport);
        glGetFloatv(GL_COLOR_CLEAR_VALUE, clear);
        s.values.insert(s.values.end(), viewport, viewport + 4);
        for (GLfloat c : clear)
            s.values.push_back(int(c * 100));
        return s;
    }
    std::vector<int> values;
};

TEST_F(SceneRenderTest, RenderLeavesTheCallersStateAsItFoundIt)
{
    ASSERT_TRUE(importer.loadFromMemory(DemoScene::glb(), QString(), model, &lights));
    Camera camera = fileCamera();
    renderer->setShadowMapSize(256);
    renderer->setSamples(1);

    VyxTest::ColourTarget target(kSize.width(), kSize.height(), 0.0f);
    GLuint readFramebuffer = 0;
    glGenFramebuffers(1, &readFramebuffer);
    glBindFramebuffer(GL_READ_FRAMEBUFFER, readFramebuffer);
    glViewport(0, 0, kSize.width(), kSize.height());
    glEnable(GL_BLEND);
    glDisable(GL_DEPTH_TEST);
    glEnable(GL_CULL_FACE);
    glDepthMask(GL_FALSE);
    glDepthFunc(GL_GREATER);
    glClearColor(0.25f, 0.5f, 0.75f, 1.0f);
    const CallerState before = CallerState::current();

    // The first frame prepares programs, the environment and shadow targets; the second only draws.
    for (int frame = 0; frame < 2; ++frame) {
        SCOPED_TRACE(frame);
        ASSERT_TRUE(renderer->render(model, camera, kSize)) << qPrintable(renderer->errorString());
        EXPECT_EQ(CallerState::current().values, before.values);
        EXPECT_FALSE(renderer->renderToImage(model, camera, QSize(32, 18)).isNull());
        EXPECT_EQ(CallerState::current().values, before.values);
    }
    glBindFramebuffer(GL_READ_FRAMEBUFFER, VyxTest::glInteger(GL_DRAW_FRAMEBUFFER_BINDING));
    const std::vector<int> red = target.channel(0);
    EXPECT_GT(*std::max_element(red.begin(), red.end()), 0) << "the scene went into the caller's target";
    EXPECT_EQ(glGetError(), GLenum(GL_NO_ERROR));
    glDeleteFramebuffers(1, &readFramebuffer);
}

TEST_F(SceneRenderTest, ModelsFromTheTestModelPackageRenderWithoutGLErrors)
{
    const QStringList files = {"2CylinderEngine-glTF-Binary/2CylinderEngine.glb", "BoxTextured-glTF/BoxTextured.gltf",
                               "BoxTextured-glTF-Embedded/BoxTextured.gltf", "BoxTexcoords-glTF/boxTexcoords.gltf",
                               "cameras/Cameras.gltf", "glTF-Sample-Models/AnimatedMorphCube-glTF/AnimatedMorphCube.gltf"};
    if (!QFileInfo::exists(kModels + "/" + files[0]))
        GTEST_SKIP() << "assimp-testmodels is not installed";
    for (const QString& file : files) {
        SCOPED_TRACE(qPrintable(file));
        ASSERT_TRUE(importer.load(kModels + "/" + file, model, &lights)) << qPrintable(importer.errorString());
        ASSERT_GT(model.numDrawables(), 0);
        const BoundingBox bounds = model.sceneBounds();
        ASSERT_FALSE(bounds.isEmpty());
        Camera camera;
        const float radius = bounds.size().length();
        camera.lookAt(bounds.center() + QVector3D(0.3f, 0.4f, 1) * radius, bounds.center(), QVector3D(0, 1, 0));
        camera.setNearFar(radius * 0.01f, radius * 5);
        const QImage image = render(&camera);
        ASSERT_FALSE(image.isNull()) << qPrintable(renderer->errorString());
        EXPECT_EQ(glGetError(), GLenum(GL_NO_ERROR));
    }
}

TEST_F(SceneRenderTest, MalformedScenesFailWithAMessage)
{
    // The reader's own refusals are its tests' business; these are the importer's, and one of
    // the reader's passed on.
    const struct
    {
        const char* name;
        QByteArray bytes;
        const char* message;
    } cases[] = {
        {"accessor past its buffer", triangleScene(40, 2, "white.png"), "Accessor 0 reaches past the end of its buffer"},
        {"index out of range", triangleScene(3, 7, "white.png"), "Mesh 0 primitive 0 uses vertex 7 of 3"},
        {"missing buffer file", triangleScene(3, 2, "x").replace("data:application/octet-stream;base64,", "gone.bin#"), ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_FALSE(importer.loadFromMemory(c.bytes, QDir::tempPath(), model, &lights));
        EXPECT_FALSE(importer.errorString().isEmpty());
        EXPECT_TRUE(importer.errorString().contains(QLatin1String(c.message))) << qPrintable(importer.errorString());
        EXPECT_EQ(model.numDrawables(), 0);
    }
}

TEST_F(SceneRenderTest, ImagesTakeTheirSamplerAndAMissingOneWarnsOnce)
{
    QImage picture(2, 2, QImage::Format_ARGB32);
    picture.fill(Qt::red);
    QBuffer png;
    png.open(QIODevice::WriteOnly);
    ASSERT_TRUE(picture.save(&png, "PNG"));
    {
        CallRecorder<&_ptrc_glTexParameteri> parameters;
        MessageCapture capture;
        ASSERT_TRUE(importer.loadFromMemory(triangleScene(3, 2, "data:image/png;base64," + png.data().toBase64()),
                                            QString(), model, &lights))
            << qPrintable(importer.errorString());
        EXPECT_TRUE(capture.texts(QtWarningMsg).isEmpty()) << qPrintable(capture.texts().join('\n'));
        const auto set = [&](GLenum name, GLint value) {
            return std::count(parameters.calls().begin(), parameters.calls().end(),
                              std::make_tuple(GLenum(GL_TEXTURE_2D), name, value)) > 0;
        };
        EXPECT_TRUE(set(GL_TEXTURE_MIN_FILTER, GL_NEAREST) && set(GL_TEXTURE_MAG_FILTER, GL_NEAREST));
        EXPECT_TRUE(set(GL_TEXTURE_WRAP_S, GL_CLAMP_TO_EDGE) && set(GL_TEXTURE_WRAP_T, GL_MIRRORED_REPEAT));
    }
    MessageCapture capture;
    ASSERT_TRUE(importer.loadFromMemory(triangleScene(3, 2, "no-such-image.png"), QDir::tempPath(), model, &lights))
        << qPrintable(importer.errorString());
    EXPECT_EQ(capture.bodies(QtWarningMsg), QStringList{"Image 0 ('no-such-image.png') could not be loaded; it renders white"});
    EXPECT_EQ(model.numDrawables(), 1);
}
