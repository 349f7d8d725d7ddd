#include "render/gltfimporter.h"

#include "core/logging.h"
#include "gl/drawing/drawbuffers.h"
#include "gl/drawing/opengldevicecontext.h"
#include "gl/glloader.h"
#include "gl/instancedata/instancedata.h"
#include "gl/instancedata/instancedatacollection.h"
#include "gl/model/gpumodel.h"
#include "gl/objects/bufferobject.h"
#include "gl/objects/texturebuffer.h"
#include "gl/objects/vertexarrayobject.h"
#include "gl/textures/texturemanager.h"
#include "render/internal/gltftextures.h"
#include "render/internal/scenedeformation.h"
#include "scene/gltfscenereader.h"

#include <QFile>
#include <QFileInfo>
#include <QHash>

#include <algorithm>
#include <array>
#include <cmath>
#include <map>
#include <numeric>
#include <tuple>

namespace Tavren::Vyx {

namespace {

constexpr int kMaterialMaps = 5;
const char* const kMapNames[kMaterialMaps] = {"BaseColor", "MetallicRoughness", "Normal", "Occlusion", "Emissive"};

// The material's five core maps, in the order of kMapNames.
std::array<const SceneData::TextureRef*, kMaterialMaps> coreMaps(const SceneData::Material& m)
{
    const bool specularGlossiness = (m.extensions & SceneData::Material::SpecularGlossiness) && !m.unlit;
    return {&m.baseColorTexture, specularGlossiness ? &m.specularGlossiness.texture : &m.metallicRoughnessTexture,
            &m.normalTexture, &m.occlusionTexture, &m.emissiveTexture};
}

// The set a map reads as uploaded: only sets 0 and 1 are.
int uploadedSet(const SceneData::TextureRef& ref)
{
    return ref.texture >= 0 && (ref.texCoord < 0 || ref.texCoord > 1) ? 0 : ref.texCoord;
}

// Whether all core maps, those left out included, read one coordinate: set and transform.
bool coreMapsShareCoordinate(const SceneData::Material& m)
{
    const auto maps = coreMaps(m);
    float first[2][4], other[2][4];
    maps[0]->transform.rows(first[0], first[1]);
    for (const SceneData::TextureRef* map : maps) {
        map->transform.rows(other[0], other[1]);
        for (int row = 0; row < 2; ++row)
            for (int i = 0; i < 3; ++i)
                if (other[row][i] != first[row][i])
                    return false;
        if (uploadedSet(*map) != uploadedSet(*maps[0]))
            return false;
    }
    return true;
}

// What a drawable holds: one GL primitive type and one way of being drawn (see the flags in
// SceneMaterial), so the renderer can pick its passes by flags alone.
quint64 drawableFlags(const SceneData& scene, const SceneData::Primitive& primitive)
{
    quint64 flags = 0;
    if (primitive.mode != SceneData::Primitive::kTriangles)
        flags |= SceneMaterial::kPointsOrLinesFlag;
    if (primitive.material < 0)
        return flags;
    const SceneData::Material& m = scene.materials[size_t(primitive.material)];
    if (m.doubleSided)
        flags |= SceneMaterial::kDoubleSidedFlag;
    if (!m.unlit) {
        using M = SceneData::Material;
        const std::pair<int, quint64> extensions[] = {{M::Clearcoat, SceneMaterial::kClearcoatFlag},
                                                      {M::Specular, SceneMaterial::kSpecularFlag},
                                                      {M::Sheen, SceneMaterial::kSheenFlag},
                                                      {M::Transmission, SceneMaterial::kTransmissionFlag},
                                                      {M::SpecularGlossiness, SceneMaterial::kSpecularGlossinessFlag}};
        for (const auto& [extension, flag] : extensions)
            if (m.extensions & extension)
                flags |= flag;
    }
    if (coreMapsShareCoordinate(m))
        flags |= SceneMaterial::kOneMapCoordinateFlag;
    if (m.normalTexture.texture < 0)
        flags |= SceneMaterial::kWithoutNormalMapFlag;
    const auto maps = coreMaps(m);
    if (std::all_of(maps.begin(), maps.end(), [](const SceneData::TextureRef* map) { return map->texture < 0; }))
        flags |= SceneMaterial::kWithoutMapsFlag;
    if (m.alphaMode == SceneData::Material::Mask)
        flags |= SceneMaterial::kAlphaMaskFlag;
    else if (m.alphaMode == SceneData::Material::Blend)
        flags |= SceneMaterial::kAlphaBlendFlag;
    return flags;
}

GLenum glPrimitiveType(int mode)
{
    switch (mode) {
    case SceneData::Primitive::kPoints:
        return GL_POINTS;
    case SceneData::Primitive::kLines:
        return GL_LINES;
    default:
        return GL_TRIANGLES;
    }
}

template <typename T>
void append(std::vector<T>& to, const std::vector<T>& from, size_t fillCount, T fill)
{
    if (from.empty())
        to.resize(to.size() + fillCount, fill);
    else
        to.insert(to.end(), from.begin(), from.end());
}

// Fills a GPUModel from checked scene data.
class Uploader
{
public:
    Uploader(const SceneData& scene, TextureManager& manager, GPUModel& model, QObject* lightParent,
             SceneAnimator::Private& deformation, QStringList& warnings)
        : _scene(scene), _textures(scene, manager, warnings), _textureBudget(manager.maxTokensPerDraw()), _model(model),
          _lightParent(lightParent), _deformation(deformation), _warnings(warnings)
    {
    }

