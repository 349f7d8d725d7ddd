// The material extensions as the reader takes them: factors, their defaults and ranges, maps with
// their own texture transforms, and references that do not resolve.

#include "scene/gltfscenereader.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <gtest/gtest.h>

using namespace Tavren::Vyx;

namespace {

using M = SceneData::Material;

// A file with one material of these extensions and two textures of one image.
std::shared_ptr<const SceneData> read(const QJsonObject& extensions, QString* error = nullptr)
{
    const QJsonObject root{
        {"asset", QJsonObject{{"version", "2.0"}}},
        {"materials", QJsonArray{QJsonObject{{"extensions", extensions}}}},
        {"images", QJsonArray{QJsonObject{{"uri", "missing.png"}}}},
        {"textures", QJsonArray{QJsonObject{{"source", 0}}, QJsonObject{{"source", 0}}}},
    };
    GLTFSceneReader reader;
    auto scene = reader.readFromMemory(QJsonDocument(root).toJson(), QString());
    if (error)
        *error = reader.errorString();
    return scene;
}

TEST(GLTFMaterialExtensions, FactorsMapsAndDefaults)
{
    const QJsonObject transform{{"KHR_texture_transform", QJsonObject{{"offset", QJsonArray{0.5, 0}}, {"texCoord", 1}}}};
    const auto scene = read({
        {"KHR_materials_clearcoat", QJsonObject{{"clearcoatFactor", 2.0}, // clamped to 1
                                                {"clearcoatNormalTexture", QJsonObject{{"index", 1}, {"scale", 0.5}}}}},
        {"KHR_materials_specular", QJsonObject{{"specularColorFactor", QJsonArray{2, 1, 0.5}},
                                               {"specularTexture", QJsonObject{{"index", 0}, {"extensions", transform}}}}},
        {"KHR_materials_sheen", QJsonObject{{"sheenRoughnessFactor", 0.25}}},
        {"KHR_materials_transmission", QJsonObject{{"transmissionFactor", 1}}},
        {"KHR_materials_volume", QJsonObject{{"thicknessFactor", 0.5}, {"attenuationColor", QJsonArray{1, 0.5, 0}}}},
        {"KHR_materials_ior", QJsonObject{{"ior", 1.5}}},
    });
    ASSERT_TRUE(scene);
    const M& m = scene->materials.at(0);
    EXPECT_EQ(m.extensions, M::Clearcoat | M::Specular | M::Sheen | M::Transmission);
    EXPECT_EQ(m.clearcoat.factor, 1.0f);
    EXPECT_EQ(m.clearcoat.normalTexture.texture, 1);
    EXPECT_EQ(m.clearcoat.normalTexture.scale, 0.5f);
    // Specular colour may exceed one; the reflectance it makes is clamped in shading.
    EXPECT_EQ(m.specular.colorFactor, QVector3D(2, 1, 0.5f));
    EXPECT_EQ(m.specular.texture.texCoord, 1);
    EXPECT_EQ(m.specular.texture.transform.offset, QVector2D(0.5f, 0));
    EXPECT_EQ(m.sheen.roughness, 0.25f);
    EXPECT_EQ(m.transmission.thickness, 0.5f);
    EXPECT_EQ(m.transmission.attenuationDistance, 0.0f) << "absent: no absorption";
    EXPECT_EQ(m.transmission.attenuationColor, QVector3D(1, 0.5f, 0));
}

// An index of refraction other than 1.5 alone asks for the specular variant; 0 stands for an
// infinite index; specular-glossiness replaces the base colour and drops metal-roughness maps; a map
// that does not resolve fails the file.
TEST(GLTFMaterialExtensions, IndexOfRefractionSpecularGlossinessAndBadMaps)
{
    const struct
    {
        double ior;
        int extensions;
        float expected;
    } cases[] = {{1.5, 0, 1.5f}, {1.33, M::Specular, 1.33f}, {0, M::Specular, 1e4f}, {0.5, M::Specular, 1.0f}};
    for (const auto& c : cases) {
        const auto scene = read({{"KHR_materials_ior", QJsonObject{{"ior", c.ior}}}});
        ASSERT_TRUE(scene);
        EXPECT_EQ(scene->materials[0].extensions, c.extensions) << c.ior;
        EXPECT_EQ(scene->materials[0].ior, c.expected) << c.ior;
    }

    const auto scene = read({{"KHR_materials_pbrSpecularGlossiness",
                              QJsonObject{{"diffuseFactor", QJsonArray{0.1, 0.2, 0.3, 0.4}},
                                          {"glossinessFactor", 0.75},
                                          {"diffuseTexture", QJsonObject{{"index", 0}}},
                                          {"specularGlossinessTexture", QJsonObject{{"index", 1}}}}}});
    ASSERT_TRUE(scene);
    const M& m = scene->materials[0];
    EXPECT_EQ(m.extensions, M::SpecularGlossiness);
    EXPECT_EQ(m.baseColorFactor, QVector4D(0.1f, 0.2f, 0.3f, 0.4f));
    EXPECT_EQ(m.baseColorTexture.texture, 0);
    EXPECT_EQ(m.specularGlossiness.texture.texture, 1);
    EXPECT_EQ(m.specularGlossiness.specularFactor, QVector3D(1, 1, 1));
    EXPECT_EQ(m.specularGlossiness.glossiness, 0.75f);

    for (const QJsonValue index : {QJsonValue(7), QJsonValue(-1), QJsonValue(1.5), QJsonValue("0")}) {
        QString error;
        EXPECT_FALSE(read({{"KHR_materials_sheen", QJsonObject{{"sheenColorTexture", QJsonObject{{"index", index}}}}}}, &error));
        EXPECT_FALSE(error.isEmpty()) << "a map that does not resolve fails the file";
    }
}

} // namespace
