// Each material extension against the same sphere without it, in probe pixels that must differ
// the way the extension says: a coat's sharp highlight over a rough base, sheen at grazing
// angles, the scene behind a transmissive sphere, and so on.

#include "render/sceneframing.h"
#include "scene/gltfscenereader.h"
#include "scene/scenedata.h"
#include "support/scenetest.h"
#include "support/testenvironment.h"

#include <QBuffer>
#include <QColor>
#include <QImage>

#include <cmath>
#include <functional>

using namespace Tavren::Vyx;

namespace {

constexpr int kSpherePixels = 64;
using M = SceneData::Material;

// Spheres of radius 1 in a row along x, two units apart, seen head-on by an orthographic
// camera, lit by a sun behind the camera; optionally an unlit green wall behind them.
struct SphereRow
{
    SceneData scene;

    SphereRow()
    {
        SceneData::Primitive sphere;
        const int rings = 24, segments = 48;
        for (int r = 0; r <= rings; ++r)
            for (int s = 0; s <= segments; ++s) {
                const float theta = float(M_PI) * r / rings, phi = 2 * float(M_PI) * s / segments;
                const QVector3D n(std::sin(theta) * std::cos(phi), std::cos(theta), std::sin(theta) * std::sin(phi));
                sphere.positions.insert(sphere.positions.end(), {n.x(), n.y(), n.z()});
                sphere.normals.insert(sphere.normals.end(), {n.x(), n.y(), n.z()});
                sphere.texCoords.resize(1);
                sphere.texCoords[0].insert(sphere.texCoords[0].end(), {float(s) / segments, float(r) / rings});
            }
        sphere.indexed = true;
        for (int r = 0; r < rings; ++r)
            for (int s = 0; s < segments; ++s) {
                const quint32 a = quint32(r * (segments + 1) + s), b = a + segments + 1;
                sphere.indices.insert(sphere.indices.end(), {a, a + 1, b, b, a + 1, b + 1});
            }
        SceneData::Mesh mesh;
        mesh.primitives.push_back(sphere);
        scene.meshes.push_back(mesh);
        SceneData::Light sun;
        sun.type = SceneData::Light::Directional;
        sun.intensity = 3;
        scene.lights.push_back(sun);
        SceneData::Node light;
        light.light = 0;
        addRoot(light);
    }
    void addRoot(const SceneData::Node& node)
    {
        scene.roots.push_back(int(scene.nodes.size()));
        scene.nodes.push_back(node);
    }
    int addMaterial(const M& material)
    {
        scene.materials.push_back(material);
        return int(scene.materials.size()) - 1;
    }
    // A sphere of its own material; its number.
    int add(const M& material)
    {
        SceneData::Mesh mesh = scene.meshes[0];
        mesh.primitives[0].material = addMaterial(material);
        scene.meshes.push_back(mesh);
        SceneData::Node node;
        node.mesh = int(scene.meshes.size()) - 1;
        node.translation = QVector3D(2.0f * spheres, 0, 0);
        addRoot(node);
        return spheres++;
    }
    // A 1x1 texture of one colour, for a material map.
    int texture(QRgb colour)
    {
        QImage image(1, 1, QImage::Format_ARGB32);
        image.fill(colour);
        SceneData::Image encoded;
        QBuffer out(&encoded.bytes);
        out.open(QIODevice::WriteOnly);
        image.save(&out, "PNG");
        scene.images.push_back(encoded);
        scene.textures.push_back({int(scene.images.size()) - 1, -1});
        return int(scene.textures.size()) - 1;
    }
    void addGreenWall()
    {
        M green;
        green.unlit = true;
        green.baseColorFactor = QVector4D(0.1f, 0.8f, 0.1f, 1);
        SceneData::Mesh wall;
        SceneData::Primitive quad;
        quad.positions = {-50, -50, 0, 50, -50, 0, 50, 50, 0, -50, 50, 0};
        quad.normals = {0, 0, 1, 0, 0, 1, 0, 0, 1, 0, 0, 1};
        quad.indexed = true;
        quad.indices = {0, 1, 2, 0, 2, 3};
        quad.material = addMaterial(green);
        wall.primitives.push_back(quad);
        scene.meshes.push_back(wall);
        SceneData::Node node;
        node.mesh = int(scene.meshes.size()) - 1;
        node.translation = QVector3D(0, 0, -3);
        addRoot(node);
    }
    int spheres = 0;
};

M rough(QVector3D colour, float roughness = 1.0f)
{
    M m;
    m.baseColorFactor = QVector4D(colour, 1);
    m.metallicFactor = 0;
    m.roughnessFactor = roughness;
    return m;
}

float luminance(QRgb c)
{
    return 0.2126f * qRed(c) + 0.7152f * qGreen(c) + 0.0722f * qBlue(c);
}

class MaterialExtensionsTest : public VyxTest::SceneTest
{
protected:
    bool render(SphereRow& row)
    {
        if (!importer.upload(std::make_shared<SceneData>(row.scene), model, &lights)) {
            ADD_FAILURE() << qPrintable(importer.errorString());
            return false;
        }
        Camera camera;
        camera.setProjectionType(Camera::eOrthographic);
        camera.setOrthographicHeight(2);
        camera.setNearFar(0.1f, 20);
        QMatrix4x4 world;
        world.translate(row.spheres - 1.0f, 0, 5);
        camera.setWorldMatrix(world);
        renderer->setSamples(1);
        renderer->setShadowsEnabled(false);
        image = renderer->renderToImage(model, camera, QSize(row.spheres * kSpherePixels, kSpherePixels));
        EXPECT_FALSE(image.isNull()) << qPrintable(renderer->errorString());
        return !image.isNull();
    }
    // The pixel at (x, y) in units of the radius from sphere i's centre, y up.
    QRgb at(int sphere, float x, float y) const
    {
        return image.pixel(int((sphere + 0.5f + 0.5f * x) * kSpherePixels), int((0.5f - 0.5f * y) * kSpherePixels));
    }
    // The brightest pixel of the sphere's disc and the mean over its rim (0.9 to 0.97 of the radius).
    float brightest(int sphere) const { return discStatistic(sphere, 0, 0.95f, true); }
    float rim(int sphere) const { return discStatistic(sphere, 0.9f, 0.97f, false); }
    float centre(int sphere) const { return discStatistic(sphere, 0, 0.3f, false); }