    bool upload();
    QString error;

private:
    struct Primitive
    {
        quint32 firstIndex = 0, indexCount = 0, baseVertex = 0;
        int source = 0; // its number in the mesh
        int material = -1;
        int mode = SceneData::Primitive::kTriangles;
        quint64 flags = 0;
        bool colours = false, tangents = false;
        BoundingBox bounds;
    };
    struct Instance
    {
        int node;
        int transform;
        QString name;
    };
    // One mesh's primitives packed into shared arrays; an attribute only some primitives have
    // is filled in for the others, whose material records then ignore it.
    struct Geometry
    {
        std::vector<float> positions, normals, uv0, uv1, colours, tangents;
        std::vector<float> joints[2], weights[2];
        std::vector<quint32> indices;
        std::vector<Primitive> primitives;
        bool hasUV0 = false, hasUV1 = false, hasColours = false, hasTangents = false;
        int influenceSets = 0;
    };
    // A material as one draw command of a primitive sees it.
    struct MaterialKey
    {
        int material;
        bool colours, tangents;
        bool operator<(const MaterialKey& o) const
        {
            return std::tie(material, colours, tangents) < std::tie(o.material, o.colours, o.tangents);
        }
    };
    struct MaterialRecord
    {
        InstanceData record;
        QSet<TextureToken> tokens;
    };

    bool fail(const QString& message)
    {
        if (error.isEmpty())
            error = message;
        return false;
    }
    void walkNodes();
    void addCamera(int camera, int transform);
    void addLight(int light, int transform);
    void pack(int meshIndex, Geometry& geometry);
    QSharedPointer<VertexArrayObject> uploadGeometry(const Geometry& g, QSharedPointer<BufferObject>& indexBuffer);
    bool buildMesh(int mesh, const QVector<Instance>& instances);
    const MaterialRecord* materialRecord(const MaterialKey& key);
    bool textureToken(const SceneData::TextureRef& ref, bool srgb, TextureToken& token);
    void mapRows(const SceneData::TextureRef& ref, float row0[4], float row1[4]);
    int extensionParameters(int material, QSet<TextureToken>& tokens);
    bool shareExtensionParameters();

