// Compressed glTF geometry: Draco primitives and meshopt buffer views decode to what their
// uncompressed originals hold, and data that cannot be decoded costs only what uses it.
#include "scene/gltfscenereader.h"

#include "support/gltfbuilder.h"
#include "support/testenvironment.h"

#include <QFileInfo>
#include <QJsonArray>
#include <QJsonObject>

#include <draco/compression/encode.h>
#include <draco/mesh/mesh.h>
#include <meshoptimizer.h>

#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <cstdio>
#include <functional>
#include <limits>
#include <map>
#include <tuple>

using namespace Tavren::Vyx;

namespace {

using namespace VyxTest;
using P = SceneData::Primitive;

struct Corner
{
    QVector3D position, normal;
    QVector2D uv;
    std::map<quint32, float> influences;  // the weight of each joint, both sets together
    std::vector<QVector3D> morphs;        // each target's position delta, in world space
};
using Triangle = std::array<Corner, 3>;

// Every triangle the scene draws with some area, in world space, with the texture coordinates the base colour
// is sampled at (after its texture transform, which quantized files use to scale them back), its
// skin influences and morph deltas: all a renderer takes from the geometry.
std::vector<Triangle> worldTriangles(const SceneData& scene)
{
    std::vector<Triangle> triangles;
    std::vector<std::pair<int, QMatrix4x4>> stack;
    for (int root : scene.roots)
        stack.emplace_back(root, QMatrix4x4());
    while (!stack.empty()) {
        const auto [index, parent] = stack.back();
        stack.pop_back();
        const SceneData::Node& node = scene.nodes[size_t(index)];
        const QMatrix4x4 world = parent * node.localMatrix();
        for (int child : node.children)
            stack.emplace_back(child, world);
        if (node.mesh < 0)
            continue;
        for (const P& p : scene.meshes[size_t(node.mesh)].primitives) {
            if (p.mode != P::kTriangles || p.vertexCount() == 0)
                continue;
            float row0[3] = {1, 0, 0}, row1[3] = {0, 1, 0};
            if (p.material >= 0)
                scene.materials[size_t(p.material)].baseColorTexture.transform.rows(row0, row1);
            const QMatrix4x4 normals(world.normalMatrix());
            const size_t corners = p.indexed ? p.indices.size() : p.vertexCount();
            for (size_t c = 0; c + 2 < corners; c += 3) {
                Triangle t;
                for (size_t k = 0; k < 3; ++k) {
                    const size_t v = p.indexed ? p.indices[c + k] : c + k;
                    t[k].position = world.map(QVector3D(p.positions[3 * v], p.positions[3 * v + 1], p.positions[3 * v + 2]));
                    t[k].normal = normals.mapVector(QVector3D(p.normals[3 * v], p.normals[3 * v + 1], p.normals[3 * v + 2])).normalized();
                    if (!p.texCoords.empty()) {
                        const float u = p.texCoords[0][2 * v], w = p.texCoords[0][2 * v + 1];
                        t[k].uv = QVector2D(row0[0] * u + row0[1] * w + row0[2], row1[0] * u + row1[1] * w + row1[2]);
                    }
                    const size_t influences = size_t(p.influenceSets) * 4;
                    for (size_t i = 0; i < influences; ++i)
                        t[k].influences[p.joints[influences * v + i]] += p.weights[influences * v + i];
                    for (const P::MorphTarget& target : p.targets)
                        t[k].morphs.push_back(world.mapVector(QVector3D(target.positions[3 * v], target.positions[3 * v + 1],
                                                                        target.positions[3 * v + 2])));
                }
                // Encoders drop triangles that repeat a corner: they draw nothing.
                if (t[0].position != t[1].position && t[1].position != t[2].position && t[0].position != t[2].position)
                    triangles.push_back(t);
            }
        }
    }
    return triangles;
}

struct Deviation
{
    float position = 0, normal = 0, uv = 0, influence = 0, morph = 0;
};

// How far apart two corners' influences are: the weights that move from one joint to another.
float influenceDistance(const std::map<quint32, float>& a, std::map<quint32, float> b)
{
    for (const auto& [joint, weight] : a)
        b[joint] -= weight;
    float distance = 0;
    for (const auto& [joint, weight] : b)
        distance += std::abs(weight);
    return distance;
}

// Pairs every triangle of `actual` with a distinct one of `expected` whose corners lie within
// `tolerance` of its own, in the same winding from any corner. Returns how many of either found
// no partner, apart from those of `expected` so small that quantization collapses them; `worst`
// receives the largest deviation of each kind among the pairs.
size_t unmatchedTriangles(const std::vector<Triangle>& expected, const std::vector<Triangle>& actual, float tolerance,
                          Deviation& worst)
{
    using Cell = std::tuple<int, int, int>;
    const float cellSize = 2 * tolerance;
    const auto cellOf = [&](const Triangle& t) {
        const QVector3D c = (t[0].position + t[1].position + t[2].position) / (3 * cellSize);
        return Cell(int(std::floor(c.x())), int(std::floor(c.y())), int(std::floor(c.z())));
    };
    std::map<Cell, std::vector<size_t>> cells;
    for (size_t i = 0; i < expected.size(); ++i)
        cells[cellOf(expected[i])].push_back(i);
    std::vector<bool> used(expected.size(), false);
    size_t unmatched = 0;
    for (const Triangle& t : actual) {
        const auto [x, y, z] = cellOf(t);
        size_t best = expected.size(), bestRotation = 0;
        float bestDistance = tolerance * 3;
        for (int dx = -1; dx <= 1; ++dx)
            for (int dy = -1; dy <= 1; ++dy)
                for (int dz = -1; dz <= 1; ++dz) {
                    const auto found = cells.find(Cell(x + dx, y + dy, z + dz));
                    for (size_t i : found == cells.end() ? std::vector<size_t>() : found->second)
                        for (size_t r = 0; r < 3 && !used[i]; ++r) {
                            float distance = 0, farthest = 0;
                            for (size_t k = 0; k < 3; ++k) {
                                const float d = (expected[i][(k + r) % 3].position - t[k].position).length();
                                distance += d;
                                farthest = std::max(farthest, d);
                            }
                            if (farthest <= tolerance && distance < bestDistance)
                                best = i, bestRotation = r, bestDistance = distance;
                        }
                }
        if (best == expected.size()) {
            ++unmatched;
            continue;
        }
        used[best] = true;
        for (size_t k = 0; k < 3; ++k) {
            const Corner& e = expected[best][(k + bestRotation) % 3];
            worst.position = std::max(worst.position, (e.position - t[k].position).length());
            worst.normal = std::max(worst.normal, (e.normal - t[k].normal).length());
            worst.uv = std::max(worst.uv, (e.uv - t[k].uv).length());
            worst.influence = std::max(worst.influence, influenceDistance(e.influences, t[k].influences));
            if (e.morphs.size() != t[k].morphs.size())
                worst.morph = std::numeric_limits<float>::infinity();
            for (size_t m = 0; m < e.morphs.size() && m < t[k].morphs.size(); ++m)
                worst.morph = std::max(worst.morph, (e.morphs[m] - t[k].morphs[m]).length());
        }
    }
    for (size_t i = 0; i < expected.size(); ++i) {
        const Triangle& e = expected[i];
        const float shortest = std::min({(e[0].position - e[1].position).length(), (e[1].position - e[2].position).length(),
                                         (e[2].position - e[0].position).length()});
        unmatched += !used[i] && shortest > 2 * tolerance ? 1 : 0;
    }
    return unmatched;
}

// The binary container of the builder's primitives and extra members; buffer 0 is its chunk.
QByteArray file(const GLTFBuilder& b, const QJsonArray& buffers = {})
{
    return b.glb(b.scene(b.primitives, b.extra, buffers.isEmpty() ? QJsonArray{QJsonObject{{"byteLength", (b.bin.size() + 3) / 4 * 4}}} : buffers));
}

// A quad of four points and two triangles as Draco data: quantized positions, float texture
// coordinates, normalised 8-bit colours and 8-bit joints, each attribute's unique id returned.
struct DracoQuad
{
    static constexpr float positions[12] = {0, 0, 0, 1, 0, 0, 1, 1, 0, 0, 1, 0};
    static constexpr float uvs[8] = {0, 1, 1, 1, 1, 0, 0, 0};
    static constexpr uint8_t colors[16] = {255, 0, 0, 255, 0, 255, 0, 255, 0, 0, 255, 255, 51, 102, 153, 204};
    static constexpr uint8_t joints[16] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15};

