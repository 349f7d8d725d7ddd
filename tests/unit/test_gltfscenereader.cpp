#include "scene/gltfscenereader.h"

#include "support/testenvironment.h"

#include <QDirIterator>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>
#include <QtEndian>

#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <limits>

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

namespace {

// Builds small scenes from raw bytes: each view holds its own bytes, 4-byte aligned in one buffer.
struct SceneBuilder
{
    QByteArray bin;
    QJsonArray views, accessors;

    template <typename T>
    int view(std::initializer_list<T> values, int stride = 0)
    {
        return view(std::vector<T>(values), stride);
    }
    template <typename T>
    int view(const std::vector<T>& values, int stride = 0)
    {
        while (bin.size() % 4)
            bin.append('\0');
        QJsonObject v{{"buffer", 0}, {"byteOffset", bin.size()}, {"byteLength", int(values.size() * sizeof(T))}};
        if (stride)
            v["byteStride"] = stride;
        bin.append(reinterpret_cast<const char*>(values.data()), int(values.size() * sizeof(T)));
        views.append(v);
        return views.size() - 1;
    }
    int accessor(QJsonObject a)
    {
        accessors.append(a);
        return accessors.size() - 1;
    }
    int accessor(int view, int componentType, int count, const char* type, bool normalized = false, int byteOffset = 0)
    {
        QJsonObject a{{"componentType", componentType}, {"count", count}, {"type", type}};
        if (view >= 0)
            a["bufferView"] = view;
        if (normalized)
            a["normalized"] = true;
        if (byteOffset)
            a["byteOffset"] = byteOffset;
        return accessor(a);
    }
    int floats(std::initializer_list<float> values, const char* type, int components)
    {
        return accessor(view(values), 5126, int(values.size()) / components, type);
    }
    int indices(std::initializer_list<quint16> values) { return accessor(view(values), 5123, int(values.size()), "SCALAR"); }

    // One node drawing one mesh of the given primitives.
    QJsonObject scene(const QJsonArray& primitives, const QJsonObject& extra = {}) const
    {
        QJsonObject root = extra;
        root["asset"] = QJsonObject{{"version", "2.0"}};
        root["scenes"] = QJsonArray{QJsonObject{{"nodes", QJsonArray{0}}}};
        if (!root.contains("nodes"))
            root["nodes"] = QJsonArray{QJsonObject{{"mesh", 0}}};
        root["meshes"] = QJsonArray{QJsonObject{{"name", "m"}, {"primitives", primitives}}};
        root["accessors"] = accessors;
        root["bufferViews"] = views;
        root["buffers"] = QJsonArray{QJsonObject{{"byteLength", bin.size()},
                                                 {"uri", QString("data:application/octet-stream;base64," + bin.toBase64())}}};
        return root;
    }
};

constexpr int kByte = 5120, kUnsignedByte = 5121, kShort = 5122, kUnsignedShort = 5123, kFloat = 5126;

QJsonObject primitive(const QJsonObject& attributes, int mode = 4, int indices = -1, int material = -1)
{
    QJsonObject p{{"attributes", attributes}, {"mode", mode}};
    if (indices >= 0)
        p["indices"] = indices;
    if (material >= 0)
        p["material"] = material;
    return p;
}

struct Read
{
    std::unique_ptr<SceneData> scene;
    QString error;
    QStringList warnings;

    const SceneData::Primitive& first() const { return scene->meshes.at(0).primitives.at(0); }
};

Read readScene(const QByteArray& bytes)
{
    GLTFSceneReader reader;
    Read read;
    read.scene = reader.readFromMemory(bytes, QString());
    read.error = reader.errorString();
    read.warnings = reader.warnings();
    return read;
}

Read readScene(const QJsonObject& root)
{
    return readScene(json(root));
}

std::vector<float> near(const std::vector<float>& values)
{
    std::vector<float> rounded;
    for (float v : values)
        rounded.push_back(std::round(v * 1000.0f) / 1000.0f);
    return rounded;
}

} // namespace