    const SceneData& _scene;
    GLTFTextures _textures;
    int _textureBudget;
    GPUModel& _model;
    QObject* _lightParent;
    SceneAnimator::Private& _deformation;
    QStringList& _warnings;
    QHash<int, QVector<Instance>> _meshInstances;
    std::map<MaterialKey, MaterialRecord> _materials;
    // Each material's extension parameters (SceneMaterial::kExtensionTexels texels), by material.
    std::map<int, int> _extensionBlocks;
    std::vector<float> _extensionTexels;
    std::vector<BoundingBox> _boxes;
    bool _reportedTexCoordSet = false;
};

bool Uploader::upload()
{
    _textures.predecode(); // pictures decode on worker threads while earlier ones upload
    walkNodes();
    QList<int> meshes = _meshInstances.keys();
    std::sort(meshes.begin(), meshes.end());
    for (int mesh : qAsConst(meshes)) {
        if (!buildMesh(mesh, _meshInstances[mesh]))
            return false;
    }
    _deformation.boxes = _boxes;
    if (!_deformation.finish(error, _warnings) || !shareExtensionParameters())
        return false;
    _model.updateTransforms();
    return true;
}

// The reader checked every reference and that each node is reached once, within its depth cap.
void Uploader::walkNodes()
{
    std::vector<std::pair<int, int>> stack; // node, parent transform
    for (auto it = _scene.roots.rbegin(); it != _scene.roots.rend(); ++it)
        stack.emplace_back(*it, GPUModel::kInvalidTransformRef);
    while (!stack.empty()) {
        const auto [index, parent] = stack.back();
        stack.pop_back();
        const SceneData::Node& node = _scene.nodes[size_t(index)];
        const int transform = _model.addTransform(parent, node.localMatrix());
        _deformation.nodeTransforms[size_t(index)] = transform;
        const QString name = node.name.isEmpty() ? QStringLiteral("node%1").arg(index) : node.name;
        _model.setTransformName(transform, name);
        if (node.mesh >= 0 && node.instances.empty())
            _meshInstances[node.mesh].append({index, transform, name});
        // Each GPU instance is a transform of its own below the node, so culling, picking and
        // animation treat it like any other placement.
        for (size_t i = 0; node.mesh >= 0 && i < node.instances.size(); ++i) {
            const int placed = _model.addTransform(transform, node.instances[i]);
            const QString instanceName = QStringLiteral("%1#%2").arg(name).arg(i);
            _model.setTransformName(placed, instanceName);
            _meshInstances[node.mesh].append({index, placed, instanceName});
        }
        if (node.camera >= 0)
            addCamera(node.camera, transform);
        if (node.light >= 0)
            addLight(node.light, transform);
        for (auto it = node.children.rbegin(); it != node.children.rend(); ++it)
            stack.emplace_back(*it, transform);
    }
}

void Uploader::addCamera(int index, int transform)
{
    const SceneData::Camera& source = _scene.cameras[size_t(index)];
    Camera camera;
    if (source.orthographic) {
        camera.setProjectionType(Camera::eOrthographic);
        camera.setOrthographicHeight(float(2 * source.ymag));
        camera.setNearFar(float(source.znear), float(source.zfar));
    } else {
        camera.setFieldOfView(float(source.yfov * 180.0 / M_PI));
        const double zfar = source.zfar > 0 ? source.zfar : source.znear * 1e5;
        camera.setNearFar(float(source.znear), float(zfar));
    }
    const QString name = source.name.isEmpty() ? QStringLiteral("camera%1").arg(index) : source.name;
    _model.setCameraTransform(_model.addCamera(camera, name), transform);
}

void Uploader::addLight(int index, int transform)
{
    const SceneData::Light& source = _scene.lights[size_t(index)];
    auto* light = new PunctualLight(_lightParent);
    light->color = source.color;
    light->intensity = source.intensity;
    light->range = source.range;
    QMatrix4x4 world = _model.worldTransform(transform);
    if (source.type == SceneData::Light::Directional) {
        light->setType(ShadowMapLight::Directional);
        world.rotate(180, 0, 1, 0); // the file's lights shine down -Z; shadow directions run along +Z
    } else if (source.type == SceneData::Light::Spot) {
        light->setType(ShadowMapLight::Spot);
        light->setSpotCutoff(source.outerConeAngle);
        light->innerConeAngle = source.innerConeAngle;
    } else {
        light->setType(ShadowMapLight::Point);
    }
    light->setTransform(world);
    _model.addLight(QVariant::fromValue<QObject*>(light), source.name);
}

void Uploader::pack(int meshIndex, Geometry& g)
{
    const SceneData::Mesh& mesh = _scene.meshes[size_t(meshIndex)];
    for (const SceneData::Primitive& prim : mesh.primitives) {
        g.hasUV0 = g.hasUV0 || !prim.texCoords.empty();
        g.hasUV1 = g.hasUV1 || prim.texCoords.size() > 1;
        g.hasColours = g.hasColours || !prim.colors.empty();
        g.hasTangents = g.hasTangents || !prim.tangents.empty();
        g.influenceSets = std::max(g.influenceSets, prim.influenceSets);
    }
    for (size_t p = 0; p < mesh.primitives.size(); ++p) {
        const SceneData::Primitive& prim = mesh.primitives[p];
        if (prim.positions.empty()) {
            _warnings << QStringLiteral("Mesh %1 primitive %2 has no positions; skipped").arg(meshIndex).arg(p);
            continue;
        }
        const size_t vertices = prim.vertexCount();
        std::vector<quint32> idx = prim.indices;
        if (!prim.indexed) {
            idx.resize(vertices);
            std::iota(idx.begin(), idx.end(), 0u);
        }
        const size_t perPrimitive = prim.mode == SceneData::Primitive::kTriangles ? 3
                                    : prim.mode == SceneData::Primitive::kLines   ? 2
                                                                                  : 1;
        idx.resize(idx.size() - idx.size() % perPrimitive);
        if (idx.empty())
            continue;
        Primitive out;
        out.firstIndex = quint32(g.indices.size());
        out.indexCount = quint32(idx.size());
        out.baseVertex = quint32(g.positions.size() / 3);
        out.source = int(p);
        out.material = prim.material;
        out.mode = prim.mode;
        out.flags = drawableFlags(_scene, prim);
        out.colours = !prim.colors.empty();
        out.tangents = !prim.tangents.empty();
        for (size_t v = 0; v < vertices; ++v)
            out.bounds.expand(QVector3D(prim.positions[3 * v], prim.positions[3 * v + 1], prim.positions[3 * v + 2]));
        g.positions.insert(g.positions.end(), prim.positions.begin(), prim.positions.end());
        // Points and lines without normals read zero, which the shading takes as facing the eye.
        append(g.normals, prim.normals, vertices * 3, 0.0f);
        if (g.hasUV0)
            append(g.uv0, prim.texCoords.empty() ? std::vector<float>() : prim.texCoords[0], vertices * 2, 0.0f);
        if (g.hasUV1)
            append(g.uv1, prim.texCoords.size() > 1 ? prim.texCoords[1] : std::vector<float>(), vertices * 2, 0.0f);
        if (g.hasColours)
            append(g.colours, prim.colors, vertices * 4, 1.0f);
        if (g.hasTangents)
            append(g.tangents, prim.tangents, vertices * 4, 0.0f);
        // Joint numbers go up as floats, exact far past any skin's joint count.
        for (size_t set = 0; set < size_t(g.influenceSets); ++set)
            for (size_t v = 0; v < vertices; ++v)
                for (size_t k = 0; k < 4; ++k) {
                    const bool has = set < size_t(prim.influenceSets);
                    const size_t at = (v * size_t(prim.influenceSets) + set) * 4 + k;
                    g.joints[set].push_back(has ? float(prim.joints[at]) : 0.0f);
                    g.weights[set].push_back(has ? prim.weights[at] : 0.0f);
                }
        g.indices.insert(g.indices.end(), idx.begin(), idx.end());
        g.primitives.push_back(out);
    }
}

QSharedPointer<VertexArrayObject> Uploader::uploadGeometry(const Geometry& g, QSharedPointer<BufferObject>& indexBuffer)
{
    auto device = OpenGLDeviceContext::current();
    if (!device) {
        fail(QStringLiteral("No device context: is a GL context current?"));
        return {};
    }
    auto vao = device->newVAO();
    const auto attribute = [&](const char* name, const std::vector<float>& data, int components) {
        if (data.empty())
            return;
        auto buffer = device->newBuffer();
        buffer->setTarget(GL_ARRAY_BUFFER);
        buffer->bind();
        buffer->upload(data.data(), int(data.size()), GL_STATIC_DRAW);
        buffer->unbind();
        vao->registerBO(QLatin1String(name), buffer, components, GL_FLOAT);
    };
    attribute("va_Vertex", g.positions, 3);
    attribute("va_Normal", g.normals, 3);
    attribute("va_TexCoord0", g.uv0, 2);
    attribute("va_TexCoord1", g.uv1, 2);
    attribute("va_Color0", g.colours, 4);
    attribute("va_Tangent0", g.tangents, 4);
    attribute("va_Joints0", g.joints[0], 4);
    attribute("va_Weights0", g.weights[0], 4);
    attribute("va_Joints1", g.joints[1], 4);
    attribute("va_Weights1", g.weights[1], 4);
    indexBuffer = device->newBuffer();
    indexBuffer->setTarget(GL_ELEMENT_ARRAY_BUFFER);
    indexBuffer->bind();
    indexBuffer->uploadGLuintData(g.indices.data(), int(g.indices.size()), GL_STATIC_DRAW);
    indexBuffer->unbind();
    return vao;
}

bool Uploader::buildMesh(int meshIndex, const QVector<Instance>& instances)
{
    Geometry g;
    pack(meshIndex, g);
    if (g.primitives.empty())
        return true;
    QSharedPointer<BufferObject> indexBuffer;
    const auto vao = uploadGeometry(g, indexBuffer);
    if (!vao)
        return false;

    const size_t firstBox = _boxes.size();
    for (const Primitive& p : g.primitives)
        _boxes.push_back(p.bounds);
    _model.loadBoundingBoxes(_boxes.data(), int(_boxes.size()));
    const QString& name = _scene.meshes[size_t(meshIndex)].name;
    const QString meshName = name.isEmpty() ? QStringLiteral("mesh%1").arg(meshIndex) : name;

    // One command per (instance, primitive). Commands go to drawables by primitive type and
    // flags; a drawable takes at most as many commands as its data arrays hold and no more
    // distinct textures than one draw can bind.
    struct Placement
    {
        int instance;
        size_t primitive;
        const MaterialRecord* material;
    };
    std::map<std::pair<int, quint64>, std::vector<Placement>> groups;
    const SceneData::Mesh& mesh = _scene.meshes[size_t(meshIndex)];
    const bool rigid =
        std::none_of(mesh.primitives.begin(), mesh.primitives.end(), [](const SceneData::Primitive& p) { return !p.targets.empty(); }) &&
        std::none_of(instances.begin(), instances.end(), [&](const Instance& i) { return _scene.nodes[size_t(i.node)].skin >= 0; });
    for (int i = 0; i < instances.size(); ++i)
        for (size_t p = 0; p < g.primitives.size(); ++p) {
            const Primitive& prim = g.primitives[p];
            const MaterialRecord* record = materialRecord({prim.material, prim.colours, prim.tangents});
            if (!record)
                return false;
            groups[{prim.mode, prim.flags | (rigid ? SceneMaterial::kRigidFlag : 0)}].push_back({i, p, record});
        }
    const auto flush = [&](const std::vector<Placement>& placed, GLenum mode, quint64 flags) {
        std::vector<DrawElementsIndirectCommand> commands;
        QList<InstanceData> materials;
        for (size_t c = 0; c < placed.size(); ++c) {
            const Primitive& p = g.primitives[placed[c].primitive];
            commands.push_back({p.indexCount, 1, p.firstIndex, p.baseVertex, quint32(c)});
            materials.append(placed[c].material->record);
        }
        auto* db = new DrawBuffers;
        db->setObjectName(meshName);
        db->setVAO(vao);
        db->setPrimitiveType(mode);
        db->setIndexedDraw(indexBuffer, int(g.indices.size()), GL_UNSIGNED_INT);
        db->setDrawElementsIndirectCommands(commands.data(), int(commands.size()));
        auto* materialData = new InstanceDataCollection(QLatin1String(SceneMaterial::kMaterialPlanName), materials);
        auto* objectData = new InstanceDataCollection(SceneMaterial::objectPlan(), commands.size());
        const int firstMaterial = g.primitives[placed.front().primitive].material;
        const int id = _model.add(db, firstMaterial, materialData, objectData, flags);
        const int drawable = _model.drawableIndex(id);
        for (size_t c = 0; c < placed.size(); ++c) {
            const Instance& instance = instances[placed[c].instance];
            const Primitive& primitive = g.primitives[placed[c].primitive];
            _deformation.addCommand(instance.node, instance.transform, meshIndex, primitive.source, int(primitive.baseVertex),
                                    id, int(c), int(firstBox + placed[c].primitive), _warnings);
            const int material = primitive.material;
            _model.useTransform(drawable, int(c), instance.transform);
            _model.useBoundingBox(drawable, int(c), int(firstBox + placed[c].primitive));
            _model.addObjectName(drawable, int(c), instance.name);
            _model.addMaterialName(drawable, int(c),
                                   material >= 0 && !_scene.materials[size_t(material)].name.isEmpty()
                                       ? _scene.materials[size_t(material)].name
                                       : QStringLiteral("material%1").arg(material));
        }
    };
    for (const auto& [key, placements] : groups) {
        std::vector<Placement> chunk;
        QSet<TextureToken> tokens;
        for (const Placement& placement : placements) {
            const QSet<TextureToken> with = tokens + placement.material->tokens;
            if (!chunk.empty() && (chunk.size() == size_t(SceneMaterial::kMaxCommandsPerDrawable) || with.size() > _textureBudget)) {
                flush(chunk, glPrimitiveType(key.first), key.second);
                chunk.clear();
                tokens.clear();
            }
            chunk.push_back(placement);
            tokens += placement.material->tokens;
        }
        flush(chunk, glPrimitiveType(key.first), key.second);
    }
    return true;
}

const Uploader::MaterialRecord* Uploader::materialRecord(const MaterialKey& key)
{
    const auto cached = _materials.find(key);
    if (cached != _materials.end())
        return &cached->second;
    static const SceneData::Material defaults = [] {
        SceneData::Material m;
        m.metallicFactor = 0;
        return m;
    }();
    const SceneData::Material& m = key.material >= 0 ? _scene.materials[size_t(key.material)] : defaults;
    MaterialRecord out;
    InstanceData& record = out.record;
    record = InstanceData(QLatin1String(SceneMaterial::kMaterialPlanName));
    const auto maps = coreMaps(m);
    for (int i = 0; i < kMaterialMaps; ++i) {
        const SceneData::TextureRef& ref = *maps[i];
        TextureToken token;
        if (!textureToken(ref, GLTFTextures::holdsColour(m, ref), token))
            return nullptr;
        if (!token.isNull())
            out.tokens.insert(token);
        const QString map = QLatin1String(kMapNames[i]);
        record.setToken(map + QLatin1String("Map"), token);
        float row0[4], row1[4];
        mapRows(ref, row0, row1);
        record.set(map + QLatin1String("UVRow0"), row0, sizeof(row0));
        record.set(map + QLatin1String("UVRow1"), row1, sizeof(row1));
    }
    int extensionTexel = 0;
    if (m.extensions && !m.unlit) {
        QSet<TextureToken> reached;
        extensionTexel = extensionParameters(key.material, reached);
        if (extensionTexel < 0)
            return nullptr;
        // The record reaches these through the extension table; binding it must make them resident.
        record.getTextureTokens() += reached;
        out.tokens += reached;
    }
    const QVector4D& base = m.baseColorFactor;
    const float baseColorFactor[4] = {base.x(), base.y(), base.z(), base.w()};
    // w: the alpha cutoff of masked materials, else -1.
    const QVector3D emission = m.emissiveFactor * m.emissiveStrength;
    const float emissiveFactor[4] = {emission.x(), emission.y(), emission.z(),
                                     m.alphaMode == SceneData::Material::Mask ? m.alphaCutoff : -1.0f};
    // Normal scale 0 means "no normal map".
    const float factors[4] = {m.metallicFactor, m.roughnessFactor, m.normalTexture.texture >= 0 ? m.normalTexture.scale : 0.0f,
                              m.occlusionTexture.texture >= 0 ? m.occlusionTexture.scale : 0.0f};
    const float options[4] = {m.unlit ? 1.0f : 0.0f, key.colours ? 1.0f : 0.0f, key.tangents ? 1.0f : 0.0f,
                              float(extensionTexel)};
    record.set(QStringLiteral("BaseColorFactor"), baseColorFactor, sizeof(baseColorFactor));
    record.set(QStringLiteral("EmissiveFactor"), emissiveFactor, sizeof(emissiveFactor));
    record.set(QStringLiteral("PbrFactors"), factors, sizeof(factors));
    record.set(QStringLiteral("Options"), options, sizeof(options));
    return &_materials.emplace(key, std::move(out)).first->second;
}

// A map's texture-transform rows, with the coordinate set it reads in row0[3].
void Uploader::mapRows(const SceneData::TextureRef& ref, float row0[4], float row1[4])
{
    const int set = uploadedSet(ref);
    if (set != ref.texCoord && !_reportedTexCoordSet) {
        _warnings << QStringLiteral("Texture coordinate set %1 is not supported; set 0 is used").arg(ref.texCoord);
        _reportedTexCoordSet = true;
    }
    ref.transform.rows(row0, row1);
    row0[3] = float(set);
    row1[3] = 0;
}

bool Uploader::textureToken(const SceneData::TextureRef& ref, bool srgb, TextureToken& token)
{
    return _textures.token(ref, srgb, token) || fail(_textures.error);
}

// The material's extension parameters, written once into the table: its first texel, or -1
// with the error set.
int Uploader::extensionParameters(int material, QSet<TextureToken>& tokens)
{
    using namespace SceneMaterial;
    const SceneData::Material& m = _scene.materials[size_t(material)];
    const auto& t = m.transmission;
    const float parameters[kExtensionParameterTexels][4] = {
        {m.clearcoat.factor, m.clearcoat.roughness, m.clearcoat.normalTexture.texture >= 0 ? m.clearcoat.normalTexture.scale : 0.0f, 0},
        {m.specular.colorFactor.x(), m.specular.colorFactor.y(), m.specular.colorFactor.z(), m.specular.factor},
        {m.sheen.colorFactor.x(), m.sheen.colorFactor.y(), m.sheen.colorFactor.z(), m.sheen.roughness},
        {t.factor, t.thickness, t.attenuationDistance, m.ior},
        {t.attenuationColor.x(), t.attenuationColor.y(), t.attenuationColor.z(), 0},
        {m.specularGlossiness.specularFactor.x(), m.specularGlossiness.specularFactor.y(),
         m.specularGlossiness.specularFactor.z(), m.specularGlossiness.glossiness},
    };
    const SceneData::TextureRef* const maps[eExtensionMapCount] = {
        &m.clearcoat.texture,     &m.clearcoat.roughnessTexture, &m.clearcoat.normalTexture,
        &m.specular.texture,      &m.specular.colorTexture,      &m.sheen.colorTexture,
        &m.sheen.roughnessTexture, &t.texture,                   &t.thicknessTexture};
    const auto found = _extensionBlocks.find(material);
    const bool written = found != _extensionBlocks.end();
    const int first = written ? found->second : int(_extensionTexels.size() / 4);
    std::vector<float> block(parameters[0], parameters[0] + 4 * kExtensionParameterTexels);
    for (const SceneData::TextureRef* map : maps) {
        TextureToken token;
        if (!textureToken(*map, GLTFTextures::holdsColour(m, *map), token))
            return -1;
        if (!token.isNull())
            tokens.insert(token);
        // Sixteen bits per float stay exact whatever the token's bit pattern.
        for (int part = 0; part < 4; ++part)
            block.push_back(float((token.token >> (16 * part)) & 0xffffu));
        float row0[4], row1[4];
        mapRows(*map, row0, row1);
        block.insert(block.end(), row0, row0 + 4);
        block.insert(block.end(), row1, row1 + 4);
    }
    if (!written) {
        _extensionTexels.insert(_extensionTexels.end(), block.begin(), block.end());
        _extensionBlocks.emplace(material, first);
    }
    return first;
}

bool Uploader::shareExtensionParameters()
{
    if (_extensionTexels.empty())
        return true;
    auto table = QSharedPointer<TextureBuffer>::create();
    if (!table->upload(_extensionTexels.data(), int(_extensionTexels.size() / 4)))
        return fail(QStringLiteral("The material extension parameters could not be uploaded"));
    _model.setSharedTexture(QLatin1String(SceneMaterial::kExtensionSampler), table);
    return true;
}

} // namespace

GLTFImporter::GLTFImporter(TextureManager* manager)
    : _manager(manager)
{
}

GLTFImporter::~GLTFImporter() = default;

bool GLTFImporter::load(const QString& path, GPUModel& model, QObject* lightParent)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        _error = QStringLiteral("Cannot open '%1': %2").arg(path, file.errorString());
        _warnings.clear();
        return false;
    }
    return loadFromMemory(file.readAll(), QFileInfo(path).absolutePath(), model, lightParent);
}