    QByteArray stream;
    int position = -1, uv = -1, color = -1, joint = -1;

    DracoQuad()
    {
        draco::Mesh mesh;
        mesh.set_num_points(4);
        const auto add = [&](draco::GeometryAttribute::Type type, draco::DataType dataType, int components, bool normalized,
                             const void* values) {
            draco::GeometryAttribute attribute;
            attribute.Init(type, nullptr, uint8_t(components), dataType, normalized, draco::DataTypeLength(dataType) * components, 0);
            const int id = mesh.AddAttribute(attribute, true, 4);
            for (int p = 0; p < 4; ++p)
                mesh.attribute(id)->SetAttributeValue(draco::AttributeValueIndex(p),
                                                      static_cast<const char*>(values) + p * draco::DataTypeLength(dataType) * components);
            return int(mesh.attribute(id)->unique_id());
        };
        position = add(draco::GeometryAttribute::POSITION, draco::DT_FLOAT32, 3, false, positions);
        uv = add(draco::GeometryAttribute::TEX_COORD, draco::DT_FLOAT32, 2, false, uvs);
        color = add(draco::GeometryAttribute::COLOR, draco::DT_UINT8, 4, true, colors);
        joint = add(draco::GeometryAttribute::GENERIC, draco::DT_UINT8, 4, false, joints);
        mesh.AddFace({draco::PointIndex(0), draco::PointIndex(1), draco::PointIndex(2)});
        mesh.AddFace({draco::PointIndex(0), draco::PointIndex(2), draco::PointIndex(3)});
        draco::Encoder encoder;
        encoder.SetAttributeQuantization(draco::GeometryAttribute::POSITION, 14);
        encoder.SetEncodingMethod(draco::MESH_SEQUENTIAL_ENCODING); // keeps the points in order
        draco::EncoderBuffer buffer;
        if (encoder.EncodeMeshToBuffer(mesh, &buffer).ok())
            stream = QByteArray(buffer.data(), int(buffer.size()));
    }