    QImage image;

private:
    float discStatistic(int sphere, float inner, float outer, bool maximum) const
    {
        float best = 0, sum = 0;
        int count = 0;
        for (int y = 0; y < kSpherePixels; ++y)
            for (int x = 0; x < kSpherePixels; ++x) {
                const float u = (x + 0.5f) / kSpherePixels * 2 - 1, v = (y + 0.5f) / kSpherePixels * 2 - 1;
                const float r = std::sqrt(u * u + v * v);
                if (r < inner || r > outer)
                    continue;
                const float l = luminance(image.pixel(sphere * kSpherePixels + x, y));
                best = std::max(best, l);
                sum += l;
                ++count;
            }
        return maximum ? best : sum / std::max(count, 1);
    }
};

// Clear coat, specular, index of refraction and sheen, each beside its plain sphere.
TEST_F(MaterialExtensionsTest, LayersAndLobesChangeWhatTheySay)
{
    SphereRow row;
    const M base = rough(QVector3D(0.6f, 0.05f, 0.05f));
    const int plain = row.add(base);
    M coated = base;
    coated.extensions = M::Clearcoat;
    coated.clearcoat.factor = 1;
    coated.clearcoat.roughness = 0.05f;
    const int coat = row.add(coated);
    // A black coat map takes the coat away again: the map is read through the extension table.
    coated.clearcoat.texture.texture = row.texture(qRgb(0, 0, 0));
    const int unmapped = row.add(coated);

    M black = rough(QVector3D(0, 0, 0));
    const int dielectric = row.add(black);
    M noSpecular = black;
    noSpecular.extensions = M::Specular;
    noSpecular.specular.factor = 0;
    const int unreflective = row.add(noSpecular);
    M dense = black;
    dense.extensions = M::Specular;
    dense.ior = 2.5f;
    const int highIndex = row.add(dense);

    M dark = rough(QVector3D(0.05f, 0.05f, 0.05f));
    const int velvetless = row.add(dark);
    M velvet = dark;
    velvet.extensions = M::Sheen;
    velvet.sheen.colorFactor = QVector3D(1, 1, 1);
    velvet.sheen.roughness = 0.3f;
    const int sheen = row.add(velvet);
    ASSERT_TRUE(render(row));

    EXPECT_GT(brightest(coat), brightest(plain) + 60) << "a smooth coat shows the sun over a rough base";
    // Orthographic view rays are parallel, so spheres side by side look alike.
    EXPECT_NEAR(brightest(unmapped), brightest(plain), 2) << "a black coat map leaves the base";
    EXPECT_LT(brightest(unreflective), 4) << "no specular on black: nothing reflects";
    EXPECT_GT(centre(dielectric), centre(unreflective) + 3);
    EXPECT_GT(centre(highIndex), centre(dielectric) * 1.5f) << "ior 2.5 reflects four times what ior 1.5 does";
    // Lit head-on, sheen shows at grazing angles and hardly at all face-on.
    const float rimGain = rim(sheen) - rim(velvetless), centreGain = centre(sheen) - centre(velvetless);
    EXPECT_GT(rimGain, 15);
    EXPECT_GT(rimGain, 2 * centreGain);
}

// Specular-glossiness materials take their diffuse colour and specular reflectance from the extension;
// transmission shows the wall behind the sphere, tinted by the volume it crosses.
TEST_F(MaterialExtensionsTest, SpecularGlossinessAndTransmission)
{
    SphereRow row;
    row.addGreenWall();
    M glossy;
    glossy.extensions = M::SpecularGlossiness;
    glossy.baseColorFactor = QVector4D(0.05f, 0.1f, 0.8f, 1);
    glossy.specularGlossiness.specularFactor = QVector3D(0, 0, 0);
    glossy.specularGlossiness.glossiness = 0;
    const int diffuse = row.add(glossy);
    glossy.specularGlossiness.specularFactor = QVector3D(1, 1, 1);
    glossy.specularGlossiness.glossiness = 1;
    const int mirror = row.add(glossy);

    const M white = rough(QVector3D(1, 1, 1), 0.05f);
    const int opaque = row.add(white);
    M glass = white;
    glass.extensions = M::Transmission;
    glass.transmission.factor = 1;
    const int thin = row.add(glass);
    glass.transmission.thickness = 2;
    glass.transmission.attenuationDistance = 1;
    glass.transmission.attenuationColor = QVector3D(1, 0.2f, 0.2f);
    const int tinted = row.add(glass);
    ASSERT_TRUE(render(row));

    const QRgb blue = at(diffuse, 0.2f, 0.2f);
    EXPECT_GT(qBlue(blue), qRed(blue) + 100) << "the diffuse factor, not the default white";
    EXPECT_GT(brightest(mirror), brightest(diffuse) + 60) << "a glossy white specular shows the sun";

    const QRgb solid = at(opaque, 0, -0.3f), through = at(thin, 0, -0.3f), absorbed = at(tinted, 0, -0.3f);
    EXPECT_GT(qGreen(through), qRed(through) + 60) << "the green wall shows through";
    EXPECT_LT(std::abs(qGreen(solid) - qRed(solid)), 20) << "an opaque white sphere is not green";
    EXPECT_LT(qGreen(absorbed), qGreen(through) / 2) << "the red volume absorbs the green light";
}

} // namespace

