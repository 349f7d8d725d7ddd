#include "render/gltfimporter.h"

#include "core/logging.h"
#include "gl/drawing/drawbuffers.h"
#include "gl/drawing/opengldevicecontext.h"
#include "gl/glloader.h"
#include "gl/instancedata/instancedata.h"
#include "gl/instancedata/instancedatacollection.h"
#include "gl/model/gpumodel.h"
#include "gl/objects/bufferobject.h"
#include "gl/objects/vertexarrayobject.h"
#include "gl/textures/texturemanager.h"
#include "render/internal/gltftextures.h"
#include "scene/gltfscenereader.h"

#include <QFile>
#include <QFileInfo>
#include <QHash>

#include <algorithm>
#include <cmath>

namespace Tavren::Vyx {

namespace {

// Area-weighted vertex normals for primitives that come without any.
void computeNormals(const std::vector<float>& positions, const std::vector<quint32>& indices, size_t firstVertex,
                    std::vector<float>& normals)
{
    const auto at = [&](quint32 i) {
        const size_t o = (firstVertex + i) * 3;
        return QVector3D(positions[o], positions[o + 1], positions[o + 2]);
    };
    for (size_t t = 0; t + 2 < indices.size(); t += 3) {
        const QVector3D n = QVector3D::crossProduct(at(indices[t + 1]) - at(indices[t]), at(indices[t + 2]) - at(indices[t]));
        for (size_t k = 0; k < 3; ++k)
            for (int c = 0; c < 3; ++c)
                normals[(firstVertex + indices[t + k]) * 3 + size_t(c)] += n[c];
    }
}

// Fills a GPUModel from checked scene data.
class Uploader
{
public:
    Uploader(const SceneData& scene, TextureManager& manager, GPUModel& model, QObject* lightParent, QStringList& warnings)
        : _scene(scene), _textures(scene, manager, warnings), _model(model), _lightParent(lightParent), _warnings(warnings)
    {
    }

    bool upload();
    QString error;

private:
    struct Primitive
    {
        quint32 firstIndex = 0, indexCount = 0, baseVertex = 0;
        int material = -1;
        BoundingBox bounds;
    };
    struct Instance
    {
        int transform;
        QString name;
    };
    // One mesh's primitives packed into shared arrays.
    struct Geometry
    {
        std::vector<float> positions, normals, uvs;
        std::vector<quint32> indices;
        std::vector<Primitive> primitives;
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
    bool buildMesh(int mesh, const QVector<Instance>& instances);
    bool materialRecord(int material, InstanceData& record);