    // Adds the quad as a Draco primitive; `view` holds the stream (a new view when -1).
    void addTo(GLTFBuilder& b, int view = -1) const
    {
        if (view < 0)
            view = b.view(stream);
        const QJsonObject attributes{{"POSITION", b.accessor(-1, kFloat, 4, "VEC3")},
                                     {"TEXCOORD_0", b.accessor(-1, kFloat, 4, "VEC2")},
                                     {"COLOR_0", b.accessor(-1, kUnsignedByte, 4, "VEC4", true)},
                                     {"JOINTS_0", b.accessor(-1, kUnsignedByte, 4, "VEC4")}};
        const QJsonObject ids{{"POSITION", position}, {"TEXCOORD_0", uv}, {"COLOR_0", color}, {"JOINTS_0", joint}};
        b.primitives.append(QJsonObject{
            {"attributes", attributes},
            {"indices", b.accessor(-1, kUnsignedShort, 6, "SCALAR")},
            {"extensions", QJsonObject{{"KHR_draco_mesh_compression", QJsonObject{{"bufferView", view}, {"attributes", ids}}}}}});
    }
};

// A meshopt view of `data`: `count` elements of `stride` bytes, compressed by `mode` after the
// encoding filter (if any) was applied to `data` by the caller. The view points into buffer 1,
// the fallback, which holds nothing.
int meshoptView(GLTFBuilder& b, const QByteArray& data, size_t count, size_t stride, const char* mode, const char* filter = "NONE",
                bool withStride = true)
{
    std::vector<unsigned char> encoded;
    if (QByteArray(mode) == "ATTRIBUTES") {
        encoded.resize(meshopt_encodeVertexBufferBound(count, stride));
        encoded.resize(meshopt_encodeVertexBuffer(encoded.data(), encoded.size(), data.constData(), count, stride));
    } else {
        std::vector<unsigned int> indices(count);
        for (size_t i = 0; i < count; ++i)
            indices[i] = stride == 2 ? reinterpret_cast<const quint16*>(data.constData())[i] : reinterpret_cast<const quint32*>(data.constData())[i];
        encoded.resize(QByteArray(mode) == "TRIANGLES" ? meshopt_encodeIndexBufferBound(count, 64) : meshopt_encodeIndexSequenceBound(count, 64));
        encoded.resize(QByteArray(mode) == "TRIANGLES" ? meshopt_encodeIndexBuffer(encoded.data(), encoded.size(), indices.data(), count)
                                                       : meshopt_encodeIndexSequence(encoded.data(), encoded.size(), indices.data(), count));
    }
    while (b.bin.size() % 4)
        b.bin.append('\0');
    const int offset = b.bin.size();
    b.bin.append(bytes(encoded));
    int fallbackBytes = 0; // laid out in the fallback buffer so far
    for (const QJsonValue& v : b.views)
        fallbackBytes += v.toObject().value("buffer").toInt() == 1 ? v.toObject().value("byteLength").toInt() : 0;
    QJsonObject view{{"buffer", 1}, {"byteOffset", fallbackBytes}, {"byteLength", int(count * stride)},
                     {"extensions", QJsonObject{{"EXT_meshopt_compression",
                                                 QJsonObject{{"buffer", 0}, {"byteOffset", offset}, {"byteLength", int(encoded.size())},
                                                             {"byteStride", int(stride)}, {"count", int(count)}, {"mode", mode},
                                                             {"filter", filter}}}}}};
    if (withStride)
        view.insert("byteStride", int(stride));
    b.views.append(view);
    return b.views.size() - 1;
}

