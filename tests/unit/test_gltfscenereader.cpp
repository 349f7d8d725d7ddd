#include "scene/gltfscenereader.h"

#include "gl/drawing/boundingbox.h"
#include "support/gltfbuilder.h"
#include "support/testenvironment.h"

#include <QDirIterator>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QtEndian>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>

using namespace Tavren::Vyx;

namespace {

using namespace VyxTest;
using P = SceneData::Primitive;

QJsonObject primitive(const QJsonObject& attributes, int mode = 4, int indices = -1, int material = -1)
{
    QJsonObject p{{"attributes", attributes}, {"mode", mode}};
    if (indices >= 0)
        p["indices"] = indices;
    if (material >= 0)
        p["material"] = material;
    return p;
}

// One triangle whose positions are accessor 0, its first corner at x.
QJsonObject triangle(const QJsonObject& extra = {}, int material = -1, float x = 0)
{
    GLTFBuilder b;
    return b.scene({primitive({{"POSITION", b.floats({x, 0, 0, 1, 0, 0, 0, 1, 0}, "VEC3", 3)}}, 4, -1, material)}, extra);
}

QVector3D vec3(const std::vector<float>& values, size_t v, size_t width)
{
    return QVector3D(values[v * width], values[v * width + 1], values[v * width + 2]);
}

// A sparse substitution whose indices and values are buffer views 0 and 1.
QJsonObject sparse(int count, int indexType, int valuesOffset = 0)
{
    return {{"count", count},
            {"indices", QJsonObject{{"bufferView", 0}, {"componentType", indexType}}},
            {"values", QJsonObject{{"bufferView", 1}, {"byteOffset", valuesOffset}}}};
}

} // namespace