    const SceneData& _scene;
    GLTFTextures _textures;
    GPUModel& _model;
    QObject* _lightParent;
    QStringList& _warnings;
    QHash<int, QVector<Instance>> _meshInstances;
    QHash<int, InstanceData> _materials;
    std::vector<BoundingBox> _boxes;
};

bool Uploader::upload()
{
    walkNodes();
    QList<int> meshes = _meshInstances.keys();
    std::sort(meshes.begin(), meshes.end());
    for (int mesh : qAsConst(meshes)) {
        if (!buildMesh(mesh, _meshInstances[mesh]))
            return false;
    }
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
        const QString name = node.name.isEmpty() ? QStringLiteral("node%1").arg(index) : node.name;
        _model.setTransformName(transform, name);
        if (node.mesh >= 0)
            _meshInstances[node.mesh].append({transform, name});
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
    for (size_t p = 0; p < mesh.primitives.size(); ++p) {
        const SceneData::Primitive& prim = mesh.primitives[p];
        if (prim.mode != SceneData::Primitive::kTriangles) {
            _warnings << QStringLiteral("Mesh %1 primitive %2 is not a triangle list; skipped").arg(meshIndex).arg(p);
            continue;
        }
        if (prim.positions.empty()) {
            _warnings << QStringLiteral("Mesh %1 primitive %2 has no positions; skipped").arg(meshIndex).arg(p);
            continue;
        }
        const size_t vertices = prim.vertexCount();
        std::vector<quint32> idx = prim.indices;
        if (!prim.indexed) {
            idx.resize(vertices);
            for (size_t i = 0; i < vertices; ++i)
                idx[i] = quint32(i);
        }
        idx.resize(idx.size() - idx.size() % 3);
        Primitive out;
        out.firstIndex = quint32(g.indices.size());
        out.indexCount = quint32(idx.size());
        out.baseVertex = quint32(g.positions.size() / 3);
        out.material = prim.material;
        for (size_t v = 0; v < vertices; ++v)
            out.bounds.expand(QVector3D(prim.positions[3 * v], prim.positions[3 * v + 1], prim.positions[3 * v + 2]));
        g.positions.insert(g.positions.end(), prim.positions.begin(), prim.positions.end());
        if (prim.normals.empty()) {
            g.normals.resize(g.normals.size() + prim.positions.size(), 0.0f);
            computeNormals(g.positions, idx, out.baseVertex, g.normals);
        } else {
            g.normals.insert(g.normals.end(), prim.normals.begin(), prim.normals.end());
        }
        if (prim.texCoords.empty())
            g.uvs.resize(g.uvs.size() + vertices * 2, 0.0f);
        else
            g.uvs.insert(g.uvs.end(), prim.texCoords[0].begin(), prim.texCoords[0].end());
        g.indices.insert(g.indices.end(), idx.begin(), idx.end());
        g.primitives.push_back(out);
    }
}

bool Uploader::buildMesh(int meshIndex, const QVector<Instance>& instances)
{
    Geometry g;
    pack(meshIndex, g);
    if (g.primitives.empty() || g.indices.empty())
        return true;

    auto device = OpenGLDeviceContext::current();
    if (!device)
        return fail(QStringLiteral("No device context: is a GL context current?"));
    const auto upload = [&](const std::vector<float>& data) {
        auto buffer = device->newBuffer();
        buffer->setTarget(GL_ARRAY_BUFFER);
        buffer->bind();
        buffer->upload(data.data(), int(data.size()), GL_STATIC_DRAW);
        buffer->unbind();
        return buffer;
    };
    auto vao = device->newVAO();
    vao->registerBO(QStringLiteral("va_Vertex"), upload(g.positions), 3, GL_FLOAT);
    vao->registerBO(QStringLiteral("va_Normal"), upload(g.normals), 3, GL_FLOAT);
    vao->registerBO(QStringLiteral("va_TexCoord0"), upload(g.uvs), 2, GL_FLOAT);
    auto indexBuffer = device->newBuffer();
    indexBuffer->setTarget(GL_ELEMENT_ARRAY_BUFFER);
    indexBuffer->bind();
    indexBuffer->uploadGLuintData(g.indices.data(), int(g.indices.size()), GL_STATIC_DRAW);
    indexBuffer->unbind();

    // One command per (instance, primitive), split into drawables as long as the data arrays.
    struct Placement
    {
        int instance;
        size_t primitive;
    };
    std::vector<Placement> placements;
    for (int i = 0; i < instances.size(); ++i)
        for (size_t p = 0; p < g.primitives.size(); ++p)
            placements.push_back({i, p});
    const size_t firstBox = _boxes.size();
    for (const Primitive& p : g.primitives)
        _boxes.push_back(p.bounds);
    _model.loadBoundingBoxes(_boxes.data(), int(_boxes.size()));
    const QString& name = _scene.meshes[size_t(meshIndex)].name;
    const QString meshName = name.isEmpty() ? QStringLiteral("mesh%1").arg(meshIndex) : name;
    constexpr size_t kMaxCommands = SceneMaterial::kMaxCommandsPerDrawable;
    for (size_t begin = 0; begin < placements.size(); begin += kMaxCommands) {
        const size_t end = std::min(placements.size(), begin + kMaxCommands);
        std::vector<DrawElementsIndirectCommand> commands;
        QList<InstanceData> materials;
        for (size_t s = begin; s < end; ++s) {
            const Primitive& p = g.primitives[placements[s].primitive];
            commands.push_back({p.indexCount, 1, p.firstIndex, p.baseVertex, quint32(s - begin)});
            InstanceData record;
            if (!materialRecord(p.material, record))
                return false;
            materials.append(record);
        }
        auto* db = new DrawBuffers;
        db->setObjectName(meshName);
        db->setVAO(vao);
        db->setPrimitiveType(GL_TRIANGLES);
        db->setIndexedDraw(indexBuffer, int(g.indices.size()), GL_UNSIGNED_INT);
        db->setDrawElementsIndirectCommands(commands.data(), int(commands.size()));
        auto* materialData = new InstanceDataCollection(QLatin1String(SceneMaterial::kMaterialPlanName), materials);
        auto* objectData = new InstanceDataCollection(SceneMaterial::objectPlan(), commands.size());
        const int first = g.primitives[placements[begin].primitive].material;
        const int drawable = _model.drawableIndex(_model.add(db, first, materialData, objectData, 0));
        for (size_t s = begin; s < end; ++s) {
            const Instance& instance = instances[placements[s].instance];
            const int command = int(s - begin);
            _model.useTransform(drawable, command, instance.transform);
            _model.useBoundingBox(drawable, command, int(firstBox + placements[s].primitive));
            _model.addObjectName(drawable, command, instance.name);
            const int material = g.primitives[placements[s].primitive].material;
            _model.addMaterialName(drawable, command,
                                   material >= 0 && !_scene.materials[size_t(material)].name.isEmpty()
                                       ? _scene.materials[size_t(material)].name
                                       : QStringLiteral("material%1").arg(material));
        }
    }
    return true;
}

bool Uploader::materialRecord(int index, InstanceData& record)
{
    const auto cached = _materials.constFind(index);
    if (cached != _materials.cend()) {
        record = *cached;
        return true;
    }
    static const SceneData::Material defaults = [] {
        SceneData::Material m;
        m.metallicFactor = 0;
        return m;
    }();
    const SceneData::Material& m = index >= 0 ? _scene.materials[size_t(index)] : defaults;
    record = InstanceData(QLatin1String(SceneMaterial::kMaterialPlanName));
    TextureToken baseColor, metallicRoughness, normal, occlusion, emissive;
    if (!_textures.token(m.baseColorTexture, true, baseColor) ||
        !_textures.token(m.metallicRoughnessTexture, false, metallicRoughness) ||
        !_textures.token(m.normalTexture, false, normal) || !_textures.token(m.occlusionTexture, false, occlusion) ||
        !_textures.token(m.emissiveTexture, true, emissive))
        return fail(_textures.error);
    record.setToken(QStringLiteral("BaseColorMap"), baseColor);
    record.setToken(QStringLiteral("MetallicRoughnessMap"), metallicRoughness);
    record.setToken(QStringLiteral("NormalMap"), normal);
    record.setToken(QStringLiteral("OcclusionMap"), occlusion);
    record.setToken(QStringLiteral("EmissiveMap"), emissive);
    const QVector4D& base = m.baseColorFactor;
    const float baseColorFactor[4] = {base.x(), base.y(), base.z(), base.w()};
    // w: the alpha cutoff of masked materials, else -1.
    const float emissiveFactor[4] = {m.emissiveFactor.x(), m.emissiveFactor.y(), m.emissiveFactor.z(),
                                     m.alphaMode == SceneData::Material::Mask ? m.alphaCutoff : -1.0f};
    // Normal scale 0 means "no normal map".
    const float factors[4] = {m.metallicFactor, m.roughnessFactor, m.normalTexture.texture >= 0 ? m.normalTexture.scale : 0.0f,
                              m.occlusionTexture.texture >= 0 ? m.occlusionTexture.scale : 0.0f};
    record.set(QStringLiteral("BaseColorFactor"), baseColorFactor, sizeof(baseColorFactor));
    record.set(QStringLiteral("EmissiveFactor"), emissiveFactor, sizeof(emissiveFactor));
    record.set(QStringLiteral("PbrFactors"), factors, sizeof(factors));
    _materials.insert(index, record);
    return true;
}

} // namespace

GLTFImporter::GLTFImporter(TextureManager* manager)
    : _manager(manager)
{
}

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
    GLTFSceneReader reader;
    const std::unique_ptr<SceneData> scene = reader.readFromMemory(bytes, baseDirectory);
    _error = reader.errorString();
    _warnings = reader.warnings();
    if (!scene)
        return false;
    _imageCount = int(scene->images.size());
    if (!upload(*scene, model, lightParent)) {
        model.clear();
        return false;
    }
    for (const QString& line : qAsConst(_warnings))
        VYX_WARNING("%s", qPrintable(line));
    return true;
}

bool GLTFImporter::upload(const SceneData& scene, GPUModel& model, QObject* lightParent)
{
    SceneMaterial::materialPlan();
    SceneMaterial::objectPlan();
    TextureManager* manager = _manager ? _manager : TextureManager::Instance();
    Uploader uploader(scene, *manager, model, lightParent, _warnings);
    if (uploader.upload())
        return true;
    _error = uploader.error;
    return false;
}

} // namespace Tavren::Vyx