bool GLTFImporter::loadFromMemory(const QByteArray& bytes, const QString& baseDirectory, GPUModel& model,
                                  QObject* lightParent)
{
    _imageCount = 0;
    model.clear();
    model.setDeleteOnClear(true);
    _animator.reset();
    GLTFSceneReader reader;
    const std::shared_ptr<const SceneData> scene = reader.readFromMemory(bytes, baseDirectory);
    _error = reader.errorString();
    _warnings = reader.warnings();
    if (!scene)
        return false;
    _imageCount = int(scene->images.size());
    if (!upload(scene, model, lightParent)) {
        model.clear();
        return false;
    }
    for (const QString& line : qAsConst(_warnings))
        VYX_WARNING("%s", qPrintable(line));
    return true;
}

bool GLTFImporter::upload(const std::shared_ptr<const SceneData>& scene, GPUModel& model, QObject* lightParent)
{
    SceneMaterial::materialPlan();
    SceneMaterial::objectPlan();
    TextureManager* manager = _manager ? _manager : TextureManager::Instance();
    auto deformation = std::make_unique<SceneAnimator::Private>(scene, model);
    Uploader uploader(*scene, *manager, model, lightParent, *deformation, _warnings);
    if (!uploader.upload()) {
        _error = uploader.error;
        return false;
    }
    _animator = std::make_unique<SceneAnimator>(std::move(deformation));
    return true;
}

std::unique_ptr<SceneAnimator> GLTFImporter::takeAnimator()
{
    return std::move(_animator);
}

} // namespace Tavren::Vyx
