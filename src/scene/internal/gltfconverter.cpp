#include "scene/internal/gltfconverter.h"

#include "scene/internal/gltfdraco.h"
#include "scene/internal/gltfgeometry.h"
#include "scene/internal/gltftangents.h"
#include "scene/internal/gltfvalues.h"

#include <QDir>
#include <QJsonArray>
#include <QFileInfo>
#include <QUrl>

#include <tiny_gltf.h>

#include <climits>
#include <cmath>

namespace Tavren::Vyx {

namespace {

constexpr int kMaxNodeDepth = 256;

QString text(const std::string& s)
{
    return QString::fromStdString(s);
}

const tinygltf::Value* extension(const tinygltf::ExtensionMap& extensions, const char* name)
{
    const auto found = extensions.find(name);
    return found == extensions.end() ? nullptr : &found->second;
}

// A number of an extension object, or `fallback` when absent or of another type.
double number(const tinygltf::Value& object, const char* key, double fallback)
{
    if (!object.IsObject() || !object.Has(key) || !object.Get(key).IsNumber())
        return fallback;
    return object.Get(key).GetNumberAsDouble();
}

QVector2D pair(const tinygltf::Value& object, const char* key, QVector2D fallback)
{
    if (!object.IsObject() || !object.Has(key))
        return fallback;
    const tinygltf::Value& array = object.Get(key);
    if (!array.IsArray() || array.ArrayLen() != 2 || !array.Get(0).IsNumber() || !array.Get(1).IsNumber())
        return fallback;
    return QVector2D(float(array.Get(0).GetNumberAsDouble()), float(array.Get(1).GetNumberAsDouble()));
}

QVector3D triple(const tinygltf::Value& object, const char* key, QVector3D fallback)
{
    if (!object.IsObject() || !object.Has(key))
        return fallback;
    const tinygltf::Value& array = object.Get(key);
    if (!array.IsArray() || array.ArrayLen() != 3)
        return fallback;
    QVector3D out;
    for (int i = 0; i < 3; ++i) {
        if (!array.Get(i).IsNumber())
            return fallback;
        out[i] = float(array.Get(i).GetNumberAsDouble());
    }
    return out;
}

float unitNumber(const tinygltf::Value& object, const char* key, double fallback)
{
    return float(std::clamp(number(object, key, fallback), 0.0, 1.0));
}

QVector3D unitTriple(const tinygltf::Value& object, const char* key, QVector3D fallback)
{
    const QVector3D v = triple(object, key, fallback);
    return QVector3D(std::clamp(v.x(), 0.0f, 1.0f), std::clamp(v.y(), 0.0f, 1.0f), std::clamp(v.z(), 0.0f, 1.0f));
}

} // namespace

bool GLTFConverter::convert()
{
    // Materials come before meshes: a normal map decides whether a primitive needs tangents.
    if (!nodes() || !roots() || !materials() || !meshes() || !textures() || !images() || !skins())
        return false;
    const auto draws = [](const SceneData::Mesh& m) {
        return std::any_of(m.primitives.begin(), m.primitives.end(), [](const SceneData::Primitive& p) { return p.vertexCount() > 0; });
    };
    if (!_leftOut.isEmpty() && std::none_of(_out.meshes.begin(), _out.meshes.end(), draws))
        return fail(QStringLiteral("Nothing is left to draw: %1").arg(_leftOut));
    cameras();
    lights();
    animations();
    warnWhenNothingIsDrawn();
    return true;
}

bool GLTFConverter::nodes()
{
    const int count = int(_gltf.nodes.size());
    std::vector<bool> hasParent(size_t(count), false);
    _out.nodes.resize(size_t(count));
    for (int n = 0; n < count; ++n) {
        const tinygltf::Node& source = _gltf.nodes[size_t(n)];
        SceneData::Node& node = _out.nodes[size_t(n)];
        for (int child : source.children) {
            if (child < 0 || child >= count)
                return fail(QStringLiteral("Node %1 has a child %2 that does not exist").arg(n).arg(child));
            if (hasParent[size_t(child)] || child == n)
                return fail(QStringLiteral("Node %1 has more than one parent").arg(child));
            hasParent[size_t(child)] = true;
        }
        node.name = text(source.name);
        node.children = source.children;
        if (source.matrix.size() == 16) {
            node.hasMatrix = true;
            float* d = node.matrix.data(); // column-major, as the file stores it
            for (int i = 0; i < 16; ++i)
                d[i] = float(source.matrix[size_t(i)]);
        }
        if (source.translation.size() == 3)
            node.translation = QVector3D(float(source.translation[0]), float(source.translation[1]), float(source.translation[2]));
        if (source.rotation.size() == 4)
            node.rotation = QQuaternion(float(source.rotation[3]), float(source.rotation[0]), float(source.rotation[1]),
                                        float(source.rotation[2]));
        if (source.scale.size() == 3)
            node.scale = QVector3D(float(source.scale[0]), float(source.scale[1]), float(source.scale[2]));
        if (source.mesh >= int(_gltf.meshes.size()))
            return fail(QStringLiteral("Node %1 uses mesh %2, which does not exist").arg(n).arg(source.mesh));
        node.mesh = source.mesh;
        node.weights.assign(source.weights.begin(), source.weights.end());
        if (source.camera >= int(_gltf.cameras.size()))
            _warnings << QStringLiteral("Camera %1 does not exist; ignored").arg(source.camera);
        else
            node.camera = source.camera;
        if (source.skin >= int(_gltf.skins.size()))
            return fail(QStringLiteral("Node %1 uses skin %2, which does not exist").arg(n).arg(source.skin));
        node.skin = source.skin;
        if (const tinygltf::Value* light = extension(source.extensions, "KHR_lights_punctual"); light && light->Has("light")) {
            node.light = light->Get("light").GetNumberAsInt();
            if (node.light < 0 || node.light >= int(_gltf.lights.size()))
                return fail(QStringLiteral("A node uses light %1, which does not exist").arg(node.light));
        }
        if (!instances(n, source, node))
            return false;
    }
    return true;
}

// EXT_mesh_gpu_instancing: one local matrix per instance, T * R * S from whichever of the three
// accessors the node gives.
bool GLTFConverter::instances(int index, const tinygltf::Node& source, SceneData::Node& node)
{
    const tinygltf::Value* instancing = extension(source.extensions, "EXT_mesh_gpu_instancing");
    if (!instancing || !instancing->Has("attributes") || !instancing->Get("attributes").IsObject())
        return true;
    const tinygltf::Value& attributes = instancing->Get("attributes");
    std::vector<float> values[3]; // translations, rotations, scales
    const char* const names[3] = {"TRANSLATION", "ROTATION", "SCALE"};
    size_t count = 0;
    bool any = false;
    for (int a = 0; a < 3; ++a) {
        if (!attributes.Has(names[a]))
            continue;
        const int width = a == 1 ? 4 : 3;
        if (!attributes.Get(names[a]).IsInt() ||
            !_accessors.readFloats(attributes.Get(names[a]).GetNumberAsInt(), width, values[a]))
            return fail(QStringLiteral("Node %1 has unreadable %2 instances: %3")
                            .arg(index).arg(QLatin1String(names[a]), _accessors.error.isEmpty() ? QStringLiteral("no accessor") : _accessors.error));
        const size_t found = values[a].size() / size_t(width);
        if (any && found != count)
            return fail(QStringLiteral("Node %1 has instance attributes of different counts").arg(index));
        count = found;
        any = true;
    }
    node.instances.resize(count);
    for (size_t i = 0; i < count; ++i) {
        QMatrix4x4& m = node.instances[i];
        if (!values[0].empty())
            m.translate(values[0][3 * i], values[0][3 * i + 1], values[0][3 * i + 2]);
        if (!values[1].empty()) {
            const float* q = &values[1][4 * i];
            m.rotate(QQuaternion(q[3], q[0], q[1], q[2]).normalized());
        }
        if (!values[2].empty())
            m.scale(values[2][3 * i], values[2][3 * i + 1], values[2][3 * i + 2]);
    }
    return true;
}

bool GLTFConverter::roots()
{
    const int count = int(_out.nodes.size());
    const int sceneIndex = _gltf.defaultScene >= 0 ? _gltf.defaultScene : 0;
    if (sceneIndex < int(_gltf.scenes.size())) {
        _out.roots = _gltf.scenes[size_t(sceneIndex)].nodes;
    } else {
        if (_gltf.defaultScene >= 0)
            _warnings << QStringLiteral("The file's scene %1 does not exist; every node without a parent is drawn instead")
                             .arg(_gltf.defaultScene);
        std::vector<bool> isChild(size_t(count), false);
        for (const SceneData::Node& node : _out.nodes)
            for (int child : node.children)
                isChild[size_t(child)] = true;
        for (int n = 0; n < count; ++n)
            if (!isChild[size_t(n)])
                _out.roots.push_back(n);
    }
    // Walked without recursion; with one parent per node a cycle is unreachable from a root, and
    // the depth cap bounds a long chain, so the upload can walk the same way unchecked.
    std::vector<std::pair<int, int>> stack; // node, depth
    for (int root : _out.roots)
        stack.emplace_back(root, 0);
    std::vector<bool> seen(size_t(count), false);
    while (!stack.empty()) {
        const auto [node, depth] = stack.back();
        stack.pop_back();
        if (node < 0 || node >= count)
            return fail(QStringLiteral("The scene refers to node %1, which does not exist").arg(node));
        if (seen[size_t(node)] || depth > kMaxNodeDepth)
            return fail(QStringLiteral("Node %1 is reached twice or nests too deeply").arg(node));
        seen[size_t(node)] = true;
        for (int child : _out.nodes[size_t(node)].children)
            stack.emplace_back(child, depth + 1);
    }
    return true;
}

bool GLTFConverter::meshes()
{
    const QJsonArray json = _json.value(QLatin1String("meshes")).toArray();
    _out.meshes.resize(_gltf.meshes.size());
    for (size_t m = 0; m < _gltf.meshes.size(); ++m) {
        const tinygltf::Mesh& source = _gltf.meshes[m];
        SceneData::Mesh& mesh = _out.meshes[m];
        mesh.name = text(source.name);
        mesh.primitives.resize(source.primitives.size());
        size_t targets = 0;
        for (size_t p = 0; p < source.primitives.size(); ++p) {
            if (!primitive(int(m), int(p), source.primitives[p], mesh.primitives[p]))
                return false;
            targets = std::max(targets, mesh.primitives[p].targets.size());
        }
        mesh.weights.assign(targets, 0.0f);
        std::copy_n(source.weights.begin(), std::min(targets, source.weights.size()), mesh.weights.begin());
        // The parser passes over a primitives member that is not an array, and over primitives
        // it cannot read, without a word.
        const QString name = mesh.name.isEmpty() ? QString::number(m) : QStringLiteral("%1 ('%2')").arg(m).arg(mesh.name);
        const QJsonValue listed = json.at(int(m)).toObject().value(QLatin1String("primitives"));
        if (!_json.isEmpty() && !listed.isArray())
            _warnings << QStringLiteral("Mesh %1 has no primitives array; it draws nothing").arg(name);
        else if (!_json.isEmpty() && size_t(listed.toArray().size()) > source.primitives.size())
            _warnings << QStringLiteral("Mesh %1 has %2 primitives without attributes; they are left out")
                             .arg(name).arg(size_t(listed.toArray().size()) - source.primitives.size());
        else if (std::none_of(mesh.primitives.begin(), mesh.primitives.end(),
                              [](const SceneData::Primitive& p) { return p.vertexCount() > 0; }))
            _warnings << QStringLiteral("Mesh %1 has no primitive that can be drawn").arg(name);
    }
    return true;
}

QString GLTFConverter::primitiveName(int meshIndex, int index) const
{
    const QString& name = _out.meshes[size_t(meshIndex)].name;
    return name.isEmpty() ? QStringLiteral("Mesh %1 primitive %2").arg(meshIndex).arg(index)
                          : QStringLiteral("Mesh %1 ('%2') primitive %3").arg(meshIndex).arg(name).arg(index);
}

// Reads every attribute the primitive names, as packed arrays; texture coordinate sets keep their
// numbers, a missing lower set reading as zeros.
bool GLTFConverter::attributes(const tinygltf::Primitive& source, SceneData::Primitive& out)
{
    using Integers = GLTFAccessorReader::Integers;
    const auto accessor = [&](const std::string& name) {
        const auto found = source.attributes.find(name);
        return found == source.attributes.end() ? -1 : found->second;
    };
    const auto floats = [&](const char* name, std::initializer_list<int> components, std::vector<float>& into,
                            Integers integers, int* found = nullptr) {
        const int a = accessor(name);
        return a < 0 || _accessors.readFloats(a, components, into, found, integers);
    };
    // Normals, tangents, colours and weights have only a normalised integer form; positions and
    // texture coordinates follow the accessor (KHR_mesh_quantization).
    int colorComponents = 4;
    if (!floats("POSITION", {3}, out.positions, Integers::AsFlagged) ||
        !floats("NORMAL", {3}, out.normals, Integers::Normalised) ||
        !floats("TANGENT", {4}, out.tangents, Integers::Normalised) ||
        !floats("COLOR_0", {3, 4}, out.colors, Integers::Normalised, &colorComponents))
        return false;
    if (colorComponents == 3) {
        std::vector<float> rgba(out.colors.size() / 3 * 4, 1.0f);
        for (size_t v = 0; v < out.colors.size() / 3; ++v)
            std::copy_n(&out.colors[v * 3], 3, &rgba[v * 4]);
        out.colors.swap(rgba);
    }
    int sets = 0;
    for (const auto& [name, index] : source.attributes)
        if (name.rfind("TEXCOORD_", 0) == 0 && name.size() > 9 && name.size() < 12 &&
            name.find_first_not_of("0123456789", 9) == std::string::npos)
            sets = std::max(sets, std::stoi(name.substr(9)) + 1);
    out.texCoords.resize(size_t(sets));
    for (int set = 0; set < sets; ++set) // a set that is not there stays empty
        if (!floats(("TEXCOORD_" + std::to_string(set)).c_str(), {2}, out.texCoords[size_t(set)], Integers::AsFlagged))
            return false;
    // Skinning influences, sets 0 and 1 interleaved per vertex; joints without weights weigh 0.
    const size_t influenceVertices = out.positions.size() / 3;
    std::vector<quint32> joints[2];
    std::vector<float> weights[2];
    for (int set = 0; set < 2; ++set) {
        const std::string n = std::to_string(set);
        if (accessor("JOINTS_" + n) < 0)
            break;
        if (!_accessors.readUnsigned(accessor("JOINTS_" + n), 4, joints[set]) ||
            !floats(("WEIGHTS_" + n).c_str(), {4}, weights[set], Integers::Normalised))
            return false;
        if (accessor("WEIGHTS_" + n) < 0)
            weights[set].assign(influenceVertices * 4, 0.0f);
        out.influenceSets = set + 1;
    }
    for (int set = 0; set < out.influenceSets; ++set)
        if (joints[set].size() != influenceVertices * 4 || weights[set].size() != influenceVertices * 4) {
            out.influenceSets = 0;
            out.joints.assign(1, 0); // fails the count check in primitive(), which names the problem
            break;
        }
    if (out.influenceSets > 0) {
        out.joints.resize(influenceVertices * 4 * size_t(out.influenceSets));
        out.weights.resize(out.joints.size());
    }
    for (size_t v = 0; v < influenceVertices && out.influenceSets > 0; ++v)
        for (int set = 0; set < out.influenceSets; ++set) {
            const size_t to = (v * size_t(out.influenceSets) + size_t(set)) * 4;
            std::copy_n(&joints[set][v * 4], 4, &out.joints[to]);
            std::copy_n(&weights[set][v * 4], 4, &out.weights[to]);
        }
    out.indexed = source.indices >= 0;
    return !out.indexed || _accessors.readUnsigned(source.indices, 1, out.indices);
}

// Morph targets, each moving any of POSITION, NORMAL and TANGENT. Targets whose arrays do not
// match the vertices are all dropped with a warning: the primitive still draws at rest.
bool GLTFConverter::morphTargets(const tinygltf::Primitive& source, const QString& name, SceneData::Primitive& out)
{
    using Integers = GLTFAccessorReader::Integers;
    const size_t values = out.vertexCount() * 3;
    out.targets.resize(source.targets.size());
    for (size_t t = 0; t < source.targets.size(); ++t) {
        SceneData::Primitive::MorphTarget& target = out.targets[t];
        const std::pair<const char*, std::vector<float>*> moved[] = {
            {"POSITION", &target.positions}, {"NORMAL", &target.normals}, {"TANGENT", &target.tangents}};
        for (const auto& [attribute, into] : moved) {
            const auto found = source.targets[t].find(attribute);
            if (found == source.targets[t].end())
                continue;
            if (!_accessors.readFloats(found->second, {3}, *into, nullptr, Integers::AsFlagged))
                return false;
            if (into->size() != values || !std::all_of(into->begin(), into->end(), [](float x) { return std::isfinite(x); })) {
                _warnings << QStringLiteral("%1 has a morph target %2 whose %3 does not match its vertices; its targets are ignored")
                                 .arg(name).arg(t).arg(QLatin1String(attribute));
                out.targets.clear();
                return true;
            }
        }
    }
    return true;
}

bool GLTFConverter::primitive(int meshIndex, int index, const tinygltf::Primitive& source, SceneData::Primitive& out)
{
    using P = SceneData::Primitive;
    const QString name = primitiveName(meshIndex, index);
    if (source.material >= int(_gltf.materials.size()))
        return fail(QStringLiteral("Mesh %1 primitive %2 uses material %3, which does not exist")
                        .arg(meshIndex).arg(index).arg(source.material));
    out.material = source.material;
    if (source.mode < P::kPoints || source.mode > P::kTriangleFan) {
        _warnings << QStringLiteral("%1 has the unknown mode %2; skipped").arg(name).arg(source.mode);
        return true;
    }
    out.mode = source.mode;
    DecodedAccessors decoded;
    if (const tinygltf::Value* draco = extension(source.extensions, "KHR_draco_mesh_compression")) {
        QString why;
        if (!decodeDracoPrimitive(_gltf, source, *draco, decoded, why))
            return leaveOut(name, why, out);
        out.mode = P::kTriangles; // a strip arrives as the triangles it makes
    }
    _accessors.setDecoded(&decoded);
    const bool read = attributes(source, out);
    _accessors.setDecoded(nullptr);
    if (!read && _accessors.compressedDataLost)
        return leaveOut(name, _accessors.error, out);
    if (!read)
        return failAccessor();
    // A primitive without positions is passed over by the upload; nothing else of it matters.
    const size_t vertices = out.vertexCount();
    if (vertices == 0)
        return true;
    for (quint32 i : out.indices)
        if (i >= vertices)
            return fail(QStringLiteral("Mesh %1 primitive %2 uses vertex %3 of %4").arg(meshIndex).arg(index).arg(i).arg(vertices));
    if (!out.normals.empty() && out.normals.size() != out.positions.size())
        return fail(QStringLiteral("Mesh %1 primitive %2 has more normals or positions than the other").arg(meshIndex).arg(index));
    for (size_t s = 0; s < out.texCoords.size(); ++s) {
        std::vector<float>& set = out.texCoords[s];
        if (!source.attributes.count("TEXCOORD_" + std::to_string(s))) {
            set.assign(vertices * 2, 0.0f);
            _warnings << QStringLiteral("%1 has no TEXCOORD_%2 but a later set; it reads zeros").arg(name).arg(s);
        }
        if (set.size() != vertices * 2)
            return fail(QStringLiteral("Mesh %1 primitive %2 has a texture coordinate count that differs from its positions")
                            .arg(meshIndex).arg(index));
    }
    const size_t influences = 4 * size_t(std::max(out.influenceSets, 1));
    const std::tuple<const char*, size_t, size_t> perVertex[] = {{"tangent", out.tangents.size(), 4},
                                                                 {"colour", out.colors.size(), 4},
                                                                 {"joint", out.joints.size(), influences}};
    for (const auto& [what, size, width] : perVertex)
        if (size != 0 && size != vertices * width)
            return fail(QStringLiteral("Mesh %1 primitive %2 has a %3 count that differs from its positions")
                            .arg(meshIndex).arg(index).arg(QLatin1String(what)));
    if (!morphTargets(source, name, out))
        return failAccessor();

    // Bad primitives are dropped, not the scene: the rest may draw fine.
    if (!std::all_of(out.positions.begin(), out.positions.end(), [](float x) { return std::isfinite(x); })) {
        _warnings << QStringLiteral("%1 has positions that are infinite or not a number; skipped").arg(name);
        out = P{};
        out.material = source.material;
        return true;
    }
    if (unrollToList(out) > 0)
        _warnings << QStringLiteral("%1 ends in an incomplete %2, which is left out")
                         .arg(name, QLatin1String(out.mode == P::kLines ? "line" : "triangle"));
    if ((out.indexed ? out.indices.size() : out.vertexCount()) == 0) {
        out = P{};
        out.material = source.material;
        return true;
    }
    if (out.mode == P::kTriangles && out.normals.empty())
        makeFlatNormals(out);
    if (out.mode == P::kTriangles && out.tangents.empty() && out.material >= 0) {
        const SceneData::TextureRef& normalMap = _out.materials[size_t(out.material)].normalTexture;
        if (normalMap.texture >= 0 && normalMap.texCoord < int(out.texCoords.size()))
            generateTangents(out, normalMap.texCoord);
    }
    return true;
}

// Compressed data that cannot be decoded costs its primitive, not the file: the rest may draw.
bool GLTFConverter::leaveOut(const QString& name, const QString& why, SceneData::Primitive& out)
{
    const QString message = QStringLiteral("%1 is left out: %2").arg(name, why);
    _warnings << message;
    if (_leftOut.isEmpty())
        _leftOut = message;
    const int material = out.material;
    out = SceneData::Primitive{};
    out.material = material;
    _accessors.error.clear();
    _accessors.compressedDataLost = false;
    return true;
}

// A texture reference with its KHR_texture_transform, whose texCoord overrides the reference's.
bool GLTFConverter::textureRef(int texture, int texCoord, float scale, const tinygltf::Value* transform,
                               SceneData::TextureRef& out)
{
    if (texture >= int(_gltf.textures.size()))
        return fail(QStringLiteral("Texture %1 does not exist").arg(texture));
    out.texture = texture < 0 ? -1 : texture;
    out.texCoord = std::max(texCoord, 0);
    out.scale = scale;
    // The parser keeps only extensions that are objects.
    if (!transform)
        return true;
    out.transform.offset = pair(*transform, "offset", QVector2D(0, 0));
    out.transform.rotation = float(number(*transform, "rotation", 0));
    out.transform.scale = pair(*transform, "scale", QVector2D(1, 1));
    const double set = number(*transform, "texCoord", -1);
    if (set >= 0 && set < 256)
        out.texCoord = int(set);
    return true;
}

bool GLTFConverter::materials()
{
    for (const tinygltf::Material& m : _gltf.materials) {
        const tinygltf::PbrMetallicRoughness& pbr = m.pbrMetallicRoughness;
        SceneData::Material material;
        material.name = text(m.name);
        const auto at = [](const std::vector<double>& v, size_t i, double fallback) {
            return float(i < v.size() ? v[i] : fallback);
        };
        material.baseColorFactor = QVector4D(at(pbr.baseColorFactor, 0, 1), at(pbr.baseColorFactor, 1, 1),
                                             at(pbr.baseColorFactor, 2, 1), at(pbr.baseColorFactor, 3, 1));
        material.metallicFactor = float(pbr.metallicFactor);
        material.roughnessFactor = float(pbr.roughnessFactor);
        material.emissiveFactor = QVector3D(at(m.emissiveFactor, 0, 0), at(m.emissiveFactor, 1, 0), at(m.emissiveFactor, 2, 0));
        material.alphaMode = m.alphaMode == "MASK" ? SceneData::Material::Mask
                             : m.alphaMode == "BLEND" ? SceneData::Material::Blend
                                                      : SceneData::Material::Opaque;
        material.alphaCutoff = float(m.alphaCutoff);
        material.doubleSided = m.doubleSided;
        material.unlit = extension(m.extensions, "KHR_materials_unlit") != nullptr;
        if (const tinygltf::Value* strength = extension(m.extensions, "KHR_materials_emissive_strength"))
            material.emissiveStrength = float(std::max(number(*strength, "emissiveStrength", 1), 0.0));
        const auto transform = [](const tinygltf::ExtensionMap& extensions) {
            return extension(extensions, "KHR_texture_transform");
        };
        if (!textureRef(pbr.baseColorTexture.index, pbr.baseColorTexture.texCoord, 1,
                        transform(pbr.baseColorTexture.extensions), material.baseColorTexture) ||
            !textureRef(pbr.metallicRoughnessTexture.index, pbr.metallicRoughnessTexture.texCoord, 1,
                        transform(pbr.metallicRoughnessTexture.extensions), material.metallicRoughnessTexture) ||
            !textureRef(m.normalTexture.index, m.normalTexture.texCoord, float(m.normalTexture.scale),
                        transform(m.normalTexture.extensions), material.normalTexture) ||
            !textureRef(m.occlusionTexture.index, m.occlusionTexture.texCoord, float(m.occlusionTexture.strength),
                        transform(m.occlusionTexture.extensions), material.occlusionTexture) ||
            !textureRef(m.emissiveTexture.index, m.emissiveTexture.texCoord, 1, transform(m.emissiveTexture.extensions),
                        material.emissiveTexture))
            return false;
        if (!materialExtensions(m.extensions, material))
            return false;
        _out.materials.push_back(material);
    }
    return true;
}

// A texture reference inside a material extension: {"index", "texCoord", "scale"} with its own
// texture transform. Absent or not an object: no texture.
bool GLTFConverter::extensionTextureRef(const tinygltf::Value& object, const char* key, SceneData::TextureRef& out)
{
    const tinygltf::Value& info = gltfMember(object, key);
    if (!info.IsObject() || !info.Has("index"))
        return true;
    const double index = number(info, "index", -1);
    if (!(index >= 0 && index < double(INT_MAX)) || std::floor(index) != index)
        return fail(QStringLiteral("A material extension's %1 has no usable texture index").arg(QLatin1String(key)));
    const double set = number(info, "texCoord", 0);
    const tinygltf::Value& transform = gltfMember(gltfMember(info, "extensions"), "KHR_texture_transform");
    return textureRef(int(index), set >= 0 && set < 256 ? int(set) : 0, float(number(info, "scale", 1)),
                      transform.IsObject() ? &transform : nullptr, out);
}

bool GLTFConverter::materialExtensions(const tinygltf::ExtensionMap& extensions, SceneData::Material& material)
{
    using M = SceneData::Material;
    if (const tinygltf::Value* ior = extension(extensions, "KHR_materials_ior")) {
        // 0 stands for an infinite index in the extension; a mirror is the closest this shading has.
        const double value = number(*ior, "ior", 1.5);
        material.ior = value == 0 ? 1e4f : float(std::clamp(value, 1.0, 1e4));
        if (material.ior != 1.5f)
            material.extensions |= M::Specular;
    }
    if (const tinygltf::Value* e = extension(extensions, "KHR_materials_specular")) {
        material.extensions |= M::Specular;
        material.specular.factor = unitNumber(*e, "specularFactor", 1);
        material.specular.colorFactor = triple(*e, "specularColorFactor", QVector3D(1, 1, 1));
        if (!extensionTextureRef(*e, "specularTexture", material.specular.texture) ||
            !extensionTextureRef(*e, "specularColorTexture", material.specular.colorTexture))
            return false;
    }
    if (const tinygltf::Value* e = extension(extensions, "KHR_materials_clearcoat")) {
        material.extensions |= M::Clearcoat;
        material.clearcoat.factor = unitNumber(*e, "clearcoatFactor", 0);
        material.clearcoat.roughness = unitNumber(*e, "clearcoatRoughnessFactor", 0);
        if (!extensionTextureRef(*e, "clearcoatTexture", material.clearcoat.texture) ||
            !extensionTextureRef(*e, "clearcoatRoughnessTexture", material.clearcoat.roughnessTexture) ||
            !extensionTextureRef(*e, "clearcoatNormalTexture", material.clearcoat.normalTexture))
            return false;
    }
    if (const tinygltf::Value* e = extension(extensions, "KHR_materials_sheen")) {
        material.extensions |= M::Sheen;
        material.sheen.colorFactor = unitTriple(*e, "sheenColorFactor", QVector3D(0, 0, 0));
        material.sheen.roughness = unitNumber(*e, "sheenRoughnessFactor", 0);
        if (!extensionTextureRef(*e, "sheenColorTexture", material.sheen.colorTexture) ||
            !extensionTextureRef(*e, "sheenRoughnessTexture", material.sheen.roughnessTexture))
            return false;
    }
    if (const tinygltf::Value* e = extension(extensions, "KHR_materials_transmission")) {
        material.extensions |= M::Transmission;
        material.transmission.factor = unitNumber(*e, "transmissionFactor", 0);
        if (!extensionTextureRef(*e, "transmissionTexture", material.transmission.texture))
            return false;
        if (const tinygltf::Value* volume = extension(extensions, "KHR_materials_volume")) {
            material.transmission.thickness = float(std::clamp(number(*volume, "thicknessFactor", 0), 0.0, 1e6));
            const double distance = number(*volume, "attenuationDistance", 0);
            material.transmission.attenuationDistance = distance > 0 && std::isfinite(distance) ? float(distance) : 0.0f;
            material.transmission.attenuationColor = unitTriple(*volume, "attenuationColor", QVector3D(1, 1, 1));
            if (!extensionTextureRef(*volume, "thicknessTexture", material.transmission.thicknessTexture))
                return false;
        }
    }
    if (const tinygltf::Value* e = extension(extensions, "KHR_materials_pbrSpecularGlossiness")) {
        // Replaces metal-roughness: the diffuse colour takes the base colour's place.
        material.extensions |= M::SpecularGlossiness;
        const QVector4D diffuse(1, 1, 1, 1);
        const tinygltf::Value& factor = e->Get("diffuseFactor");
        material.baseColorFactor = diffuse;
        if (factor.IsArray() && factor.ArrayLen() == 4)
            for (int i = 0; i < 4; ++i)
                if (factor.Get(i).IsNumber())
                    material.baseColorFactor[i] = float(factor.Get(i).GetNumberAsDouble());
        material.specularGlossiness.specularFactor = unitTriple(*e, "specularFactor", QVector3D(1, 1, 1));
        material.specularGlossiness.glossiness = unitNumber(*e, "glossinessFactor", 1);
        material.baseColorTexture = SceneData::TextureRef();
        material.metallicRoughnessTexture = SceneData::TextureRef();
        if (!extensionTextureRef(*e, "diffuseTexture", material.baseColorTexture) ||
            !extensionTextureRef(*e, "specularGlossinessTexture", material.specularGlossiness.texture))
            return false;
    }
    return true;
}

// A file that loads but shows nothing is otherwise indistinguishable from a renderer fault.
void GLTFConverter::warnWhenNothingIsDrawn()
{
    std::vector<int> stack = _out.roots;
    while (!stack.empty()) {
        const SceneData::Node& node = _out.nodes[size_t(stack.back())];
        stack.pop_back();
        if (node.mesh >= 0)
            for (const SceneData::Primitive& p : _out.meshes[size_t(node.mesh)].primitives)
                if (p.vertexCount() > 0)
                    return;
        stack.insert(stack.end(), node.children.begin(), node.children.end());
    }
    _warnings << (_out.meshes.empty() ? QStringLiteral("The file has nothing to draw: it has no meshes")
                                      : QStringLiteral("The file has nothing to draw: no node of its scene has a mesh that can be drawn"));
}

bool GLTFConverter::textures()
{
    for (const tinygltf::Sampler& s : _gltf.samplers)
        _out.samplers.push_back({std::max(s.minFilter, 0), std::max(s.magFilter, 0), s.wrapS, s.wrapT});
    for (size_t t = 0; t < _gltf.textures.size(); ++t) {
        const tinygltf::Texture& texture = _gltf.textures[t];
        // No source is left to the upload: an extension may name one that this reader skips.
        // KHR_texture_basisu names a KTX 2 image, used when there is no plain one to fall back on.
        int source = texture.source;
        if (const tinygltf::Value* basisu = extension(texture.extensions, "KHR_texture_basisu"); basisu && source < 0)
            source = int(number(*basisu, "source", -1));
        if (source >= int(_gltf.images.size()))
            return fail(QStringLiteral("Texture %1 uses image %2, which does not exist").arg(t).arg(source));
        if (texture.sampler >= int(_gltf.samplers.size()))
            return fail(QStringLiteral("Texture %1 uses sampler %2, which does not exist").arg(t).arg(texture.sampler));
        _out.textures.push_back({std::max(source, -1), std::max(texture.sampler, -1)});
    }
    return true;
}

bool GLTFConverter::images()
{
    for (size_t i = 0; i < _gltf.images.size(); ++i) {
        const tinygltf::Image& source = _gltf.images[i];
        SceneData::Image image;
        image.name = text(source.name);
        image.uri = text(source.uri);
        image.mimeType = text(source.mimeType);
        if (source.bufferView >= 0) {
            const int view = source.bufferView;
            if (view >= int(_gltf.bufferViews.size()))
                return fail(QStringLiteral("Image %1 uses buffer view %2, which does not exist").arg(i).arg(view));
            const tinygltf::BufferView& v = _gltf.bufferViews[size_t(view)];
            if (v.buffer < 0 || v.buffer >= int(_gltf.buffers.size()) ||
                v.byteOffset > _gltf.buffers[size_t(v.buffer)].data.size() ||
                v.byteLength > _gltf.buffers[size_t(v.buffer)].data.size() - v.byteOffset || v.byteLength > size_t(INT_MAX))
                return fail(QStringLiteral("Image %1 reaches past the end of its buffer").arg(i));
            image.bytes = QByteArray(reinterpret_cast<const char*>(_gltf.buffers[size_t(v.buffer)].data.data() + v.byteOffset),
                                     int(v.byteLength));
        } else if (!source.uri.empty()) {
            const QString path = QDir(_base).filePath(QUrl::fromPercentEncoding(source.uri.c_str()));
            if (QFileInfo(path).isFile())
                image.path = path;
            else
                _warnings << QStringLiteral("Image %1 ('%2') could not be loaded; it renders white").arg(i).arg(image.uri);
        } else if (source.image.size() < size_t(INT_MAX)) {
            image.bytes = QByteArray(reinterpret_cast<const char*>(source.image.data()), int(source.image.size()));
        }
        _out.images.push_back(image);
    }
    return true;
}

void GLTFConverter::cameras()
{
    for (const tinygltf::Camera& source : _gltf.cameras) {
        SceneData::Camera camera;
        camera.name = text(source.name);
        camera.orthographic = source.type == "orthographic";
        if (camera.orthographic) {
            camera.xmag = source.orthographic.xmag;
            camera.ymag = source.orthographic.ymag;
            camera.znear = source.orthographic.znear;
            camera.zfar = source.orthographic.zfar;
        } else {
            camera.yfov = source.perspective.yfov;
            camera.aspectRatio = source.perspective.aspectRatio;
            camera.znear = source.perspective.znear;
            camera.zfar = source.perspective.zfar;
        }
        _out.cameras.push_back(camera);
    }
}

void GLTFConverter::lights()
{
    for (const tinygltf::Light& source : _gltf.lights) {
        SceneData::Light light;
        light.name = text(source.name);
        light.type = source.type == "directional" ? SceneData::Light::Directional
                     : source.type == "spot"      ? SceneData::Light::Spot
                                                  : SceneData::Light::Point;
        if (source.color.size() == 3)
            light.color = QVector3D(float(source.color[0]), float(source.color[1]), float(source.color[2]));
        light.intensity = float(source.intensity);
        light.range = float(source.range);
        light.innerConeAngle = float(source.spot.innerConeAngle);
        light.outerConeAngle = float(source.spot.outerConeAngle);
        _out.lights.push_back(light);
    }
}

bool GLTFConverter::skins()
{
    for (size_t s = 0; s < _gltf.skins.size(); ++s) {
        const tinygltf::Skin& source = _gltf.skins[s];
        SceneData::Skin skin;
        skin.name = text(source.name);
        skin.skeleton = source.skeleton < int(_out.nodes.size()) ? std::max(source.skeleton, -1) : -1;
        _out.skins.push_back(skin);
        const QString name = skin.name.isEmpty() ? QString::number(s) : QStringLiteral("%1 ('%2')").arg(s).arg(skin.name);
        const auto missing = std::find_if(source.joints.begin(), source.joints.end(),
                                          [&](int joint) { return joint < 0 || joint >= int(_out.nodes.size()); });
        if (missing != source.joints.end()) {
            _warnings << QStringLiteral("Skin %1 uses node %2, which does not exist; its meshes are drawn unskinned")
                             .arg(name).arg(*missing);
            continue;
        }
        std::vector<float> matrices;
        if (source.inverseBindMatrices >= 0 && !_accessors.readFloats(source.inverseBindMatrices, 16, matrices))
            return failAccessor();
        if (source.inverseBindMatrices >= 0 && matrices.size() != source.joints.size() * 16) {
            _warnings << QStringLiteral("Skin %1 has %2 inverse bind matrices for %3 joints; its meshes are drawn unskinned")
                             .arg(name).arg(matrices.size() / 16).arg(source.joints.size());
            continue;
        }
        SceneData::Skin& kept = _out.skins.back();
        kept.joints = source.joints;
        kept.inverseBindMatrices.resize(source.joints.size()); // identities when the file gives none
        for (size_t m = 0; m < matrices.size() / 16; ++m)
            kept.inverseBindMatrices[m] = QMatrix4x4(&matrices[m * 16]).transposed(); // file is column-major
    }
    return true;
}

// Carried for later use, not applied: an animation this reader cannot decode is left out with a
// warning rather than failing a scene that draws fine without it.
void GLTFConverter::animations()
{
    for (size_t a = 0; a < _gltf.animations.size(); ++a) {
        const tinygltf::Animation& source = _gltf.animations[a];
        SceneData::Animation animation;
        animation.name = text(source.name);
        GLTFAccessorReader reader(_gltf);
        bool usable = true;
        for (const tinygltf::AnimationSampler& s : source.samplers) {
            SceneData::Animation::Sampler sampler;
            sampler.interpolation = text(s.interpolation);
            usable = usable && reader.readFloats(s.input, 1, sampler.input) &&
                     reader.readFloats(s.output, {1, 2, 3, 4}, sampler.output, &sampler.outputComponents);
            animation.samplers.push_back(sampler);
        }
        for (const tinygltf::AnimationChannel& c : source.channels) {
            if (c.sampler < 0 || c.sampler >= int(source.samplers.size()) || c.target_node >= int(_out.nodes.size()))
                reader.error = QStringLiteral("Channel uses a sampler or node that does not exist"), usable = false;
            animation.channels.push_back({c.sampler, std::max(c.target_node, -1), text(c.target_path)});
        }
        if (usable)
            _out.animations.push_back(animation);
        else
            _warnings << QStringLiteral("Animation %1 is left out: %2").arg(a).arg(reader.error);
    }
}

QMatrix4x4 SceneData::Node::localMatrix() const
{
    if (hasMatrix)
        return matrix;
    QMatrix4x4 m;
    m.translate(translation);
    m.rotate(rotation.normalized());
    m.scale(scale);
    return m;
}

} // namespace Tavren::Vyx

namespace Tavren::Vyx {

void SceneData::TextureTransform::rows(float row0[3], float row1[3]) const
{
    const float c = std::cos(rotation), s = std::sin(rotation);
    // translate * rotate * scale, with glTF's rotation matrix [c s; -s c].
    row0[0] = c * scale.x();
    row0[1] = s * scale.y();
    row0[2] = offset.x();
    row1[0] = -s * scale.x();
    row1[1] = c * scale.y();
    row1[2] = offset.y();
}

} // namespace Tavren::Vyx