// Every encoding an attribute may come in ends as the packed floats (or integers) its kind calls
// for; one that reaches outside its data fails with a message naming it.
TEST(GLTFSceneReaderAccessors, EncodingsStridesAndSparseSubstitutionsDecodeOrFail)
{
    const QByteArray nine = bytes<float>({1, 1, 1, 2, 2, 2, 3, 3, 3});
    const QJsonObject vec3s{{"componentType", kFloat}, {"type", "VEC3"}};
    const auto with = [](QJsonObject a, const char* key, const QJsonValue& value) {
        a[key] = value;
        return a;
    };
    const struct
    {
        const char *name, *attribute;
        QJsonObject accessor; // of 3 elements, over `data` when there is any
        QByteArray data;
        int stride;
        std::vector<float> expected; // none: the read fails with `error`
        const char* error;
        QByteArray sparseIndices, sparseValues;
    } cases[] = {
        {"floats at a stride", "POSITION", vec3s, nine, 12, {1, 1, 1, 2, 2, 2, 3, 3, 3}},
        {"plain shorts (quantized)", "POSITION", {{"componentType", kShort}, {"type", "VEC3"}},
         bytes<qint16>({-300, 2, 3, 4, 5, 6, 7, 8, 1000, 0}), 0, {-300, 2, 3, 4, 5, 6, 7, 8, 1000}},
        {"plain unsigned bytes at an offset and stride", "POSITION", {{"componentType", kUnsignedByte}, {"type", "VEC3"}, {"byteOffset", 1}},
         bytes<quint8>({0, 1, 2, 3, 0, 4, 5, 6, 0, 7, 8, 9}), 4, {1, 2, 3, 4, 5, 6, 7, 8, 9}},
        {"normalised bytes", "POSITION", {{"componentType", kByte}, {"type", "VEC3"}, {"normalized", true}},
         bytes<qint8>({127, -127, -128, 0, 0, 0, 0, 0, 0}), 0, {1, -1, -1, 0, 0, 0, 0, 0, 0}},
        {"normalised unsigned shorts", "POSITION", {{"componentType", kUnsignedShort}, {"type", "VEC3"}, {"normalized", true}},
         bytes<quint16>({65535, 0, 0, 0, 32768, 0, 0, 0, 13107, 0}), 0, {1, 0, 0, 0, 0.5f, 0, 0, 0, 0.2f}},
        {"sparse over a buffer view", "POSITION", with(vec3s, "sparse", sparse(2, kUnsignedByte)), nine, 0,
         {7, 7, 7, 2, 2, 2, 9, 9, 9}, nullptr, bytes<quint8>({2, 0}), bytes<float>({9, 9, 9, 7, 7, 7})},
        {"sparse over zeros, quantized", "POSITION", {{"componentType", kShort}, {"type", "VEC3"}, {"sparse", sparse(1, kUnsignedInt)}}, {}, 0,
         {0, 0, 0, -5, 6, 7, 0, 0, 0}, nullptr, bytes<quint32>({1}), bytes<qint16>({-5, 6, 7, 0})},
        // Texture coordinates may be plain integers (scaled by a texture transform) ...
        {"plain bytes as texture coordinates", "TEXCOORD_0", {{"componentType", kByte}, {"type", "VEC2"}},
         bytes<qint8>({-2, 3, 4, 5, 6, 7}), 0, {-2, 3, 4, 5, 6, 7}},
        // ... while a colour is normalised even when the flag is missing, and RGB gains an alpha.
        {"unflagged RGB bytes as colours", "COLOR_0", {{"componentType", kUnsignedByte}, {"type", "VEC3"}},
         bytes<quint8>({255, 0, 51, 0, 0, 255, 0, 0, 0, 0, 255, 0}), 4, {1, 0, 0.2f, 1, 0, 1, 0, 1, 0, 0, 1, 1}},
        {"joints stay integers", "JOINTS_0", {{"componentType", kUnsignedByte}, {"type", "VEC4"}},
         bytes<quint8>({1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12}), 0, {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12}},
        {"sparse index past the elements", "POSITION", with(vec3s, "sparse", sparse(1, kUnsignedShort)), nine, 0, {},
         "The sparse substitution of accessor 0 replaces element 3 of 3", bytes<quint16>({3, 0}), bytes<float>({9, 9, 9})},
        {"sparse values past their view", "POSITION", with(vec3s, "sparse", sparse(1, kUnsignedShort, 4)), nine, 0, {},
         "The sparse substitution of accessor 0 reaches past the end", bytes<quint16>({1, 0}), bytes<float>({9, 9, 9})},
        {"more substitutions than elements", "POSITION", with(vec3s, "sparse", sparse(4, kUnsignedShort)), nine, 0, {},
         "Accessor 0 substitutes 4 of its 3 elements", bytes<quint16>({1, 0}), bytes<float>({9, 9, 9})},
        {"stride past the view", "POSITION", vec3s, nine, 16, {}, "Accessor 0 reaches past the end of its buffer"},
        {"offset past the view", "POSITION", with(vec3s, "byteOffset", 4), nine, 0, {}, "Accessor 0 reaches past the end of its buffer"},
        {"stride below the element", "POSITION", vec3s, nine, 8, {}, "Buffer view 0 has a stride below its element size"},
        {"stride over 252", "POSITION", vec3s, nine, 256, {}, "byteStride"},
        {"wrong component count", "TEXCOORD_0", vec3s, nine, 0, {}, "Accessor 0 has 3 components of an unusable type, 2 wanted"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        GLTFBuilder b;
        QJsonObject accessor = c.accessor;
        accessor["count"] = 3;
        if (!c.sparseIndices.isEmpty())
            b.view(c.sparseIndices), b.view(c.sparseValues);
        if (!c.data.isEmpty())
            accessor["bufferView"] = b.view(c.data, c.stride ? QJsonObject{{"byteStride", c.stride}} : QJsonObject());
        QJsonObject attributes{{c.attribute, b.accessor(accessor)}};
        if (!attributes.contains("POSITION"))
            attributes["POSITION"] = b.floats({0, 0, 0, 1, 0, 0, 0, 1, 0}, "VEC3", 3);
        const SceneRead read = readScene(b.scene({primitive(attributes)}));
        if (c.expected.empty()) {
            EXPECT_FALSE(read.scene);
            EXPECT_TRUE(read.error.contains(QLatin1String(c.error))) << qPrintable(read.error);
            continue;
        }
        ASSERT_TRUE(read.scene) << qPrintable(read.error);
        const P& p = read.first();
        const QString attribute = c.attribute;
        EXPECT_THAT(attribute == "TEXCOORD_0" ? p.texCoords.at(0)
                    : attribute == "COLOR_0"  ? p.colors
                    : attribute == "JOINTS_0" ? std::vector<float>(p.joints.begin(), p.joints.end())
                                              : p.positions,
                    testing::Pointwise(testing::FloatNear(1e-4f), c.expected));
    }
}

TEST(GLTFSceneReader, BrokenScenesFailWithTheirMessage)
{
    const auto nodes = [](const QJsonArray& nodes) { return QJsonDocument(triangle({{"nodes", nodes}})).toJson(); };
    const struct
    {
        const char* name;
        QByteArray bytes;
        const char* message;
    } cases[] = {
        {"missing material", QJsonDocument(triangle({}, 4)).toJson(), "Mesh 0 primitive 0 uses material 4, which does not exist"},
        {"missing child", nodes({QJsonObject{{"mesh", 0}, {"children", QJsonArray{7}}}}), "Node 0 has a child 7 that does not exist"},
        {"node with two parents", nodes({QJsonObject{{"mesh", 0}, {"children", QJsonArray{1}}}, QJsonObject{{"children", QJsonArray{1}}}}),
         "Node 1 has more than one parent"},
        {"missing image", QJsonDocument(triangle({{"textures", QJsonArray{QJsonObject{{"source", 3}}}}})).toJson(),
         "Texture 0 uses image 3, which does not exist"},
        {"unsupported required extension", QJsonDocument(triangle({{"extensionsUsed", QJsonArray{"KHR_meshopt_compression"}},
                                                                   {"extensionsRequired", QJsonArray{"KHR_meshopt_compression"}}})).toJson(),
         "requires the glTF extension KHR_meshopt_compression, which is not supported"},
        {"truncated container", QByteArray("glTF\x02\0\0\0", 8), ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const SceneRead read = readScene(c.bytes);
        EXPECT_FALSE(read.scene);
        EXPECT_FALSE(read.error.isEmpty());
        EXPECT_TRUE(read.error.contains(QLatin1String(c.message))) << qPrintable(read.error);
    }
}

TEST(GLTFSceneReader, ExternalImagesAreResolvedNotReadAndAMissingOneWarns)
{
    QTemporaryDir folder;
    QFile present(folder.filePath("present image.png"));
    ASSERT_TRUE(present.open(QIODevice::WriteOnly));
    present.write("not decoded here");
    present.close();
    const QJsonArray images{QJsonObject{{"uri", "present%20image.png"}}, QJsonObject{{"uri", "gone.png"}}};
    GLTFSceneReader reader;
    const auto scene = reader.readFromMemory(QJsonDocument(triangle({{"images", images}})).toJson(), folder.path());
    ASSERT_TRUE(scene) << qPrintable(reader.errorString());
    EXPECT_EQ(reader.warnings(), QStringList{"Image 1 ('gone.png') could not be loaded; it renders white"});
    EXPECT_EQ(scene->images.at(0).path, present.fileName());
    EXPECT_TRUE(scene->images.at(0).bytes.isEmpty());
    EXPECT_TRUE(scene->images.at(1).path.isEmpty());
}

TEST(GLTFSceneReaderModes, StripsLoopsAndFansArriveAsListsAndIncompleteEndsAreDropped)
{
    const struct
    {
        const char* name;
        int mode;
        std::vector<quint16> indices; // none: unindexed
        int expectedMode;
        std::vector<quint32> expected; // none: unindexed
        size_t expectedVertices;
        const char* warning;
    } cases[] = {
        {"points", P::kPoints, {}, P::kPoints, {}, 5, nullptr},
        {"line loop", P::kLineLoop, {0, 1, 2}, P::kLines, {0, 1, 1, 2, 2, 0}, 5, nullptr},
        {"line strip", P::kLineStrip, {}, P::kLines, {0, 1, 1, 2, 2, 3, 3, 4}, 5, nullptr},
        {"triangle strip", P::kTriangleStrip, {}, P::kTriangles, {0, 1, 2, 1, 3, 2, 2, 3, 4}, 5, nullptr},
        // Triangles 1 and 2 have no area; the fourth is still drawn as an odd one.
        {"stitched triangle strip", P::kTriangleStrip, {0, 1, 2, 2, 3, 4}, P::kTriangles, {0, 1, 2, 2, 4, 3}, 5, nullptr},
        {"triangle fan", P::kTriangleFan, {4, 0, 1, 2}, P::kTriangles, {0, 1, 4, 1, 2, 4}, 5, nullptr},
        {"lines ending in half a line", P::kLines, {}, P::kLines, {}, 4, "ends in an incomplete line"},
        {"triangles ending in part of one", P::kTriangles, {0, 1, 2, 3, 4}, P::kTriangles, {0, 1, 2}, 5, "ends in an incomplete triangle"},
        {"a strip too short for one triangle", P::kTriangleStrip, {0, 1}, P::kTriangles, {}, 0, "ends in an incomplete triangle"},
        {"an unknown mode", 7, {}, P::kTriangles, {}, 0, "Mesh 0 ('m') primitive 0 has the unknown mode 7; skipped"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        GLTFBuilder b;
        const QJsonObject attributes{{"POSITION", b.floats({0, 0, 0, 0, 1, 0, 1, 0, 0, 1, 1, 0, 2, 0, 0}, "VEC3", 3)},
                                     {"NORMAL", b.floats({0, 0, 1, 0, 0, 1, 0, 0, 1, 0, 0, 1, 0, 0, 1}, "VEC3", 3)}};
        const int indices = c.indices.empty() ? -1 : b.accessor(bytes(c.indices), kUnsignedShort, int(c.indices.size()), "SCALAR");
        // The second primitive draws, so any warning is about the first.
        const SceneRead read = readScene(b.scene({primitive(attributes, c.mode, indices), primitive(attributes, P::kPoints)}));
        ASSERT_TRUE(read.scene) << qPrintable(read.error);
        EXPECT_EQ(read.warnings.size(), c.warning ? 1 : 0) << qPrintable(read.warnings.join('\n'));
        EXPECT_TRUE(!c.warning || read.warnings.join('\n').contains(QLatin1String(c.warning))) << qPrintable(read.warnings.join('\n'));
        const P& p = read.first();
        EXPECT_EQ(p.vertexCount(), c.expectedVertices);
        if (c.expectedVertices == 0)
            continue;
        EXPECT_EQ(p.mode, c.expectedMode);
        EXPECT_EQ(p.indexed, !c.expected.empty());
        EXPECT_EQ(p.indices, c.expected);
        EXPECT_EQ(p.normals.size(), p.positions.size()) << "normals follow the vertices";
    }
}

// glTF asks for flat shading when normals are missing; every attribute, both influence sets and
// the morph targets included, must follow the split.
TEST(GLTFSceneReaderNormals, TrianglesWithoutNormalsAreFlatShadedAndPointsAndLinesGetNone)
{
    GLTFBuilder b;
    // A square folded along its diagonal 0-2: one half in z = 0, the other rising towards vertex 3.
    const QJsonObject attributes{
        {"POSITION", b.floats({0, 0, 0, 1, 0, 0, 1, 1, 0, 0, 1, 1}, "VEC3", 3)},
        {"COLOR_0", b.floats({0, 0, 0, 1, 1, 1, 1, 1, 2, 2, 2, 1, 3, 3, 3, 1}, "VEC4", 4)},
        {"JOINTS_0", b.accessor(bytes<quint8>({0, 0, 0, 0, 1, 1, 1, 1, 2, 2, 2, 2, 3, 3, 3, 3}), kUnsignedByte, 4, "VEC4")},
        {"JOINTS_1", b.accessor(bytes<quint8>({0, 0, 0, 0, 0, 0, 0, 10, 0, 0, 0, 20, 0, 0, 0, 30}), kUnsignedByte, 4, "VEC4")},
        {"WEIGHTS_1", b.floats(std::vector<float>(16, 0.125f), "VEC4", 4)}};
    const int indices = b.accessor(bytes<quint8>({0, 1, 2, 0, 2, 3}), kUnsignedByte, 6, "SCALAR");
    QJsonObject morphed = primitive(attributes, 4, indices);
    morphed["targets"] = QJsonArray{QJsonObject{{"POSITION", b.floats({0, 0, 0, 1, 0, 0, 2, 0, 0, 3, 0, 0}, "VEC3", 3)}}};
    const SceneRead read = readScene(b.scene({morphed, primitive(attributes, 1, indices), primitive(attributes, 0)}));
    ASSERT_TRUE(read.scene) << qPrintable(read.error);
    const P& p = read.first();
    ASSERT_EQ(p.vertexCount(), 6u);
    EXPECT_FALSE(p.indexed);
    const float s = 1.0f / std::sqrt(3.0f);
    EXPECT_THAT(p.normals, testing::Pointwise(testing::FloatNear(1e-6f), std::vector<float>{0, 0, 1, 0, 0, 1, 0, 0, 1, s, -s, s, s, -s, s, s, -s, s}));
    const quint32 sources[] = {0, 1, 2, 0, 2, 3};
    ASSERT_EQ(p.influenceSets, 2);
    ASSERT_EQ(p.targets.size(), 1u);
    for (size_t v = 0; v < 6; ++v) {
        EXPECT_EQ(p.colors[v * 4], float(sources[v]));
        EXPECT_EQ(p.joints[v * 8 + 3], sources[v]);
        EXPECT_EQ(p.joints[v * 8 + 7], sources[v] * 10);
        EXPECT_EQ(p.weights[v * 8], 0.0f) << "joints without weights weigh nothing";
        EXPECT_EQ(p.weights[v * 8 + 4], 0.125f);
        EXPECT_EQ(p.targets[0].positions[v * 3], float(sources[v]));
        EXPECT_EQ(p.positions[v * 3 + 2], sources[v] == 3 ? 1.0f : 0.0f);
    }
    EXPECT_TRUE(read.scene->meshes[0].primitives[1].normals.empty());
    EXPECT_TRUE(read.scene->meshes[0].primitives[2].normals.empty());
}

// Default weights fill up to the targets; a node's own weights stand beside them. A skin that
// cannot be applied loses its joints, with a warning, and the scene still loads.
TEST(GLTFSceneReaderDeformation, MorphWeightsAndSkinsThatCannotBeApplied)
{
    GLTFBuilder b;
    const int position = b.floats({0, 0, 0, 1, 0, 0, 0, 1, 0}, "VEC3", 3);
    const int delta = b.floats({0, 0, 1, 0, 0, 1, 0, 0, 1}, "VEC3", 3);
    const int bind = b.floats(std::vector<float>{1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1}, "MAT4", 16);
    QJsonObject p = primitive({{"POSITION", position}});
    p["targets"] = QJsonArray{QJsonObject{{"POSITION", delta}}, QJsonObject{{"NORMAL", delta}}};
    QJsonObject root = b.scene({p});
    root["meshes"] = QJsonArray{QJsonObject{{"primitives", QJsonArray{p}}, {"weights", QJsonArray{0.25}}}};
    root["nodes"] = QJsonArray{QJsonObject{{"mesh", 0}, {"weights", QJsonArray{0.5, 0.75}}, {"skin", 0}, {"children", QJsonArray{1, 2}}},
                               QJsonObject{}, QJsonObject{}};
    root["skins"] = QJsonArray{QJsonObject{{"joints", QJsonArray{1, 2}}, {"inverseBindMatrices", bind}},
                               QJsonObject{{"joints", QJsonArray{1}}, {"inverseBindMatrices", bind}}};
    const SceneRead read = readScene(root);
    ASSERT_TRUE(read.scene) << qPrintable(read.error);
    EXPECT_EQ(read.scene->meshes[0].weights, (std::vector<float>{0.25f, 0.0f}));
    EXPECT_EQ(read.scene->nodes[0].weights, (std::vector<float>{0.5f, 0.75f}));
    EXPECT_EQ(read.first().targets[1].normals.size(), 9u);
    EXPECT_TRUE(read.scene->skins[0].joints.empty());
    EXPECT_TRUE(read.warnings.join('\n').contains("Skin 0 has 1 inverse bind matrices for 2 joints")) << qPrintable(read.warnings.join('\n'));
    EXPECT_EQ(read.scene->skins[1].joints, std::vector<int>{1});
}

// The files' tangents were made by MikkTSpace itself; ours, made once they are taken out of the
// JSON, must agree with them.
TEST(GLTFSceneReaderTangents, GeneratedTangentsMatchTheOnesSampleFilesCarry)
{
    for (const char* file : {"gltf/NormalTangentMirrorTest/glTF-Binary/NormalTangentMirrorTest.glb",
                             "gltf/AlphaBlendModeTest/glTF-Binary/AlphaBlendModeTest.glb"}) {
        SCOPED_TRACE(file);
        const QByteArray glb = VyxTest::readTestData(file);
        const int jsonLength = int(qFromLittleEndian<quint32>(glb.constData() + 12));
        QByteArray text = QString::fromUtf8(glb.mid(20, jsonLength)).remove(QRegularExpression(R"("TANGENT"\s*:\s*\d+\s*,|,\s*"TANGENT"\s*:\s*\d+)")).toUtf8();
        text.append(QByteArray((4 - text.size() % 4) % 4, ' '));
        QByteArray stripped = glb.left(20) + text + glb.mid(20 + jsonLength);
        qToLittleEndian<quint32>(quint32(stripped.size()), stripped.data() + 8);
        qToLittleEndian<quint32>(quint32(text.size()), stripped.data() + 12);

        const SceneRead original = readScene(glb), generated = readScene(stripped);
        ASSERT_TRUE(original.scene && generated.scene) << qPrintable(original.error + generated.error);
        size_t compared = 0, agreeing = 0;
        for (size_t m = 0; m < original.scene->meshes.size(); ++m)
            for (size_t i = 0; i < original.scene->meshes[m].primitives.size(); ++i) {
                const P& a = original.scene->meshes[m].primitives[i];
                const P& b = generated.scene->meshes[m].primitives[i];
                // Only a normal map asks for tangents; without one the file's are not needed.
                if (a.tangents.empty() || a.material < 0 || original.scene->materials[size_t(a.material)].normalTexture.texture < 0) {
                    EXPECT_TRUE(b.tangents.empty());
                    continue;
                }
                ASSERT_EQ(b.tangents.size(), b.vertexCount() * 4);
                ASSERT_GE(b.vertexCount(), a.vertexCount());
                for (size_t v = 0; v < a.vertexCount(); ++v, ++compared) {
                    const QVector3D ours = vec3(b.tangents, v, 4);
                    EXPECT_NEAR(ours.length(), 1.0f, 1e-4);
                    EXPECT_NEAR(QVector3D::dotProduct(ours, vec3(b.normals, v, 3).normalized()), 0.0f, 1e-4);
                    agreeing += QVector3D::dotProduct(vec3(a.tangents, v, 4).normalized(), ours) > std::cos(5.0f * float(M_PI) / 180.0f) &&
                                a.tangents[v * 4 + 3] == b.tangents[v * 4 + 3];
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
    const auto read = [](const QJsonObject& normalTexture, bool fileTangents = false) {
        GLTFBuilder b;
        // glTF's v grows downwards, here along -y; the right quad's u runs back along -x. Set 1 is all one point.
        QJsonObject attributes{{"POSITION", b.floats({0, 0, 0, 1, 0, 0, 1, 1, 0, 0, 1, 0, 2, 0, 0, 2, 1, 0}, "VEC3", 3)},
                               {"NORMAL", b.floats({0, 0, 1, 0, 0, 1, 0, 0, 1, 0, 0, 1, 0, 0, 1, 0, 0, 1}, "VEC3", 3)},
                               {"TEXCOORD_0", b.floats({0, 1, 1, 1, 1, 0, 0, 0, 0, 1, 0, 0}, "VEC2", 2)},
                               {"TEXCOORD_1", b.floats(std::vector<float>(12, 0.5f), "VEC2", 2)}};
        if (fileTangents)
            attributes["TANGENT"] = b.floats({0, 1, 0, 1, 0, 1, 0, 1, 0, 1, 0, 1, 0, 1, 0, 1, 0, 1, 0, 1, 0, 1, 0, 1}, "VEC4", 4);
        const int indices = b.accessor(bytes<quint16>({0, 1, 2, 0, 2, 3, 1, 4, 5, 1, 5, 2}), kUnsignedShort, 12, "SCALAR");
        const QJsonObject material = normalTexture.isEmpty() ? QJsonObject() : QJsonObject{{"normalTexture", normalTexture}};
        return readScene(b.scene({primitive(attributes, 4, indices, 0)}, {{"materials", QJsonArray{material}}, {"textures", QJsonArray{QJsonObject{}}}}));
    };
    const auto tangent = [](const P& p, size_t v) { return QVector4D(p.tangents[4 * v], p.tangents[4 * v + 1], p.tangents[4 * v + 2], p.tangents[4 * v + 3]); };

    const SceneRead mirrored = read({{"index", 0}});
    ASSERT_TRUE(mirrored.scene) << qPrintable(mirrored.error);
    const P& p = mirrored.first();
    ASSERT_EQ(p.vertexCount(), 8u) << "the two vertices on the mirror line are split";
    for (size_t c = 0; c < 12; ++c)
        EXPECT_LT((tangent(p, p.indices[c]) - (c < 6 ? QVector4D(1, 0, 0, 1) : QVector4D(-1, 0, 0, -1))).length(), 1e-5f) << "corner " << c;

    // A texture transform's set replaces the reference's: set 1 gives no direction, yet each tangent is usable.
    const SceneRead degenerate = read({{"index", 0}, {"extensions", QJsonObject{{"KHR_texture_transform", QJsonObject{{"texCoord", 1}}}}}});
    ASSERT_TRUE(degenerate.scene) << qPrintable(degenerate.error);
    const P& d = degenerate.first();
    ASSERT_EQ(d.vertexCount(), 6u);
    for (size_t v = 0; v < 6; ++v) {
        EXPECT_NEAR(tangent(d, v).toVector3D().length(), 1.0f, 1e-5f);
        EXPECT_NEAR(tangent(d, v).z(), 0.0f, 1e-5f) << "perpendicular to the normal";
        EXPECT_EQ(std::abs(tangent(d, v).w()), 1.0f);
    }

    EXPECT_TRUE(read({}).first().tangents.empty()) << "no normal map";
    EXPECT_TRUE(read({{"index", 0}, {"texCoord", 2}}).first().tangents.empty()) << "no such set";
    const SceneRead file = read({{"index", 0}}, true);
    EXPECT_EQ(file.first().vertexCount(), 6u);
    EXPECT_EQ(tangent(file.first(), 5), QVector4D(0, 1, 0, 1)) << "the file's tangents stay";
}

TEST(GLTFSceneReaderInstancing, EveryInstanceGetsItsMatrixFromWhicheverAttributesThereAre)
{
    GLTFBuilder b;
    const int positions = b.floats({0, 0, 0, 1, 0, 0, 0, 1, 0}, "VEC3", 3);
    const int translations = b.floats({1, 2, 3, -1, 0, 0}, "VEC3", 3);
    // A quarter turn about z, as normalised shorts (KHR_mesh_quantization), then none.
    const int rotations = b.accessor(bytes<qint16>({0, 0, 23170, 23170, 0, 0, 0, 32767}), kShort, 2, "VEC4", true);
    const auto read = [&](const QJsonObject& attributes) {
        const QJsonObject node{{"mesh", 0}, {"extensions", QJsonObject{{"EXT_mesh_gpu_instancing", QJsonObject{{"attributes", attributes}}}}}};
        return readScene(b.scene({primitive({{"POSITION", positions}}, 0)}, {{"nodes", QJsonArray{node}}}));
    };

    const SceneRead both = read({{"TRANSLATION", translations}, {"ROTATION", rotations}});
    ASSERT_TRUE(both.scene) << qPrintable(both.error);
    const std::vector<QMatrix4x4>& instances = both.scene->nodes[0].instances;
    ASSERT_EQ(instances.size(), 2u);
    EXPECT_LT((instances[0].map(QVector3D(1, 0, 0)) - QVector3D(1, 3, 3)).length(), 1e-4f) << "rotated a quarter turn, then moved";
    EXPECT_LT((instances[1].map(QVector3D(1, 0, 0)) - QVector3D(0, 0, 0)).length(), 1e-4f);

    const SceneRead scaled = read({{"SCALE", b.floats({2, 2, 2, 3, 3, 3}, "VEC3", 3)}});
    ASSERT_TRUE(scaled.scene) << qPrintable(scaled.error);
    EXPECT_EQ(scaled.scene->nodes[0].instances.at(1).map(QVector3D(1, 1, 1)), QVector3D(3, 3, 3));

    const SceneRead mismatched = read({{"TRANSLATION", translations}, {"SCALE", b.floats({2, 2, 2, 1, 1, 1, 5, 5, 5}, "VEC3", 3)}});
    EXPECT_FALSE(mismatched.scene);
    EXPECT_EQ(mismatched.error, QStringLiteral("Node 0 has instance attributes of different counts"));
}

// Each sample that needs a supported extension loads without a word.
TEST(GLTFSceneReaderExtensions, SamplesThatNeedSupportedOnesLoadQuietly)
{
    for (const char* file : {"gltf/Duck/glTF-Quantized/Duck.gltf", "gltf/TextureTransformTest/glTF/TextureTransformTest.gltf",
                             "gltf/UnlitTest/glTF-Binary/UnlitTest.glb", "gltf/EmissiveStrengthTest/glTF-Binary/EmissiveStrengthTest.glb",
                             "gltf/SimpleInstancing/glTF-Binary/SimpleInstancing.glb"}) {
        GLTFSceneReader reader;
        EXPECT_TRUE(reader.read(VyxTest::testDataPath(file))) << file << ": " << qPrintable(reader.errorString());
        EXPECT_TRUE(reader.warnings().isEmpty()) << file << ": " << qPrintable(reader.warnings().join('\n'));
    }
}

// The GL feature tests show the base colour's transform on screen; here the other slots and what
// a material leaves out.
TEST(GLTFSceneReaderExtensions, TextureTransformsUnlitAndEmissiveStrengthReachTheMaterial)
{
    const auto transformed = [](const QJsonValue& transform) {
        return QJsonObject{{"index", 0}, {"extensions", QJsonObject{{"KHR_texture_transform", transform}}}};
    };
    const QJsonObject material{
        {"pbrMetallicRoughness", QJsonObject{{"metallicRoughnessTexture", QJsonObject{{"index", 0}, {"texCoord", 2}}}}},
        {"occlusionTexture", transformed(QJsonObject{{"offset", QJsonArray{0.5, -1}}, {"rotation", 0.25}, {"texCoord", 1}})},
        {"emissiveTexture", transformed("not an object")},
        {"extensions", QJsonObject{{"KHR_materials_unlit", QJsonObject{}}, {"KHR_materials_emissive_strength", QJsonObject{{"emissiveStrength", 4}}}}}};
    const SceneRead read = readScene(triangle({{"materials", QJsonArray{material, QJsonObject{}}}, {"textures", QJsonArray{QJsonObject{}}}}, 0));
    ASSERT_TRUE(read.scene) << qPrintable(read.error);
    const SceneData::Material &m = read.scene->materials.at(0), &plain = read.scene->materials.at(1);
    EXPECT_EQ(m.occlusionTexture.texCoord, 1);
    EXPECT_EQ(m.occlusionTexture.transform.offset, QVector2D(0.5f, -1));
    EXPECT_EQ(m.occlusionTexture.transform.rotation, 0.25f);
    EXPECT_EQ(m.occlusionTexture.transform.scale, QVector2D(1, 1));
    EXPECT_EQ(m.metallicRoughnessTexture.texCoord, 2);
    EXPECT_TRUE(m.metallicRoughnessTexture.transform.isIdentity());
    EXPECT_TRUE(m.emissiveTexture.transform.isIdentity());
    EXPECT_TRUE(m.unlit && !plain.unlit);
    EXPECT_EQ(m.emissiveStrength, 4.0f);
    EXPECT_EQ(plain.emissiveStrength, 1.0f);
}

// Files that would otherwise load and show nothing, without a word.
TEST(GLTFSceneReaderMalformed, WhatIsDroppedOrMissingIsNamed)
{
    const QString nothing = QStringLiteral("The file has nothing to draw: no node of its scene has a mesh that can be drawn");
    const QStringList notFinite{"Mesh 0 ('m') primitive 0 has positions that are infinite or not a number; skipped",
                                "Mesh 0 ('m') has no primitive that can be drawn", nothing};
    const auto primitives = [](const QJsonValue& primitives) {
        return triangle({{"meshes", QJsonArray{QJsonObject{{"name", "m"}, {"primitives", primitives}}}}});
    };
    QJsonObject missingScene = triangle({{"scene", 0}});
    missingScene.remove("scenes");
    const struct
    {
        const char* name;
        QJsonObject root;
        QStringList warnings;
    } cases[] = {
        {"infinite position", triangle({}, -1, std::numeric_limits<float>::infinity()), notFinite},
        {"NaN position", triangle({}, -1, std::numeric_limits<float>::quiet_NaN()), notFinite},
        {"default scene that does not exist", missingScene, {"The file's scene 0 does not exist; every node without a parent is drawn instead"}},
        {"primitives not an array", primitives(QJsonObject{}), {"Mesh 0 ('m') has no primitives array; it draws nothing", nothing}},
        {"primitive without attributes", primitives(QJsonArray{QJsonObject{{"mode", 4}}, QJsonObject{{"attributes", QJsonObject{{"POSITION", 0}}}}}),
         {"Mesh 0 ('m') has 1 primitives without attributes; they are left out"}},
        {"no meshes", QJsonObject{{"asset", QJsonObject{{"version", "2.0"}}}, {"scene", 0}, {"scenes", QJsonArray{QJsonObject{}}}},
         {"The file has nothing to draw: it has no meshes"}},
        {"a scene without nodes", triangle({{"scenes", QJsonArray{QJsonObject{}}}}), {nothing}},
        {"unsupported extensions used, one twice", triangle({{"extensionsUsed", QJsonArray{"KHR_materials_iridescence", "KHR_mesh_quantization", "KHR_materials_iridescence"}},
                                                             {"extensionsRequired", QJsonArray{"KHR_mesh_quantization"}}}),
         {"The glTF extension KHR_materials_iridescence is not supported; what it adds is left out"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const SceneRead read = readScene(c.root);
        ASSERT_TRUE(read.scene) << qPrintable(read.error);
        EXPECT_EQ(read.warnings, c.warnings);
    }
    EXPECT_EQ(readScene(missingScene).scene->roots, std::vector<int>{0});
}

namespace {

// Grows `box` by every drawn vertex below `node`, placed by the nodes.
void grow(const SceneData& scene, int node, const QMatrix4x4& parent, BoundingBox& box)
{
    const SceneData::Node& n = scene.nodes[size_t(node)];
    const QMatrix4x4 world = parent * n.localMatrix();
    if (n.mesh >= 0)
        for (const P& p : scene.meshes[size_t(n.mesh)].primitives)
            for (size_t v = 0; v < p.vertexCount(); ++v)
                box.expand(world.map(vec3(p.positions, v, 3)));
    for (int child : n.children)
        grow(scene, child, world, box);
}

} // namespace

// Quantized samples keep their integer positions and move the scaling into their nodes: placed,
// they must fill the same world as their float originals.
TEST(GLTFSceneReaderSamples, QuantizedSamplesFillTheSameWorldAsTheirFloatOriginals)
{
    for (const QString name : {"Duck", "AnimatedMorphCube"}) {
        SCOPED_TRACE(qPrintable(name));
        BoundingBox boxes[2];
        for (int q = 0; q < 2; ++q) {
            GLTFSceneReader reader;
            const auto scene = reader.read(VyxTest::testDataPath(QString(q ? "gltf/%1/glTF-Quantized/%1.gltf" : "gltf/%1/glTF-Binary/%1.glb").arg(name)));
            ASSERT_TRUE(scene) << qPrintable(reader.errorString());
            for (int root : scene->roots)
                grow(*scene, root, QMatrix4x4(), boxes[q]);
        }
        const float extent = boxes[0].size().length();
        EXPECT_LT((boxes[0].minimum() - boxes[1].minimum()).length(), extent * 0.01f);
        EXPECT_LT((boxes[0].maximum() - boxes[1].maximum()).length(), extent * 0.01f);
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
            bool drawsSomething = false;
            for (const SceneData::Mesh& m : scene->meshes)
                for (const P& p : m.primitives) {
                    if (p.vertexCount() == 0)
                        continue;
                    drawsSomething = true;
                    EXPECT_TRUE(p.mode == P::kPoints || p.mode == P::kLines || p.mode == P::kTriangles);
                    EXPECT_TRUE(p.mode != P::kTriangles || p.normals.size() == p.positions.size());
                    EXPECT_TRUE(p.tangents.empty() || p.tangents.size() == p.vertexCount() * 4);
                }
            EXPECT_TRUE(drawsSomething || !reader.warnings().isEmpty());
        }
    }
    if (files == 0)
        GTEST_SKIP() << "no glTF files installed";
}