// Buffer 0 the binary chunk; buffer 1 the fallback, with nothing but its length.
QJsonArray meshoptBuffers(const GLTFBuilder& b)
{
    return {QJsonObject{{"byteLength", b.bin.size()}},
            QJsonObject{{"byteLength", 1 << 20}, {"extensions", QJsonObject{{"EXT_meshopt_compression", QJsonObject{{"fallback", true}}}}}}};
}

const QJsonArray kMeshoptUsed{"EXT_meshopt_compression", "KHR_mesh_quantization"};

} // namespace

// Each Draco sample, and a meshopt file that gltfpack made from one, draws the triangles of its
// uncompressed original (in any order, from any corner) within the precision it was quantized to,
// with the same normals, texture coordinates, skin influences and morph deltas. Decoding is done
// before the import to GL, which sees no difference, so no render of them is needed as well.
TEST(GLTFCompressedSamples, HoldTheTrianglesOfTheirUncompressedOriginals)
{
    const QString assimp = QStringLiteral("/usr/share/assimp/models/glTF2/");
    const struct
    {
        QString compressed, original;
        // Relative to the scene's size; normals and texture coordinates absolute.
        float position, normal, uv;
    } pairs[] = {
        {VyxTest::testDataPath("gltf/Box/glTF-Draco/Box.gltf"), VyxTest::testDataPath("gltf/Box/glTF-Binary/Box.glb"), 1e-3f, 0.02f, 0},
        {VyxTest::testDataPath("gltf/Duck/glTF-Draco/Duck.gltf"), VyxTest::testDataPath("gltf/Duck/glTF-Binary/Duck.glb"), 1e-3f, 0.02f, 2e-3f},
        {VyxTest::testDataPath("gltf/CesiumMan/glTF-Draco/CesiumMan.gltf"), VyxTest::testDataPath("gltf/CesiumMan/glTF-Binary/CesiumMan.glb"), 1e-3f, 0.02f, 2e-3f},
        {VyxTest::testDataPath("gltf/MorphPrimitivesTest/glTF-Draco/MorphPrimitivesTest.gltf"),
         VyxTest::testDataPath("gltf/MorphPrimitivesTest/glTF-Binary/MorphPrimitivesTest.glb"), 1e-3f, 0.02f, 2e-3f},
        {assimp + "draco/2CylinderEngine.gltf", assimp + "2CylinderEngine-glTF-Binary/2CylinderEngine.glb", 1e-3f, 0.02f, 0},
        {VyxTest::testSourcePath("data/duck-meshopt.glb"), VyxTest::testDataPath("gltf/Duck/glTF-Binary/Duck.glb"), 1e-3f, 0.02f, 2e-3f},
    };
    for (const auto& pair : pairs) {
        SCOPED_TRACE(qPrintable(pair.compressed));
        GLTFSceneReader compressedReader, originalReader;
        const auto compressed = compressedReader.read(pair.compressed);
        const auto original = originalReader.read(pair.original);
        ASSERT_TRUE(compressed) << qPrintable(compressedReader.errorString());
        ASSERT_TRUE(original) << qPrintable(originalReader.errorString());
        EXPECT_TRUE(compressedReader.warnings().isEmpty()) << qPrintable(compressedReader.warnings().join('\n'));
        const std::vector<Triangle> expected = worldTriangles(*original), actual = worldTriangles(*compressed);
        ASSERT_FALSE(expected.empty());
        QVector3D low = expected[0][0].position, high = low;
        for (const Triangle& t : expected)
            for (const Corner& c : t)
                low = QVector3D(std::min(low.x(), c.position.x()), std::min(low.y(), c.position.y()), std::min(low.z(), c.position.z())),
                high = QVector3D(std::max(high.x(), c.position.x()), std::max(high.y(), c.position.y()), std::max(high.z(), c.position.z()));
        const float size = (high - low).length();
        Deviation worst;
        EXPECT_EQ(unmatchedTriangles(expected, actual, pair.position * size, worst), 0u);
        EXPECT_LE(worst.normal, pair.normal);
        EXPECT_LE(worst.uv, pair.uv);
        EXPECT_LE(worst.influence, 0.02f);
        EXPECT_LE(worst.morph, pair.position * size);
        std::printf("%s: %zu triangles, worst position %.2g of the size, normal %.2g, uv %.2g, influence %.2g, morph %.2g of the size\n",
                    qPrintable(QFileInfo(pair.compressed).fileName()), actual.size(), worst.position / size, worst.normal, worst.uv,
                    worst.influence, worst.morph / size);
    }
}

