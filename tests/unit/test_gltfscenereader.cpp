#include "scene/gltfscenereader.h"

#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>

#include <gtest/gtest.h>

using namespace Tavren::Vyx;

namespace {

// One triangle, interleaved: position (3 floats), texture coordinates (2 normalised ushorts),
// colour (RGB normalised ubytes, 1 byte pad), 20 bytes a vertex; then three ubyte indices.
QByteArray triangleBuffer()
{
    QByteArray bin;
    const auto put = [&](const auto& value) { bin.append(reinterpret_cast<const char*>(&value), sizeof(value)); };
    const float positions[3][3] = {{0, 0, 0}, {1, 0, 0}, {0, 2, 0}};
    const quint16 uvs[3][2] = {{0, 0}, {65535, 0}, {0, 32768}};
    const quint8 colours[3][4] = {{255, 0, 0, 0}, {0, 255, 0, 0}, {0, 0, 51, 0}};
    for (int v = 0; v < 3; ++v) {
        put(positions[v]);
        put(uvs[v]);
        put(colours[v]);
    }
    for (quint8 i : {2, 1, 0})
        put(i);
    return bin;
}

QJsonObject triangleScene()
{
    const QByteArray bin = triangleBuffer();
    const QJsonObject primitive{{"attributes", QJsonObject{{"POSITION", 0}, {"TEXCOORD_0", 1}, {"COLOR_0", 2}}},
                                {"indices", 3}, {"material", 0}};
    QJsonObject root;
    root["asset"] = QJsonObject{{"version", "2.0"}};
    root["scenes"] = QJsonArray{QJsonObject{{"nodes", QJsonArray{0}}}};
    root["nodes"] = QJsonArray{QJsonObject{{"mesh", 0}, {"children", QJsonArray{1}}}, QJsonObject{{"translation", QJsonArray{1, 2, 3}}}};
    root["meshes"] = QJsonArray{QJsonObject{{"primitives", QJsonArray{primitive}}}};
    root["materials"] = QJsonArray{QJsonObject{
        {"alphaMode", "MASK"}, {"alphaCutoff", 0.25}, {"doubleSided", true},
        {"pbrMetallicRoughness", QJsonObject{{"baseColorTexture", QJsonObject{{"index", 0}, {"texCoord", 1}}}}}}};
    root["textures"] = QJsonArray{QJsonObject{{"source", 0}, {"sampler", 0}}};
    root["samplers"] = QJsonArray{QJsonObject{{"magFilter", 9728}, {"minFilter", 9984}, {"wrapS", 33071}, {"wrapT", 33648}}};
    root["images"] = QJsonArray{QJsonObject{{"uri", QString("data:image/png;base64," + QByteArray("\x89PNG").toBase64())}}};
    root["accessors"] = QJsonArray{
        QJsonObject{{"bufferView", 0}, {"componentType", 5126}, {"count", 3}, {"type", "VEC3"},
                    {"min", QJsonArray{0, 0, 0}}, {"max", QJsonArray{1, 2, 0}}},
        QJsonObject{{"bufferView", 0}, {"byteOffset", 12}, {"componentType", 5123}, {"normalized", true}, {"count", 3}, {"type", "VEC2"}},
        QJsonObject{{"bufferView", 0}, {"byteOffset", 16}, {"componentType", 5121}, {"normalized", true}, {"count", 3}, {"type", "VEC3"}},
        QJsonObject{{"bufferView", 1}, {"componentType", 5121}, {"count", 3}, {"type", "SCALAR"}}};
    root["bufferViews"] = QJsonArray{QJsonObject{{"buffer", 0}, {"byteOffset", 0}, {"byteLength", 60}, {"byteStride", 20}},
                                     QJsonObject{{"buffer", 0}, {"byteOffset", 60}, {"byteLength", 3}}};
    root["buffers"] = QJsonArray{QJsonObject{{"byteLength", bin.size()},
                                             {"uri", QString("data:application/octet-stream;base64," + bin.toBase64())}}};
    return root;
}

QByteArray json(const QJsonObject& root)
{
    return QJsonDocument(root).toJson();
}

// Sets root[array][index][key] = value.
QJsonObject with(QJsonObject root, const char* array, int index, const char* key, const QJsonValue& value)
{
    QJsonArray items = root[array].toArray();
    QJsonObject item = items[index].toObject();
    item[key] = value;
    items[index] = item;
    root[array] = items;
    return root;
}

} // namespace