// The sample scenes of three extensions against the same scenes with their extensions taken
// out: the coated column, the specular row and the transmissive spheres must change the picture.
TEST_F(MaterialExtensionsTest, SampleScenesChangeWhereTheirExtensionsAre)
{
    for (const char* name : {"ClearCoatTest", "SpecularTest", "TransmissionTest"}) {
        GLTFSceneReader reader;
        const std::shared_ptr<const SceneData> scene =
            reader.read(VyxTest::testDataPath(QStringLiteral("gltf/%1/glTF-Binary/%1.glb").arg(QLatin1String(name))));
        ASSERT_TRUE(scene) << name << ": " << qPrintable(reader.errorString());
        auto plain = std::make_shared<SceneData>(*scene);
        for (SceneData::Material& m : plain->materials)
            m.extensions = 0;
        QImage pictures[2];
        for (int i = 0; i < 2; ++i) {
            model.clear();
            ASSERT_TRUE(importer.upload(i ? std::shared_ptr<const SceneData>(plain) : scene, model, &lights)) << name;
            renderer->setSamples(1);
            model.updateTransforms();
            const Camera camera = model.getCameraCount() > 0 ? fileCamera()
                                                             : SceneFraming::framingCamera(model.sceneBounds(), 4.0f / 3);
            pictures[i] = renderer->renderToImage(model, camera, QSize(160, 120));
            ASSERT_FALSE(pictures[i].isNull()) << name;
        }
        int changed = 0;
        for (int y = 0; y < 120; ++y)
            for (int x = 0; x < 160; ++x)
                changed += std::abs(luminance(pictures[0].pixel(x, y)) - luminance(pictures[1].pixel(x, y))) > 8;
        EXPECT_GT(changed, 160 * 120 / 50) << name;
    }
}