// Decoded attributes take the types their accessors declare, as an uncompressed file's would;
// an attribute the extension leaves out is read from its own buffer view.
TEST(GLTFDraco, AttributesTakeTheirAccessorsTypesAndUncompressedOnesReadAsUsual)
{
    const DracoQuad quad;
    ASSERT_FALSE(quad.stream.isEmpty());
    GLTFBuilder b;
    quad.addTo(b);
    QJsonObject primitive = b.primitives[0].toObject();
    QJsonObject attributes = primitive["attributes"].toObject();
    attributes["TEXCOORD_1"] = b.accessor(b.view(bytes<quint16>({0, 0, 65535, 0, 65535, 65535, 0, 65535})), kUnsignedShort, 4, "VEC2", true);
    primitive["attributes"] = attributes;
    b.primitives[0] = primitive;
    const SceneRead read = readScene(file(b));
    ASSERT_TRUE(read.scene) << qPrintable(read.error);
    EXPECT_TRUE(read.warnings.isEmpty()) << qPrintable(read.warnings.join('\n'));
    // Without normals the quad is flat shaded: a vertex for each corner of its two triangles.
    const P& p = read.scene->meshes.at(0).primitives.at(0);
    ASSERT_EQ(p.vertexCount(), 6u);
    ASSERT_EQ(p.texCoords.size(), 2u);
    const quint32 corners[6] = {0, 1, 2, 0, 2, 3};
    for (size_t v = 0; v < 6; ++v) {
        const size_t from = corners[v];
        EXPECT_EQ(p.texCoords[1][2 * v], from == 1 || from == 2 ? 1.0f : 0.0f);
        for (size_t k = 0; k < 3; ++k)
            EXPECT_NEAR(p.positions[3 * v + k], DracoQuad::positions[3 * from + k], 1e-4f);
        for (size_t k = 0; k < 2; ++k)
            EXPECT_EQ(p.texCoords[0][2 * v + k], DracoQuad::uvs[2 * from + k]);
        for (size_t k = 0; k < 4; ++k) {
            EXPECT_FLOAT_EQ(p.colors[4 * v + k], DracoQuad::colors[4 * from + k] / 255.0f);
            EXPECT_EQ(p.joints[4 * v + k], DracoQuad::joints[4 * from + k]);
        }
    }

    // The same colours declared as floats arrive normalised just the same.
    const int colors = attributes["COLOR_0"].toInt();
    QJsonObject floats = b.accessors[colors].toObject();
    floats["componentType"] = kFloat;
    floats.remove("normalized");
    b.accessors[colors] = floats;
    const SceneRead asFloats = readScene(file(b));
    ASSERT_TRUE(asFloats.scene) << qPrintable(asFloats.error);
    EXPECT_EQ(asFloats.scene->meshes[0].primitives[0].colors, p.colors);
}

// An index accessor without a buffer view is legal: zeros, or what its sparse substitution gives.
TEST(GLTFSceneReaderAccessors, IndexAccessorsWithoutABufferViewReadAsZerosOrTheirSubstitutions)
{
    GLTFBuilder b;
    const int positions = b.accessor(b.view(bytes<float>({0, 0, 0, 1, 0, 0, 0, 1, 0})), kFloat, 3, "VEC3");
    const int normals = b.accessor(b.view(bytes<float>({0, 0, 1, 0, 0, 1, 0, 0, 1})), kFloat, 3, "VEC3");
    QJsonObject indices{{"componentType", kUnsignedShort}, {"count", 6}, {"type", "SCALAR"},
                        {"sparse", QJsonObject{{"count", 2},
                                               {"indices", QJsonObject{{"bufferView", b.view(bytes<quint16>({1, 2}))}, {"componentType", kUnsignedShort}}},
                                               {"values", QJsonObject{{"bufferView", b.view(bytes<quint16>({1, 2}))}}}}}};
    b.accessors.append(indices); // accessor 2
    b.primitives.append(QJsonObject{{"attributes", QJsonObject{{"POSITION", positions}, {"NORMAL", normals}}}, {"indices", 2}});
    const SceneRead read = readScene(file(b));
    ASSERT_TRUE(read.scene) << qPrintable(read.error);
    // The second triangle repeats vertex 0 and has no area; it stays in the list all the same.
    EXPECT_EQ(read.scene->meshes[0].primitives[0].indices, (std::vector<quint32>{0, 1, 2, 0, 0, 0}));
}