TEST(GLTFSceneReader, DecodesInterleavedAttributesAndCarriesMaterialsSamplersAndImages)
{
    GLTFSceneReader reader;
    const auto scene = reader.readFromMemory(json(triangleScene()), QString());
    ASSERT_TRUE(scene) << qPrintable(reader.errorString());
    EXPECT_TRUE(reader.warnings().isEmpty()) << qPrintable(reader.warnings().join('\n'));

    ASSERT_EQ(scene->meshes.size(), 1u);
    // Without normals the triangle is flat shaded: its vertices are taken in index order (2, 1, 0).
    const SceneData::Primitive& p = scene->meshes[0].primitives.at(0);
    EXPECT_EQ(p.positions, (std::vector<float>{0, 2, 0, 1, 0, 0, 0, 0, 0}));
    EXPECT_EQ(p.normals, (std::vector<float>{0, 0, -1, 0, 0, -1, 0, 0, -1}));
    EXPECT_FALSE(p.indexed);
    ASSERT_EQ(p.texCoords.size(), 1u);
    EXPECT_FLOAT_EQ(p.texCoords[0][2], 1.0f);
    EXPECT_NEAR(p.texCoords[0][1], 0.5f, 1e-4);
    ASSERT_EQ(p.colors.size(), 12u) << "RGB colours become RGBA";
    EXPECT_FLOAT_EQ(p.colors[2], 0.2f);
    EXPECT_FLOAT_EQ(p.colors[3], 1.0f);
    EXPECT_TRUE(p.tangents.empty()) << "no normal map, no tangents";

    EXPECT_EQ(scene->roots, std::vector<int>{0});
    EXPECT_EQ(scene->nodes[1].localMatrix().column(3), QVector4D(1, 2, 3, 1));

    const SceneData::Material& m = scene->materials.at(0);
    EXPECT_EQ(m.alphaMode, SceneData::Material::Mask);
    EXPECT_FLOAT_EQ(m.alphaCutoff, 0.25f);
    EXPECT_TRUE(m.doubleSided);
    EXPECT_EQ(m.baseColorTexture.texture, 0);
    EXPECT_EQ(m.baseColorTexture.texCoord, 1);
    EXPECT_EQ(m.normalTexture.texture, -1);

    const SceneData::Sampler& s = scene->samplers.at(scene->textures.at(0).sampler);
    EXPECT_EQ(s.magFilter, 9728);
    EXPECT_EQ(s.minFilter, 9984);
    EXPECT_EQ(s.wrapS, 33071);
    EXPECT_EQ(s.wrapT, 33648);

    const SceneData::Image& image = scene->images.at(0);
    EXPECT_EQ(image.bytes, QByteArray("\x89PNG"));
    EXPECT_EQ(image.mimeType, QStringLiteral("image/png"));
}

TEST(GLTFSceneReader, BrokenScenesFailWithTheirMessage)
{
    const QJsonObject good = triangleScene();
    const struct
    {
        const char* name;
        QByteArray bytes;
        const char* message;
    } cases[] = {
        {"accessor past its buffer", json(with(good, "accessors", 0, "count", 4)), "Accessor 0 reaches past the end of its buffer"},
        {"stride below the element", json(with(good, "bufferViews", 0, "byteStride", 8)),
         "Buffer view 0 has a stride below its element size"},
        {"wrong component count", json(with(good, "accessors", 1, "type", "VEC3")),
         "Accessor 1 has 3 components of an unusable type, 2 wanted"},
        {"index past the vertices", json(with(good, "accessors", 3, "byteOffset", 1)), "Accessor 3 reaches past the end"},
        {"missing material", json(with(with(good, "meshes", 0, "primitives", QJsonArray{QJsonObject{
                                                                {"attributes", QJsonObject{{"POSITION", 0}}}, {"material", 4}}}),
                                        "nodes", 0, "mesh", 0)),
         "Mesh 0 primitive 0 uses material 4, which does not exist"},
        {"missing child", json(with(good, "nodes", 1, "children", QJsonArray{7})), "Node 1 has a child 7 that does not exist"},
        {"node with two parents", json(with(good, "nodes", 1, "children", QJsonArray{1})), "Node 1 has more than one parent"},
        {"missing texture", json(with(good, "textures", 0, "source", 3)), "Texture 0 uses image 3, which does not exist"},
        {"not JSON", QByteArray("{ nodes"), ""},
        {"truncated container", QByteArray("glTF\x02\0\0\0", 8), ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        GLTFSceneReader reader;
        EXPECT_FALSE(reader.readFromMemory(c.bytes, QString()));
        EXPECT_FALSE(reader.errorString().isEmpty());
        EXPECT_TRUE(reader.errorString().contains(QLatin1String(c.message))) << qPrintable(reader.errorString());
    }
}

TEST(GLTFSceneReader, ExternalImagesAreResolvedNotReadAndAMissingOneWarnsOnce)
{
    QTemporaryDir folder;
    ASSERT_TRUE(folder.isValid());
    QFile present(folder.filePath("present image.png"));
    ASSERT_TRUE(present.open(QIODevice::WriteOnly));
    present.write("not decoded here");
    present.close();
    QJsonObject root = triangleScene();
    root["images"] = QJsonArray{QJsonObject{{"uri", "present%20image.png"}}, QJsonObject{{"uri", "gone.png"}}};

    GLTFSceneReader reader;
    const auto scene = reader.readFromMemory(json(root), folder.path());
    ASSERT_TRUE(scene) << qPrintable(reader.errorString());
    EXPECT_EQ(reader.warnings(), QStringList{"Image 1 ('gone.png') could not be loaded; it renders white"});
    EXPECT_EQ(scene->images.at(0).path, present.fileName());
    EXPECT_TRUE(scene->images.at(0).bytes.isEmpty());
    EXPECT_TRUE(scene->images.at(1).path.isEmpty());
    EXPECT_EQ(scene->images.at(1).uri, QStringLiteral("gone.png"));
}