// Every encoding an attribute may come in ends as the same packed floats.
TEST(GLTFSceneReaderAccessors, DecodeEveryComponentTypeStrideAndSparseSubstitution)
{
    const auto triangle = [](SceneBuilder& b, int positions) {
        const int normals = b.floats({0, 0, 1, 0, 0, 1, 0, 0, 1}, "VEC3", 3);
        return b.scene({primitive({{"POSITION", positions}, {"NORMAL", normals}})});
    };
    const struct
    {
        const char* name;
        std::function<int(SceneBuilder&)> positions;
        std::vector<float> expected;
    } cases[] = {
        {"floats", [](SceneBuilder& b) { return b.floats({1, 2, 3, 4, 5, 6, 7, 8, 9}, "VEC3", 3); },
         {1, 2, 3, 4, 5, 6, 7, 8, 9}},
        {"plain shorts (quantized)",
         [](SceneBuilder& b) { return b.accessor(b.view<qint16>({-300, 2, 3, 4, 5, 6, 7, 8, 1000, 0}), kShort, 3, "VEC3"); },
         {-300, 2, 3, 4, 5, 6, 7, 8, 1000}},
        {"plain unsigned bytes at a stride",
         [](SceneBuilder& b) { return b.accessor(b.view<quint8>({1, 2, 3, 0, 4, 5, 6, 0, 7, 8, 9, 0}, 4), kUnsignedByte, 3, "VEC3"); },
         {1, 2, 3, 4, 5, 6, 7, 8, 9}},
        {"normalised bytes",
         [](SceneBuilder& b) { return b.accessor(b.view<qint8>({127, -127, -128, 0, 0, 0, 0, 0, 0}), kByte, 3, "VEC3", true); },
         {1, -1, -1, 0, 0, 0, 0, 0, 0}},
        {"normalised unsigned shorts",
         [](SceneBuilder& b) {
             return b.accessor(b.view<quint16>({65535, 0, 0, 0, 32768, 0, 0, 0, 13107, 0}), kUnsignedShort, 3, "VEC3", true);
         },
         {1, 0, 0, 0, 0.5f, 0, 0, 0, 0.2f}},
        {"sparse over a buffer view",
         [](SceneBuilder& b) {
             QJsonObject a{{"bufferView", b.view<float>({1, 1, 1, 2, 2, 2, 3, 3, 3})}, {"componentType", kFloat}, {"count", 3},
                           {"type", "VEC3"}};
             a["sparse"] = QJsonObject{{"count", 2},
                                       {"indices", QJsonObject{{"bufferView", b.view<quint8>({2, 0})}, {"componentType", kUnsignedByte}}},
                                       {"values", QJsonObject{{"bufferView", b.view<float>({9, 9, 9, 7, 7, 7})}}}};
             return b.accessor(a);
         },
         {7, 7, 7, 2, 2, 2, 9, 9, 9}},
        {"sparse over zeros, quantized",
         [](SceneBuilder& b) {
             QJsonObject a{{"componentType", kShort}, {"count", 3}, {"type", "VEC3"}};
             a["sparse"] = QJsonObject{
                 {"count", 1},
                 {"indices", QJsonObject{{"bufferView", b.view<quint32>({1})}, {"componentType", 5125}}},
                 {"values", QJsonObject{{"bufferView", b.view<qint16>({-5, 6, 7, 0})}, {"byteOffset", 0}}}};
             return b.accessor(a);
         },
         {0, 0, 0, -5, 6, 7, 0, 0, 0}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        SceneBuilder b;
        const Read read = readScene(triangle(b, c.positions(b)));
        ASSERT_TRUE(read.scene) << qPrintable(read.error);
        EXPECT_EQ(near(read.first().positions), near(c.expected));
    }
}

TEST(GLTFSceneReaderAccessors, QuantizedAttributesKeepTheirMeaning)
{
    SceneBuilder b;
    const int positions = b.accessor(b.view<quint16>({0, 0, 0, 0, 2, 0, 0, 0, 0, 2, 0, 0}, 8), kUnsignedShort, 3, "VEC3");
    const int normals = b.accessor(b.view<qint8>({0, 0, 127, 0, 0, 0, 127, 0, 0, 0, 127, 0}, 4), kByte, 3, "VEC3", true);
    // Texture coordinates may be plain integers (scaled by a texture transform) ...
    const int plainUVs = b.accessor(b.view<qint8>({-2, 3, 4, 5, 6, 7}), kByte, 3, "VEC2");
    // ... while a colour or weight is normalised even when the flag is missing.
    const int colours = b.accessor(b.view<quint8>({255, 0, 51, 255, 255, 0, 51, 255, 255, 0, 51, 255}), kUnsignedByte, 3, "VEC4");
    const int weights = b.accessor(b.view<quint16>({65535, 0, 0, 0, 65535, 0, 0, 0, 65535, 0, 0, 0}), kUnsignedShort, 3, "VEC4", true);
    const int joints = b.accessor(b.view<quint8>({1, 2, 3, 4, 1, 2, 3, 4, 1, 2, 3, 4}), kUnsignedByte, 3, "VEC4");
    const Read read = readScene(b.scene({primitive({{"POSITION", positions}, {"NORMAL", normals}, {"TEXCOORD_0", plainUVs},
                                                    {"COLOR_0", colours}, {"WEIGHTS_0", weights}, {"JOINTS_0", joints}})}));
    ASSERT_TRUE(read.scene) << qPrintable(read.error);
    const SceneData::Primitive& p = read.first();
    EXPECT_EQ(p.positions, (std::vector<float>{0, 0, 0, 2, 0, 0, 0, 2, 0}));
    EXPECT_EQ(p.normals, (std::vector<float>{0, 0, 1, 0, 0, 1, 0, 0, 1}));
    EXPECT_EQ(p.texCoords.at(0), (std::vector<float>{-2, 3, 4, 5, 6, 7}));
    EXPECT_EQ(near(p.colors), near({1, 0, 0.2f, 1, 1, 0, 0.2f, 1, 1, 0, 0.2f, 1}));
    EXPECT_EQ(p.weights[4], 1.0f);
    EXPECT_EQ(p.joints[7], 4u);
}

TEST(GLTFSceneReaderAccessors, OutOfBoundsReferencesFail)
{
    const auto sparse = [](int count, int index, int valuesOffset) {
        SceneBuilder b;
        QJsonObject a{{"bufferView", b.view<float>({1, 1, 1, 2, 2, 2, 3, 3, 3})}, {"componentType", kFloat}, {"count", 3}, {"type", "VEC3"}};
        a["sparse"] = QJsonObject{
            {"count", count},
            {"indices", QJsonObject{{"bufferView", b.view<quint16>({quint16(index), 0})}, {"componentType", kUnsignedShort}}},
            {"values", QJsonObject{{"bufferView", b.view<float>({9, 9, 9})}, {"byteOffset", valuesOffset}}}};
        return json(b.scene({primitive({{"POSITION", b.accessor(a)}})}));
    };
    const auto stride = [](int byteStride) {
        SceneBuilder b;
        return json(b.scene({primitive({{"POSITION", b.accessor(b.view<float>({1, 2, 3, 4, 5, 6, 7, 8, 9}, byteStride), kFloat, 2, "VEC3")}})}));
    };
    const auto offset = [](int byteOffset) {
        SceneBuilder b;
        return json(b.scene({primitive({{"POSITION", b.accessor(b.view<float>({1, 2, 3, 4, 5, 6}), kFloat, 2, "VEC3", false, byteOffset)}})}));
    };
    const struct
    {
        const char* name;
        QByteArray bytes;
        const char* message;
    } cases[] = {
        {"sparse index past the elements", sparse(1, 3, 0), "The sparse substitution of accessor 0 replaces element 3 of 3"},
        {"sparse values past their view", sparse(1, 1, 4), "The sparse substitution of accessor 0 reaches past the end"},
        {"more substitutions than elements", sparse(4, 1, 0), "Accessor 0 substitutes 4 of its 3 elements"},
        {"stride past the view", stride(28), "Accessor 0 reaches past the end of its buffer"},
        {"stride over 252", stride(256), "byteStride"},
        {"offset past the view", offset(4), "Accessor 0 reaches past the end of its buffer"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const Read read = readScene(c.bytes);
        EXPECT_FALSE(read.scene);
        EXPECT_TRUE(read.error.contains(QLatin1String(c.message))) << qPrintable(read.error);
    }
    const Read fits = readScene(stride(12));
    EXPECT_TRUE(fits.scene) << qPrintable(fits.error);
}

TEST(GLTFSceneReaderModes, StripsLoopsAndFansArriveAsListsAndIncompleteEndsAreDropped)
{
    using P = SceneData::Primitive;
    const struct
    {
        const char* name;
        int mode;
        std::vector<quint16> indices; // empty: unindexed
        int expectedMode;
        std::vector<quint32> expected; // empty: unindexed
        size_t expectedVertices;
        bool warns;
    } cases[] = {
        {"points", P::kPoints, {}, P::kPoints, {}, 5, false},
        {"line loop", P::kLineLoop, {0, 1, 2}, P::kLines, {0, 1, 1, 2, 2, 0}, 5, false},
        {"line strip", P::kLineStrip, {}, P::kLines, {0, 1, 1, 2, 2, 3, 3, 4}, 5, false},
        {"triangle strip", P::kTriangleStrip, {}, P::kTriangles, {0, 1, 2, 1, 3, 2, 2, 3, 4}, 5, false},
        // Triangles 1 and 2 have no area; the fourth is still drawn as an odd one.
        {"stitched triangle strip", P::kTriangleStrip, {0, 1, 2, 2, 3, 4}, P::kTriangles, {0, 1, 2, 2, 4, 3}, 5, false},
        {"triangle fan", P::kTriangleFan, {4, 0, 1, 2}, P::kTriangles, {0, 1, 4, 1, 2, 4}, 5, false},
        {"lines ending in half a line", P::kLines, {}, P::kLines, {}, 4, true},
        {"triangles ending in part of one", P::kTriangles, {0, 1, 2, 3, 4}, P::kTriangles, {0, 1, 2}, 5, true},
        {"a strip too short for one triangle", P::kTriangleStrip, {0, 1}, P::kTriangles, {}, 0, true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        SceneBuilder b;
        const int positions = b.floats({0, 0, 0, 0, 1, 0, 1, 0, 0, 1, 1, 0, 2, 0, 0}, "VEC3", 3);
        const int normals = b.floats({0, 0, 1, 0, 0, 1, 0, 0, 1, 0, 0, 1, 0, 0, 1}, "VEC3", 3);
        int indices = -1;
        if (!c.indices.empty())
            indices = b.accessor(b.view(c.indices),
                                 kUnsignedShort, int(c.indices.size()), "SCALAR");
        const Read read = readScene(b.scene({primitive({{"POSITION", positions}, {"NORMAL", normals}}, c.mode, indices)}));
        ASSERT_TRUE(read.scene) << qPrintable(read.error);
        const P& p = read.first();
        EXPECT_EQ(p.vertexCount(), c.expectedVertices);
        if (c.expectedVertices == 0)
            continue;
        EXPECT_EQ(p.mode, c.expectedMode);
        EXPECT_EQ(p.indexed, !c.expected.empty());
        EXPECT_EQ(p.indices, c.expected);
        EXPECT_EQ(p.normals.size(), p.positions.size()) << "normals follow the vertices";
        EXPECT_EQ(read.warnings.size(), c.warns ? 1 : 0) << qPrintable(read.warnings.join('\n'));
    }
}

TEST(GLTFSceneReaderModes, UnknownModeSkipsThePrimitiveWithAWarning)
{
    SceneBuilder b;
    const int positions = b.floats({0, 0, 0, 1, 0, 0, 0, 1, 0}, "VEC3", 3);
    const Read read = readScene(b.scene({primitive({{"POSITION", positions}}, 7), primitive({{"POSITION", positions}}, 0)}));
    ASSERT_TRUE(read.scene) << qPrintable(read.error);
    EXPECT_EQ(read.first().vertexCount(), 0u);
    EXPECT_EQ(read.scene->meshes[0].primitives.at(1).vertexCount(), 3u);
    EXPECT_EQ(read.warnings, QStringList{"Mesh 0 ('m') primitive 0 has the unknown mode 7; skipped"});
}

// glTF asks for flat shading when normals are missing; every attribute must follow the split.
TEST(GLTFSceneReaderNormals, TrianglesWithoutNormalsAreFlatShadedAndPointsAndLinesGetNone)
{
    SceneBuilder b;
    // A square folded along its diagonal 0-2: one half in z = 0, the other rising towards vertex 3.
    const int positions = b.floats({0, 0, 0, 1, 0, 0, 1, 1, 0, 0, 1, 1}, "VEC3", 3);
    const int colours = b.floats({0, 0, 0, 1, 1, 1, 1, 1, 2, 2, 2, 1, 3, 3, 3, 1}, "VEC4", 4);
    const int joints = b.accessor(b.view<quint8>({0, 0, 0, 0, 1, 1, 1, 1, 2, 2, 2, 2, 3, 3, 3, 3}), kUnsignedByte, 4, "VEC4");
    const int indices = b.indices({0, 1, 2, 0, 2, 3});
    const QJsonObject attributes{{"POSITION", positions}, {"COLOR_0", colours}, {"JOINTS_0", joints}};
    const Read read = readScene(b.scene({primitive(attributes, 4, indices), primitive(attributes, 1, indices),
                                         primitive(attributes, 0)}));
    ASSERT_TRUE(read.scene) << qPrintable(read.error);
    const SceneData::Primitive& p = read.first();
    ASSERT_EQ(p.vertexCount(), 6u);
    EXPECT_FALSE(p.indexed);
    const float s = 1.0f / std::sqrt(3.0f);
    EXPECT_EQ(near(p.normals), near({0, 0, 1, 0, 0, 1, 0, 0, 1, s, -s, s, s, -s, s, s, -s, s}));
    for (size_t v = 0; v < 6; ++v) {
        const quint32 source = std::vector<quint32>{0, 1, 2, 0, 2, 3}[v];
        EXPECT_EQ(p.colors[v * 4], float(source));
        EXPECT_EQ(p.joints[v * 4 + 3], source);
        EXPECT_EQ(p.positions[v * 3 + 2], source == 3 ? 1.0f : 0.0f);
    }
    EXPECT_TRUE(read.scene->meshes[0].primitives[1].normals.empty());
    EXPECT_TRUE(read.scene->meshes[0].primitives[2].normals.empty());
}

namespace {

// The .glb with every TANGENT attribute taken out of its JSON, so that the reader makes its own.
QByteArray withoutTangents(const QByteArray& glb)
{
    const quint32 jsonLength = qFromLittleEndian<quint32>(glb.constData() + 12);
    QJsonObject root = QJsonDocument::fromJson(glb.mid(20, int(jsonLength))).object();
    QJsonArray meshes = root["meshes"].toArray();
    for (QJsonValueRef mesh : meshes) {
        QJsonObject m = mesh.toObject();
        QJsonArray primitives = m["primitives"].toArray();
        for (QJsonValueRef primitive : primitives) {
            QJsonObject p = primitive.toObject();
            QJsonObject attributes = p["attributes"].toObject();
            attributes.remove("TANGENT");
            p["attributes"] = attributes;
            primitive = p;
        }
        m["primitives"] = primitives;
        mesh = m;
    }
    root["meshes"] = meshes;
    QByteArray text = QJsonDocument(root).toJson(QJsonDocument::Compact);
    while (text.size() % 4)
        text.append(' ');
    const QByteArray binary = glb.mid(20 + int(jsonLength));
    QByteArray out("glTF");
    const auto put = [&](quint32 value) { out.append(reinterpret_cast<const char*>(&value), 4); };
    put(2);
    put(quint32(12 + 8 + text.size() + binary.size()));
    put(quint32(text.size()));
    out.append("JSON");
    return out + text + binary;
}

QVector3D vec3(const std::vector<float>& values, size_t v, size_t width)
{
    return QVector3D(values[v * width], values[v * width + 1], values[v * width + 2]);
}

} // namespace

// The files' tangents were made by MikkTSpace itself; ours must agree with them.
TEST(GLTFSceneReaderTangents, GeneratedTangentsMatchTheOnesSampleFilesCarry)
{
    for (const char* file : {"gltf/NormalTangentMirrorTest/glTF-Binary/NormalTangentMirrorTest.glb",
                             "gltf/AlphaBlendModeTest/glTF-Binary/AlphaBlendModeTest.glb"}) {
        SCOPED_TRACE(file);
        const QByteArray bytes = VyxTest::readTestData(file);
        ASSERT_FALSE(bytes.isEmpty());
        const Read original = readScene(bytes), generated = readScene(withoutTangents(bytes));
        ASSERT_TRUE(original.scene && generated.scene) << qPrintable(original.error + generated.error);
        size_t compared = 0, agreeing = 0;
        for (size_t m = 0; m < original.scene->meshes.size(); ++m)
            for (size_t i = 0; i < original.scene->meshes[m].primitives.size(); ++i) {
                const SceneData::Primitive& a = original.scene->meshes[m].primitives[i];
                const SceneData::Primitive& b = generated.scene->meshes[m].primitives[i];
                // Only a normal map asks for tangents; without one the file's are not needed.
                if (a.tangents.empty() || a.material < 0 || original.scene->materials[size_t(a.material)].normalTexture.texture < 0) {
                    EXPECT_TRUE(b.tangents.empty());
                    continue;
                }
                ASSERT_EQ(b.tangents.size(), b.vertexCount() * 4);
                ASSERT_GE(b.vertexCount(), a.vertexCount());
                for (size_t v = 0; v < a.vertexCount(); ++v) {
                    ++compared;
                    const QVector3D fileTangent = vec3(a.tangents, v, 4).normalized(), ours = vec3(b.tangents, v, 4);
                    EXPECT_NEAR(ours.length(), 1.0f, 1e-4);
                    EXPECT_NEAR(QVector3D::dotProduct(ours, vec3(b.normals, v, 3).normalized()), 0.0f, 1e-4);
                    if (QVector3D::dotProduct(fileTangent, ours) > std::cos(5.0f * float(M_PI) / 180.0f) &&
                        a.tangents[v * 4 + 3] == b.tangents[v * 4 + 3])
                        ++agreeing;
                }
            }
        EXPECT_GT(compared, 50u);
        EXPECT_GE(agreeing, compared * 97 / 100) << agreeing << " of " << compared << " agree";
    }
}

// Two quads in z = 0 sharing the edge x = 1, the right one with its texture mirrored: the shared
// vertices must be split, each triangle's corners keeping the tangent and handedness of their side.
TEST(GLTFSceneReaderTangents, MirroredDegenerateAndMissingUVsAndWhenTangentsAreMade)
{
    const auto scene = [](const QJsonObject& normalTexture, bool fileTangents) {
        SceneBuilder b;
        const int positions = b.floats({0, 0, 0, 1, 0, 0, 1, 1, 0, 0, 1, 0, 2, 0, 0, 2, 1, 0}, "VEC3", 3);
        const int normals = b.floats({0, 0, 1, 0, 0, 1, 0, 0, 1, 0, 0, 1, 0, 0, 1, 0, 0, 1}, "VEC3", 3);
        // glTF's v grows downwards, here along -y; the right quad's u runs back along -x.
        const int mirrored = b.floats({0, 1, 1, 1, 1, 0, 0, 0, 0, 1, 0, 0}, "VEC2", 2);
        const int degenerate = b.floats({0.5f, 0.5f, 0.5f, 0.5f, 0.5f, 0.5f, 0.5f, 0.5f, 0.5f, 0.5f, 0.5f, 0.5f}, "VEC2", 2);
        QJsonObject attributes{{"POSITION", positions}, {"NORMAL", normals}, {"TEXCOORD_0", mirrored}, {"TEXCOORD_1", degenerate}};
        if (fileTangents)
            attributes["TANGENT"] = b.floats({0, 1, 0, 1, 0, 1, 0, 1, 0, 1, 0, 1, 0, 1, 0, 1, 0, 1, 0, 1, 0, 1, 0, 1}, "VEC4", 4);
        QJsonObject material;
        if (!normalTexture.isEmpty())
            material["normalTexture"] = normalTexture;
        return b.scene({primitive(attributes, 4, b.indices({0, 1, 2, 0, 2, 3, 1, 4, 5, 1, 5, 2}), 0)},
                       {{"materials", QJsonArray{material}}, {"textures", QJsonArray{QJsonObject{}}}});
    };
    const auto tangent = [](const SceneData::Primitive& p, size_t v) {
        return QVector4D(p.tangents[4 * v], p.tangents[4 * v + 1], p.tangents[4 * v + 2], p.tangents[4 * v + 3]);
    };

    const Read mirrored = readScene(scene({{"index", 0}}, false));
    ASSERT_TRUE(mirrored.scene) << qPrintable(mirrored.error);
    const SceneData::Primitive& p = mirrored.first();
    ASSERT_EQ(p.vertexCount(), 8u) << "the two vertices on the mirror line are split";
    for (size_t c = 0; c < 12; ++c) {
        const QVector4D expected = c < 6 ? QVector4D(1, 0, 0, 1) : QVector4D(-1, 0, 0, -1);
        EXPECT_LT((tangent(p, p.indices[c]) - expected).length(), 1e-5f) << "corner " << c;
    }

    // A texture transform's set replaces the reference's: set 1, all one point, gives no direction.
    const QJsonObject toSet1{{"index", 0}, {"extensions", QJsonObject{{"KHR_texture_transform", QJsonObject{{"texCoord", 1}}}}}};
    const Read degenerate = readScene(scene(toSet1, false));
    ASSERT_TRUE(degenerate.scene) << qPrintable(degenerate.error);
    const SceneData::Primitive& d = degenerate.first();
    ASSERT_EQ(d.vertexCount(), 6u);
    for (size_t v = 0; v < 6; ++v) {
        EXPECT_NEAR(tangent(d, v).toVector3D().length(), 1.0f, 1e-5f);
        EXPECT_NEAR(tangent(d, v).z(), 0.0f, 1e-5f) << "perpendicular to the normal";
        EXPECT_EQ(std::abs(tangent(d, v).w()), 1.0f);
    }

    EXPECT_TRUE(readScene(scene({}, false)).first().tangents.empty()) << "no normal map";
    EXPECT_TRUE(readScene(scene({{"index", 0}, {"texCoord", 2}}, false)).first().tangents.empty()) << "no such set";
    const Read file = readScene(scene({{"index", 0}}, true));
    EXPECT_EQ(file.first().vertexCount(), 6u);
    EXPECT_EQ(tangent(file.first(), 5), QVector4D(0, 1, 0, 1)) << "the file's tangents stay";
}

TEST(GLTFSceneReaderInstancing, EveryInstanceGetsItsMatrixFromWhicheverAttributesThereAre)
{
    SceneBuilder b;
    const int positions = b.floats({0, 0, 0, 1, 0, 0, 0, 1, 0}, "VEC3", 3);
    const int translations = b.floats({1, 2, 3, -1, 0, 0}, "VEC3", 3);
    // A quarter turn about z, as normalised shorts (KHR_mesh_quantization), then none.
    const int rotations = b.accessor(b.view<qint16>({0, 0, 23170, 23170, 0, 0, 0, 32767}), kShort, 2, "VEC4", true);
    const int scales = b.floats({2, 2, 2, 1, 1, 1, 5, 5, 5}, "VEC3", 3);
    const auto read = [&](const QJsonObject& attributes) {
        const QJsonObject node{{"mesh", 0}, {"extensions", QJsonObject{{"EXT_mesh_gpu_instancing", QJsonObject{{"attributes", attributes}}}}}};
        return readScene(b.scene({primitive({{"POSITION", positions}}, 0)}, {{"nodes", QJsonArray{node}}}));
    };

    const Read both = read({{"TRANSLATION", translations}, {"ROTATION", rotations}});
    ASSERT_TRUE(both.scene) << qPrintable(both.error);
    const std::vector<QMatrix4x4>& instances = both.scene->nodes[0].instances;
    ASSERT_EQ(instances.size(), 2u);
    const QVector3D moved = instances[0].map(QVector3D(1, 0, 0));
    EXPECT_LT((moved - QVector3D(1, 3, 3)).length(), 1e-4f) << "rotated a quarter turn, then moved";
    EXPECT_LT((instances[1].map(QVector3D(1, 0, 0)) - QVector3D(0, 0, 0)).length(), 1e-4f);

    const Read scaled = read({{"SCALE", b.floats({2, 2, 2, 3, 3, 3}, "VEC3", 3)}});
    ASSERT_TRUE(scaled.scene) << qPrintable(scaled.error);
    EXPECT_EQ(scaled.scene->nodes[0].instances.at(1).map(QVector3D(1, 1, 1)), QVector3D(3, 3, 3));

    const Read mismatched = read({{"TRANSLATION", translations}, {"SCALE", scales}});
    EXPECT_FALSE(mismatched.scene);
    EXPECT_EQ(mismatched.error, QStringLiteral("Node 0 has instance attributes of different counts"));

    const Read sample = readScene(VyxTest::readTestData("gltf/SimpleInstancing/glTF-Binary/SimpleInstancing.glb"));
    ASSERT_TRUE(sample.scene) << qPrintable(sample.error);
    EXPECT_EQ(sample.scene->nodes.at(0).instances.size(), 125u);
    EXPECT_TRUE(sample.warnings.isEmpty()) << qPrintable(sample.warnings.join('\n'));
}

TEST(GLTFSceneReaderExtensions, RequiredOnesMustBeSupportedAndUsedOnesWarnOnce)
{
    SceneBuilder b;
    const QJsonArray primitives{primitive({{"POSITION", b.floats({0, 0, 0}, "VEC3", 3)}}, 0)};
    const Read draco = readScene(b.scene(primitives, {{"extensionsUsed", QJsonArray{"KHR_draco_mesh_compression"}},
                                                      {"extensionsRequired", QJsonArray{"KHR_draco_mesh_compression"}}}));
    EXPECT_FALSE(draco.scene);
    EXPECT_EQ(draco.error, QStringLiteral("requires the glTF extension KHR_draco_mesh_compression, which is not supported"));

    const Read used = readScene(b.scene(primitives, {{"extensionsUsed", QJsonArray{"KHR_materials_sheen", "KHR_mesh_quantization", "KHR_materials_sheen"}},
                                                     {"extensionsRequired", QJsonArray{"KHR_mesh_quantization"}}}));
    ASSERT_TRUE(used.scene) << qPrintable(used.error);
    EXPECT_EQ(used.warnings, QStringList{"The glTF extension KHR_materials_sheen is not supported; what it adds is left out"});

    // Each sample that needs one of them loads without a word.
    for (const char* file : {"gltf/Duck/glTF-Quantized/Duck.gltf", "gltf/TextureTransformTest/glTF/TextureTransformTest.gltf",
                             "gltf/UnlitTest/glTF-Binary/UnlitTest.glb", "gltf/EmissiveStrengthTest/glTF-Binary/EmissiveStrengthTest.glb"}) {
        GLTFSceneReader reader;
        EXPECT_TRUE(reader.read(VyxTest::testDataPath(file))) << file << ": " << qPrintable(reader.errorString());
        EXPECT_TRUE(reader.warnings().isEmpty()) << file << ": " << qPrintable(reader.warnings().join('\n'));
    }
}

TEST(GLTFSceneReaderExtensions, TextureTransformsUnlitAndEmissiveStrengthReachTheMaterial)
{
    SceneBuilder b;
    const QJsonObject transform{{"offset", QJsonArray{0.5, -1}}, {"rotation", 1.5}, {"scale", QJsonArray{2, 3}}, {"texCoord", 1}};
    const QJsonObject material{
        {"pbrMetallicRoughness", QJsonObject{{"baseColorTexture", QJsonObject{{"index", 0}, {"extensions", QJsonObject{{"KHR_texture_transform", transform}}}}},
                                             {"metallicRoughnessTexture", QJsonObject{{"index", 0}, {"texCoord", 2}}}}},
        {"occlusionTexture", QJsonObject{{"index", 0}, {"extensions", QJsonObject{{"KHR_texture_transform", QJsonObject{{"rotation", 0.25}}}}}}},
        {"emissiveTexture", QJsonObject{{"index", 0}, {"extensions", QJsonObject{{"KHR_texture_transform", "not an object"}}}}},
        {"extensions", QJsonObject{{"KHR_materials_unlit", QJsonObject{}}, {"KHR_materials_emissive_strength", QJsonObject{{"emissiveStrength", 4}}}}}};
    const Read read = readScene(b.scene({primitive({{"POSITION", b.floats({0, 0, 0}, "VEC3", 3)}}, 0, -1, 0)},
                                        {{"materials", QJsonArray{material, QJsonObject{}}}, {"textures", QJsonArray{QJsonObject{}}}}));
    ASSERT_TRUE(read.scene) << qPrintable(read.error);
    const SceneData::Material& m = read.scene->materials.at(0);
    EXPECT_EQ(m.baseColorTexture.texCoord, 1);
    EXPECT_EQ(m.baseColorTexture.transform.offset, QVector2D(0.5f, -1));
    EXPECT_EQ(m.baseColorTexture.transform.rotation, 1.5f);
    EXPECT_EQ(m.baseColorTexture.transform.scale, QVector2D(2, 3));
    EXPECT_EQ(m.metallicRoughnessTexture.texCoord, 2);
    EXPECT_TRUE(m.metallicRoughnessTexture.transform.isIdentity());
    EXPECT_EQ(m.occlusionTexture.transform.rotation, 0.25f);
    EXPECT_EQ(m.occlusionTexture.transform.scale, QVector2D(1, 1));
    EXPECT_TRUE(m.emissiveTexture.transform.isIdentity());
    EXPECT_TRUE(m.unlit);
    EXPECT_EQ(m.emissiveStrength, 4.0f);
    EXPECT_FALSE(read.scene->materials.at(1).unlit);
    EXPECT_EQ(read.scene->materials.at(1).emissiveStrength, 1.0f);
}

// Files that would otherwise load and show nothing, without a word.
TEST(GLTFSceneReaderMalformed, WhatIsDroppedOrMissingIsNamed)
{
    const auto oneTriangle = [](float x) {
        SceneBuilder b;
        return b.scene({primitive({{"POSITION", b.floats({x, 0, 0, 1, 0, 0, 0, 1, 0}, "VEC3", 3)}})});
    };
    const auto missingScene = [](QJsonObject root) {
        root.remove("scenes");
        root["scene"] = 0;
        return root;
    };
    const QString nothing = QStringLiteral("The file has nothing to draw: no node of its scene has a mesh that can be drawn");
    const struct
    {
        const char* name;
        QJsonObject root;
        QStringList warnings;
    } cases[] = {
        {"infinite position", oneTriangle(std::numeric_limits<float>::infinity()),
         {"Mesh 0 ('m') primitive 0 has positions that are infinite or not a number; skipped",
          "Mesh 0 ('m') has no primitive that can be drawn", nothing}},
        {"NaN position", oneTriangle(std::numeric_limits<float>::quiet_NaN()),
         {"Mesh 0 ('m') primitive 0 has positions that are infinite or not a number; skipped",
          "Mesh 0 ('m') has no primitive that can be drawn", nothing}},
        {"default scene that does not exist", missingScene(oneTriangle(0)),
         {"The file's scene 0 does not exist; every node without a parent is drawn instead"}},
        {"primitives not an array", with(oneTriangle(0), "meshes", 0, "primitives", QJsonObject{{"attributes", QJsonObject{}}}),
         {"Mesh 0 ('m') has no primitives array; it draws nothing", nothing}},
        {"primitive without attributes",
         with(oneTriangle(0), "meshes", 0, "primitives", QJsonArray{QJsonObject{{"mode", 4}}, QJsonObject{{"attributes", QJsonObject{{"POSITION", 0}}}}}),
         {"Mesh 0 ('m') has 1 primitives without attributes; they are left out"}},
        {"no meshes", QJsonObject{{"asset", QJsonObject{{"version", "2.0"}}}, {"scene", 0}, {"scenes", QJsonArray{QJsonObject{}}}},
         {"The file has nothing to draw: it has no meshes"}},
        {"a scene without nodes", with(oneTriangle(0), "scenes", 0, "nodes", QJsonArray{}), {nothing}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const Read read = readScene(c.root);
        ASSERT_TRUE(read.scene) << qPrintable(read.error);
        EXPECT_EQ(read.warnings, c.warnings);
    }
    const Read fallback = readScene(missingScene(oneTriangle(0)));
    EXPECT_EQ(fallback.scene->roots, std::vector<int>{0});
}

namespace {

QJsonObject jsonOf(const QByteArray& file)
{
    if (!file.startsWith("glTF"))
        return QJsonDocument::fromJson(file).object();
    return QJsonDocument::fromJson(file.mid(20, int(qFromLittleEndian<quint32>(file.constData() + 12)))).object();
}

// The bounds of every drawn vertex, placed by its node.
std::pair<QVector3D, QVector3D> worldBounds(const SceneData& scene)
{
    QVector3D low(1e30f, 1e30f, 1e30f), high = -low;
    std::vector<std::pair<int, QMatrix4x4>> stack;
    for (int root : scene.roots)
        stack.emplace_back(root, QMatrix4x4());
    while (!stack.empty()) {
        const auto [index, parent] = stack.back();
        stack.pop_back();
        const SceneData::Node& node = scene.nodes[size_t(index)];
        const QMatrix4x4 world = parent * node.localMatrix();
        if (node.mesh >= 0)
            for (const SceneData::Primitive& p : scene.meshes[size_t(node.mesh)].primitives)
                for (size_t v = 0; v < p.vertexCount(); ++v) {
                    const QVector3D at = world.map(vec3(p.positions, v, 3));
                    low = QVector3D(std::min(low.x(), at.x()), std::min(low.y(), at.y()), std::min(low.z(), at.z()));
                    high = QVector3D(std::max(high.x(), at.x()), std::max(high.y(), at.y()), std::max(high.z(), at.z()));
                }
        for (int child : node.children)
            stack.emplace_back(child, world);
    }
    return {low, high};
}

} // namespace

// A POSITION accessor's min and max bound what it decodes to, sparse substitutions and integer
// encodings included, so a sample's own numbers check the decoding.
TEST(GLTFSceneReaderSamples, SparseAndQuantizedPositionsSpanTheirAccessorsBoundsAndTheSameWorld)
{
    for (const char* file : {"gltf/SimpleSparseAccessor/glTF/SimpleSparseAccessor.gltf", "gltf/Duck/glTF-Quantized/Duck.gltf",
                             "gltf/AnimatedMorphCube/glTF-Quantized/AnimatedMorphCube.gltf", "gltf/MeshPrimitiveModes/glTF/MeshPrimitiveModes.gltf"}) {
        SCOPED_TRACE(file);
        const QByteArray bytes = VyxTest::readTestData(file);
        GLTFSceneReader reader;
        const auto scene = reader.read(VyxTest::testDataPath(file));
        ASSERT_TRUE(scene) << qPrintable(reader.errorString());
        const QJsonObject root = jsonOf(bytes);
        const QJsonArray meshes = root["meshes"].toArray(), accessors = root["accessors"].toArray();
        for (int m = 0; m < meshes.size(); ++m) {
            const QJsonArray primitives = meshes[m].toObject()["primitives"].toArray();
            for (int i = 0; i < primitives.size(); ++i) {
                const QJsonObject accessor = accessors[primitives[i].toObject()["attributes"].toObject()["POSITION"].toInt()].toObject();
                const SceneData::Primitive& p = scene->meshes[size_t(m)].primitives[size_t(i)];
                for (int c = 0; c < 3; ++c) {
                    float low = 1e30f, high = -1e30f;
                    for (size_t v = 0; v < p.vertexCount(); ++v)
                        low = std::min(low, p.positions[v * 3 + size_t(c)]), high = std::max(high, p.positions[v * 3 + size_t(c)]);
                    EXPECT_NEAR(low, accessor["min"].toArray()[c].toDouble(), 1e-5);
                    EXPECT_NEAR(high, accessor["max"].toArray()[c].toDouble(), 1e-5);
                }
            }
        }
    }
    for (const char* name : {"Duck", "AnimatedMorphCube"}) {
        SCOPED_TRACE(name);
        GLTFSceneReader full, quantized;
        const auto a = full.read(VyxTest::testDataPath(QStringLiteral("gltf/%1/glTF-Binary/%1.glb").arg(name)));
        const auto b = quantized.read(VyxTest::testDataPath(QStringLiteral("gltf/%1/glTF-Quantized/%1.gltf").arg(name)));
        ASSERT_TRUE(a && b) << qPrintable(full.errorString() + quantized.errorString());
        const auto [lowA, highA] = worldBounds(*a);
        const auto [lowB, highB] = worldBounds(*b);
        const float extent = (highA - lowA).length();
        EXPECT_LT((lowA - lowB).length(), extent * 0.01f);
        EXPECT_LT((highA - highB).length(), extent * 0.01f);
    }
}

// Every glTF file at hand, broken ones included: no crash, and a file that loads with nothing to
// draw says so.
TEST(GLTFSceneReaderSamples, EveryFileLoadsOrSaysWhyNot)
{
    int files = 0;
    for (const QString& folder : {QStringLiteral("/usr/share/assimp/models/glTF2"), VyxTest::testDataPath("gltf")}) {
        QDirIterator it(folder, {"*.gltf", "*.glb"}, QDir::Files, QDirIterator::Subdirectories);
        while (it.hasNext()) {
            const QString path = it.next();
            SCOPED_TRACE(qPrintable(path));
            ++files;
            GLTFSceneReader reader;
            const auto scene = reader.read(path);
            if (!scene) {
                EXPECT_FALSE(reader.errorString().isEmpty());
                continue;
            }
            const bool drawsSomething = std::any_of(scene->meshes.begin(), scene->meshes.end(), [](const SceneData::Mesh& m) {
                return std::any_of(m.primitives.begin(), m.primitives.end(), [](const SceneData::Primitive& p) { return p.vertexCount() > 0; });
            });
            EXPECT_TRUE(drawsSomething || !reader.warnings().isEmpty());
            for (const SceneData::Mesh& m : scene->meshes)
                for (const SceneData::Primitive& p : m.primitives) {
                    if (p.vertexCount() == 0)
                        continue;
                    EXPECT_TRUE(p.mode == SceneData::Primitive::kPoints || p.mode == SceneData::Primitive::kLines ||
                                p.mode == SceneData::Primitive::kTriangles);
                    EXPECT_TRUE(p.mode != SceneData::Primitive::kTriangles || p.normals.size() == p.positions.size());
                    EXPECT_TRUE(p.tangents.empty() || p.tangents.size() == p.vertexCount() * 4);
                }
        }
    }
    if (files == 0)
        GTEST_SKIP() << "no glTF files installed";
}