// Every mode and filter, each view behind a fallback buffer that holds no data: positions and
// instance translations as exponents and mantissas, normals and tangents octahedral, instance
// rotations as quaternions, triangle indices and a line list's index sequence.
TEST(GLTFMeshopt, EveryModeAndFilterDecodesBehindAnEmptyFallbackBuffer)
{
    const std::vector<float> positions{0, 0, 0, 1, 0, 0, 1, 1, 0, 0, 1, 0.5f};
    const std::vector<float> normals{0, 0, 1, 0, 0.6f, 0.8f, 0.6f, 0, 0.8f, 0, -1, 0};
    const std::vector<float> tangents{1, 0, 0, 1, 0, 1, 0, -1, 0.6f, 0.8f, 0, 1, 0, 0, 1, 1};
    const std::vector<float> rotations{0, 0, 0, 1, 0, 0.6f, 0, 0.8f};
    const std::vector<float> translations{1, 2, 3, -4.5f, 0.25f, 1e3f};
    const auto filtered = [](const std::vector<float>& values, size_t count, size_t stride, int bits,
                             void (*encode)(void*, size_t, size_t, int, const float*)) {
        QByteArray out(int(count * stride), '\0');
        encode(out.data(), count, stride, bits, values.data());
        return out;
    };
    std::vector<float> normals4; // the octahedral encoder takes four floats a vector
    for (size_t v = 0; v < 4; ++v)
        normals4.insert(normals4.end(), {normals[3 * v], normals[3 * v + 1], normals[3 * v + 2], 0});
    GLTFBuilder b;
    const int position = b.accessor(meshoptView(b, filtered(positions, 4, 12, 23, meshopt_encodeFilterExp), 4, 12, "ATTRIBUTES", "EXPONENTIAL"),
                                    kFloat, 4, "VEC3");
    const int normal = b.accessor(meshoptView(b, filtered(normals4, 4, 4, 8, meshopt_encodeFilterOct), 4, 4, "ATTRIBUTES", "OCTAHEDRAL"),
                                  kByte, 4, "VEC3", true);
    const int tangent = b.accessor(meshoptView(b, filtered(tangents, 4, 8, 16, meshopt_encodeFilterOct), 4, 8, "ATTRIBUTES", "OCTAHEDRAL"),
                                   kShort, 4, "VEC4", true);
    const int rotation = b.accessor(meshoptView(b, filtered(rotations, 2, 8, 16, meshopt_encodeFilterQuat), 2, 8, "ATTRIBUTES", "QUATERNION"),
                                    kShort, 2, "VEC4", true);
    const int translation = b.accessor(meshoptView(b, filtered(translations, 2, 12, 23, meshopt_encodeFilterExp), 2, 12, "ATTRIBUTES", "EXPONENTIAL"),
                                       kFloat, 2, "VEC3");
    const int triangles = b.accessor(meshoptView(b, bytes<quint16>({0, 1, 2, 0, 2, 3}), 6, 2, "TRIANGLES", "NONE", false), kUnsignedShort, 6, "SCALAR");
    const int lines = b.accessor(meshoptView(b, bytes<quint32>({3, 0, 1, 2}), 4, 4, "INDICES", "NONE", false), 5125, 4, "SCALAR");
    b.primitives = {QJsonObject{{"attributes", QJsonObject{{"POSITION", position}, {"NORMAL", normal}, {"TANGENT", tangent}}}, {"indices", triangles}},
                    QJsonObject{{"attributes", QJsonObject{{"POSITION", position}}}, {"indices", lines}, {"mode", 1}}};
    b.extra = {{"extensionsUsed", QJsonArray{"EXT_meshopt_compression", "KHR_mesh_quantization", "EXT_mesh_gpu_instancing"}},
               {"extensionsRequired", kMeshoptUsed},
               {"nodes", QJsonArray{QJsonObject{{"mesh", 0}, {"extensions", QJsonObject{{"EXT_mesh_gpu_instancing",
                   QJsonObject{{"attributes", QJsonObject{{"TRANSLATION", translation}, {"ROTATION", rotation}}}}}}}}}}};
    const SceneRead read = readScene(file(b, meshoptBuffers(b)));
    ASSERT_TRUE(read.scene) << qPrintable(read.error);
    EXPECT_TRUE(read.warnings.isEmpty()) << qPrintable(read.warnings.join('\n'));
    const P& p = read.scene->meshes.at(0).primitives.at(0);
    ASSERT_EQ(p.vertexCount(), 4u);
    EXPECT_EQ(p.indices, (std::vector<quint32>{0, 1, 2, 0, 2, 3}));
    EXPECT_EQ(read.scene->meshes[0].primitives.at(1).indices, (std::vector<quint32>{3, 0, 1, 2}));
    for (size_t i = 0; i < 12; ++i) {
        EXPECT_FLOAT_EQ(p.positions[i], positions[i]);
        EXPECT_NEAR(p.normals[i], normals[i], 0.02f);
    }
    for (size_t i = 0; i < 16; ++i)
        EXPECT_NEAR(p.tangents[i], tangents[i], 1e-3f);
    const std::vector<QMatrix4x4>& instances = read.scene->nodes.at(0).instances;
    ASSERT_EQ(instances.size(), 2u);
    EXPECT_LT((instances[1].map(QVector3D(0, 0, 0)) - QVector3D(-4.5f, 0.25f, 1e3f)).length(), 1e-3f);
    // The second rotation turns by 2 acos 0.8 about Y, taking +X towards -Z.
    const QVector3D turned = instances[1].map(QVector3D(1, 0, 0)) - instances[1].map(QVector3D(0, 0, 0));
    EXPECT_LT((turned - QVector3D(0.28f, 0, -0.96f)).length(), 1e-3f);
}

// Each fault in compressed data is named with the view or primitive it is in and costs that
// primitive alone; a file left with nothing to draw fails with the first reason.
TEST(GLTFCompressionMalformed, EachFaultIsNamedAndCostsOnlyItsPrimitive)
{
    const DracoQuad quad;
    ASSERT_FALSE(quad.stream.isEmpty());
    const QString secondPrimitive = QStringLiteral("Mesh 0 ('m') primitive 1 is left out: ");
    using Edit = std::function<void(GLTFBuilder&)>;
    // Draco cases: primitive 0 is plain, primitive 1 the Draco quad after the edit.
    const auto draco = [&](const Edit& edit) {
        GLTFBuilder b;
        b.primitives.append(QJsonObject{{"attributes", QJsonObject{{"POSITION", b.accessor(b.view(bytes<float>({0, 0, 0, 1, 0, 0, 0, 1, 0})), kFloat, 3, "VEC3")}}}});
        quad.addTo(b);
        edit(b);
        return file(b);
    };
    const auto member = [](GLTFBuilder& b, const char* semantic) -> int {
        const QJsonObject p = b.primitives[1].toObject();
        return semantic ? p["attributes"].toObject()[semantic].toInt() : p["indices"].toInt();
    };
    const auto setAccessor = [&](const char* semantic, const char* key, const QJsonValue& value) {
        return [=](GLTFBuilder& b) {
            const int a = member(b, semantic);
            QJsonObject accessor = b.accessors[a].toObject();
            accessor[key] = value;
            b.accessors[a] = accessor;
        };
    };
    const auto setExtension = [](const char* key, const QJsonValue& value) {
        return [=](GLTFBuilder& b) {
            QJsonObject p = b.primitives[1].toObject();
            QJsonObject draco = p["extensions"].toObject()["KHR_draco_mesh_compression"].toObject();
            draco[key] = value;
            p["extensions"] = QJsonObject{{"KHR_draco_mesh_compression", draco}};
            b.primitives[1] = p;
        };
    };
    const auto stream = [&](const QByteArray& replaced) {
        return [=](GLTFBuilder& b) { setExtension("bufferView", b.view(replaced))(b); };
    };
    QByteArray badHeader = quad.stream;
    badHeader[0] = 'X';

    // Meshopt cases: primitive 0 is plain, primitive 1 reads its positions from a compressed view
    // whose extension the edit changes.
    const auto meshopt = [&](const std::function<void(QJsonObject& view, QJsonObject& compressed)>& edit) {
        GLTFBuilder b;
        const QByteArray plain = bytes<float>({0, 0, 0, 1, 0, 0, 0, 1, 0});
        b.primitives.append(QJsonObject{{"attributes", QJsonObject{{"POSITION", b.accessor(b.view(plain), kFloat, 3, "VEC3")}}}});
        const int view = meshoptView(b, plain, 3, 12, "ATTRIBUTES");
        b.primitives.append(QJsonObject{{"attributes", QJsonObject{{"POSITION", b.accessor(view, kFloat, 3, "VEC3")}}}});
        QJsonObject v = b.views[view].toObject(), compressed = v["extensions"].toObject()["EXT_meshopt_compression"].toObject();
        edit(v, compressed);
        v["extensions"] = QJsonObject{{"EXT_meshopt_compression", compressed}};
        b.views[view] = v;
        b.extra = {{"extensionsUsed", kMeshoptUsed}, {"extensionsRequired", kMeshoptUsed}};
        return file(b, meshoptBuffers(b));
    };
    const auto set = [](const char* key, const QJsonValue& value) {
        return [=](QJsonObject&, QJsonObject& compressed) { compressed[key] = value; };
    };
    const QString lostView = QStringLiteral("Mesh 0 ('m') primitive 1 is left out: Accessor 1 uses buffer view 1, whose compressed data could not be decompressed");

    const struct
    {
        const char* name;
        QByteArray file;
        QStringList warnings;
    } cases[] = {
        {"Draco stream cut short", draco(stream(quad.stream.left(quad.stream.size() / 2))),
         {secondPrimitive + "its Draco data cannot be decoded: "}},
        {"Draco stream without its header", draco(stream(badHeader)),
         {secondPrimitive + "its Draco data cannot be decoded: Not a Draco file."}},
        {"attribute id not in the stream", draco(setExtension("attributes", QJsonObject{{"POSITION", 9}})),
         {secondPrimitive + "its Draco data has no attribute 9 for POSITION"}},
        {"attribute count", draco(setAccessor("POSITION", "count", 5)),
         {secondPrimitive + "its POSITION accessor 1 has 5 elements for 4 Draco points"}},
        {"attribute components", draco(setAccessor("TEXCOORD_0", "type", "VEC3")),
         {secondPrimitive + "its TEXCOORD_0 accessor 2 has 3 components, its Draco attribute 2"}},
        {"a component type no attribute has", draco(setAccessor("TEXCOORD_0", "componentType", 5124)),
         {secondPrimitive + "its Draco TEXCOORD_0 values do not fit the component type of accessor 2"}},
        {"index count", draco(setAccessor(nullptr, "count", 9)),
         {secondPrimitive + "its index accessor 5 has 9 elements for 2 Draco triangles"}},
        {"no indices", draco([&](GLTFBuilder& b) { QJsonObject p = b.primitives[1].toObject(); p.remove("indices"); b.primitives[1] = p; }),
         {secondPrimitive + "it is Draco compressed but has no index accessor"}},
        {"points", draco([&](GLTFBuilder& b) { QJsonObject p = b.primitives[1].toObject(); p["mode"] = 0; b.primitives[1] = p; }),
         {secondPrimitive + "it is Draco compressed but not made of triangles"}},
        {"no buffer view", draco(setExtension("bufferView", "0")), {secondPrimitive + "its Draco extension names no buffer view that exists"}},
        {"view past its buffer", draco([&](GLTFBuilder& b) { setExtension("bufferView", b.view(quad.stream, {{"byteLength", 1 << 20}}))(b); }),
         {secondPrimitive + "its Draco buffer view 2 reaches past the end of buffer 0"}},
        {"meshopt stream without its header", meshopt(set("byteLength", 8)),
         {"Buffer view 1 cannot be decompressed: the decoder refused its data (error -2)", lostView}},
        {"meshopt stride unlike the view's", meshopt([](QJsonObject& v, QJsonObject&) { v["byteStride"] = 16; }),
         {"Buffer view 1 cannot be decompressed: its byte stride 12 differs from the view's 16", lostView}},
        {"meshopt count unlike the view's length", meshopt(set("count", 4)),
         {"Buffer view 1 cannot be decompressed: 4 elements of 12 bytes do not fill the view's 36 bytes", lostView}},
        {"meshopt data past its buffer", meshopt(set("byteOffset", 1 << 20)),
         {"Buffer view 1 cannot be decompressed: its 67 bytes at 1048576 reach past the end of buffer 0", lostView}},
        {"meshopt filter on indices", meshopt([](QJsonObject&, QJsonObject& c) { c["mode"] = "TRIANGLES"; c["byteStride"] = 4; c["filter"] = "OCTAHEDRAL"; }),
         {"Buffer view 1 cannot be decompressed: its filter 'OCTAHEDRAL' does not fit its mode and byte stride 4", lostView}},
        {"meshopt unknown mode", meshopt(set("mode", "VERTICES")),
         {"Buffer view 1 cannot be decompressed: its mode 'VERTICES' is none of ATTRIBUTES, TRIANGLES and INDICES", lostView}},
        {"meshopt claims more than its data can hold", meshopt([](QJsonObject& v, QJsonObject& c) { c["count"] = 1 << 20; v["byteLength"] = 12 << 20; }),
         {"Buffer view 1 cannot be decompressed: 67 compressed bytes cannot hold 12582912", lostView}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const SceneRead read = readScene(c.file);
        ASSERT_TRUE(read.scene) << qPrintable(read.error);
        QStringList warnings = read.warnings;
        warnings.removeAll(QStringLiteral("Mesh 0 ('m') has no primitive that can be drawn"));
        for (int i = 0; i < warnings.size() && i < c.warnings.size(); ++i)
            EXPECT_TRUE(warnings[i].startsWith(c.warnings[i])) << qPrintable(warnings[i]) << "\n" << qPrintable(c.warnings[i]);
        EXPECT_EQ(warnings.size(), c.warnings.size()) << qPrintable(warnings.join('\n'));
        ASSERT_EQ(read.scene->meshes.at(0).primitives.size(), 2u);
        EXPECT_EQ(read.scene->meshes[0].primitives[0].vertexCount(), 3u);
        EXPECT_EQ(read.scene->meshes[0].primitives[1].vertexCount(), 0u);
    }

    // The same fault with nothing else to draw fails the file.
    GLTFBuilder alone;
    quad.addTo(alone, alone.view(quad.stream.left(20)));
    const SceneRead nothing = readScene(file(alone));
    EXPECT_FALSE(nothing.scene);
    EXPECT_TRUE(nothing.error.startsWith("Nothing is left to draw: Mesh 0 ('m') primitive 0 is left out: its Draco data cannot be decoded"))
        << qPrintable(nothing.error);
}
