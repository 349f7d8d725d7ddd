#include "render/gltfimporter.h"

#include "core/logging.h"
#include "gl/objects/bufferobject.h"
#include "gl/drawing/drawbuffers.h"
#include "gl/glloader.h"
#include "gl/model/gpumodel.h"
#include "gl/instancedata/instancedata.h"
#include "gl/instancedata/instancedatacollection.h"
#include "gl/instancedata/instancedataplan.h"
#include "gl/drawing/opengldevicecontext.h"
#include "gl/objects/texture.h"
#include "gl/textures/texturemanager.h"
#include "gl/textureio/textureio.h"
#include "gl/objects/vertexarrayobject.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QHash>
#include <QImage>
#include <QQuaternion>

#include <tiny_gltf.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstring>
#include <map>
#include <vector>

namespace Tavren::Vyx {

PunctualLight::PunctualLight(QObject* parent)
    : ShadowMapLight(parent)
{
}

namespace {

constexpr int kMaxNodeDepth = 256;
const char* const kMaterialPlanName = "GLTFMaterial";
const char* const kObjectPlanName = "GLTFObject";

// Images are decoded by Qt; one that fails stays empty and becomes white later. Images in
// buffer views wait for the builder, which checks the view against its buffer first.
bool decodeImageBytes(tinygltf::Image* image, const unsigned char* bytes, size_t size)
{
    QImage decoded;
    if (size > 0 && size < size_t(INT_MAX))
        decoded.loadFromData(bytes, int(size));
    image->image.clear();
    image->width = image->height = 0;
    if (decoded.isNull())
        return false;
    decoded = decoded.convertToFormat(QImage::Format_ARGB32);
    image->width = decoded.width();
    image->height = decoded.height();
    image->component = 4;
    image->bits = 8;
    image->pixel_type = TINYGLTF_COMPONENT_TYPE_UNSIGNED_BYTE;
    image->image.assign(decoded.constBits(), decoded.constBits() + decoded.sizeInBytes());
    return true;
}

bool decodeImage(tinygltf::Image* image, const int, std::string*, std::string*, int, int, const unsigned char* bytes,
                 int size, void*)
{
    if (image->bufferView < 0)
        decodeImageBytes(image, bytes, size_t(std::max(size, 0)));
    return true;
}

// A missing external image only warns, like an undecodable one.
bool readFile(std::vector<unsigned char>* out, std::string* error, const std::string& path, void*)
{
    QFile file(QString::fromStdString(path));
    if (!file.open(QIODevice::ReadOnly)) {
        if (error)
            *error += "Cannot read '" + path + "'\n";
        return false;
    }
    const QByteArray bytes = file.readAll();
    out->assign(bytes.constBegin(), bytes.constEnd());
    return true;
}

QMatrix4x4 nodeMatrix(const tinygltf::Node& node)
{
    QMatrix4x4 m;
    if (node.matrix.size() == 16) {
        float* d = m.data(); // column-major, as the file stores it
        for (int i = 0; i < 16; ++i)
            d[i] = float(node.matrix[size_t(i)]);
        return m;
    }
    if (node.translation.size() == 3)
        m.translate(float(node.translation[0]), float(node.translation[1]), float(node.translation[2]));
    if (node.rotation.size() == 4)
        m.rotate(QQuaternion(float(node.rotation[3]), float(node.rotation[0]), float(node.rotation[1]),
                             float(node.rotation[2]))
                     .normalized());
    if (node.scale.size() == 3)
        m.scale(float(node.scale[0]), float(node.scale[1]), float(node.scale[2]));
    return m;
}

// Everything one load builds, checked as it goes.
class Builder
{
public:
    Builder(const tinygltf::Model& gltf, TextureManager* manager, GPUModel& model, QObject* lightParent,
            QStringList& warnings)
        : _gltf(gltf), _manager(manager), _model(model), _lightParent(lightParent), _warnings(warnings)
    {
    }

    bool build();
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

    bool fail(const QString& message)
    {
        if (error.isEmpty())
            error = message;
        return false;
    }
    bool walkNodes();
    bool checkAccessor(int index, int components, const tinygltf::Accessor*& accessor, const unsigned char*& base,
                       size_t& stride);
    bool readFloats(int index, int components, std::vector<float>& out);
    bool readIndices(int index, std::vector<quint32>& out);
    bool buildMesh(int mesh, const QVector<Instance>& instances);
    bool materialRecord(int material, InstanceData& record);
    bool textureToken(const tinygltf::TextureInfo& info, bool srgb, TextureToken& token);
    bool textureToken(int texture, int texCoord, bool srgb, TextureToken& token);
    void addCamera(const tinygltf::Node& node, int transform);
    bool addLight(const tinygltf::Node& node, int transform);

    const tinygltf::Model& _gltf;
    TextureManager* _manager;
    GPUModel& _model;
    QObject* _lightParent;
    QStringList& _warnings;
    QHash<int, QVector<Instance>> _meshInstances;
    QHash<int, InstanceData> _materials;
    QHash<QPair<int, bool>, TextureToken> _imageTokens;
    std::vector<BoundingBox> _boxes;
};

bool Builder::build()
{
    if (!walkNodes())
        return false;
    QList<int> meshes = _meshInstances.keys();
    std::sort(meshes.begin(), meshes.end());
    for (int mesh : qAsConst(meshes)) {
        if (!buildMesh(mesh, _meshInstances[mesh]))
            return false;
    }
    _model.updateTransforms();
    return true;
}

bool Builder::walkNodes()
{
    const int nodeCount = int(_gltf.nodes.size());
    std::vector<int> parents(size_t(nodeCount), -1);
    for (int n = 0; n < nodeCount; ++n) {
        for (int child : _gltf.nodes[size_t(n)].children) {
            if (child < 0 || child >= nodeCount)
                return fail(QStringLiteral("Node %1 has a child %2 that does not exist").arg(n).arg(child));
            if (parents[size_t(child)] >= 0 || child == n)
                return fail(QStringLiteral("Node %1 has more than one parent").arg(child));
            parents[size_t(child)] = n;
        }
    }
    std::vector<int> roots;
    const int sceneIndex = _gltf.defaultScene >= 0 ? _gltf.defaultScene : 0;
    if (sceneIndex < int(_gltf.scenes.size())) {
        roots = _gltf.scenes[size_t(sceneIndex)].nodes;
    } else {
        for (int n = 0; n < nodeCount; ++n)
            if (parents[size_t(n)] < 0)
                roots.push_back(n);
    }
    // Depth-first without recursion; the single-parent rule above makes a cycle unreachable
    // from a root, and the depth cap bounds a long chain.
    struct Pending
    {
        int node, parentTransform, depth;
    };
    std::vector<Pending> stack;
    for (auto it = roots.rbegin(); it != roots.rend(); ++it)
        stack.push_back({*it, GPUModel::kInvalidTransformRef, 0});
    std::vector<bool> seen(size_t(nodeCount), false);
    while (!stack.empty()) {
        const Pending p = stack.back();
        stack.pop_back();
        if (p.node < 0 || p.node >= nodeCount)
            return fail(QStringLiteral("The scene refers to node %1, which does not exist").arg(p.node));
        if (seen[size_t(p.node)] || p.depth > kMaxNodeDepth)
            return fail(QStringLiteral("Node %1 is reached twice or nests too deeply").arg(p.node));
        seen[size_t(p.node)] = true;
        const tinygltf::Node& node = _gltf.nodes[size_t(p.node)];
        const int transform = _model.addTransform(p.parentTransform, nodeMatrix(node));
        const QString name = node.name.empty() ? QStringLiteral("node%1").arg(p.node) : QString::fromStdString(node.name);
        _model.setTransformName(transform, name);
        if (node.mesh >= 0) {
            if (node.mesh >= int(_gltf.meshes.size()))
                return fail(QStringLiteral("Node %1 uses mesh %2, which does not exist").arg(p.node).arg(node.mesh));
            _meshInstances[node.mesh].append({transform, name});
        }
        if (node.camera >= 0)
            addCamera(node, transform);
        if (!addLight(node, transform))
            return false;
        for (auto it = node.children.rbegin(); it != node.children.rend(); ++it)
            stack.push_back({*it, transform, p.depth + 1});
    }
    return true;
}

void Builder::addCamera(const tinygltf::Node& node, int transform)
{
    if (node.camera >= int(_gltf.cameras.size())) {
        _warnings << QStringLiteral("Camera %1 does not exist; ignored").arg(node.camera);
        return;
    }
    const tinygltf::Camera& source = _gltf.cameras[size_t(node.camera)];
    Camera camera;
    if (source.type == "orthographic") {
        camera.setProjectionType(Camera::eOrthographic);
        camera.setOrthographicHeight(float(2 * source.orthographic.ymag));
        camera.setNearFar(float(source.orthographic.znear), float(source.orthographic.zfar));
    } else {
        camera.setFieldOfView(float(source.perspective.yfov * 180.0 / M_PI));
        const double zfar = source.perspective.zfar > 0 ? source.perspective.zfar : source.perspective.znear * 1e5;
        camera.setNearFar(float(source.perspective.znear), float(zfar));
    }
    const QString name = source.name.empty() ? QStringLiteral("camera%1").arg(node.camera)
                                             : QString::fromStdString(source.name);
    _model.setCameraTransform(_model.addCamera(camera, name), transform);
}

bool Builder::addLight(const tinygltf::Node& node, int transform)
{
    const auto ext = node.extensions.find("KHR_lights_punctual");
    if (ext == node.extensions.end() || !ext->second.Has("light"))
        return true;
    const int index = ext->second.Get("light").GetNumberAsInt();
    if (index < 0 || index >= int(_gltf.lights.size()))
        return fail(QStringLiteral("A node uses light %1, which does not exist").arg(index));
    const tinygltf::Light& source = _gltf.lights[size_t(index)];
    auto* light = new PunctualLight(_lightParent);
    if (source.color.size() == 3)
        light->color = QVector3D(float(source.color[0]), float(source.color[1]), float(source.color[2]));
    light->intensity = float(source.intensity);
    light->range = float(source.range);
    QMatrix4x4 world = _model.worldTransform(transform);
    if (source.type == "directional") {
        light->setType(ShadowMapLight::Directional);
        world.rotate(180, 0, 1, 0); // the file's lights shine down -Z; shadow directions run along +Z
    } else if (source.type == "spot") {
        light->setType(ShadowMapLight::Spot);
        light->setSpotCutoff(float(source.spot.outerConeAngle));
        light->innerConeAngle = float(source.spot.innerConeAngle);
    } else {
        light->setType(ShadowMapLight::Point);
    }
    light->setTransform(world);
    _model.addLight(QVariant::fromValue<QObject*>(light), QString::fromStdString(source.name));
    return true;
}

bool Builder::checkAccessor(int index, int components, const tinygltf::Accessor*& accessor,
                            const unsigned char*& base, size_t& stride)
{
    if (index < 0 || index >= int(_gltf.accessors.size()))
        return fail(QStringLiteral("Accessor %1 does not exist").arg(index));
    accessor = &_gltf.accessors[size_t(index)];
    const int componentBytes = tinygltf::GetComponentSizeInBytes(uint32_t(accessor->componentType));
    const int count = tinygltf::GetNumComponentsInType(uint32_t(accessor->type));
    if (componentBytes <= 0 || count != components)
        return fail(QStringLiteral("Accessor %1 has %2 components of an unusable type, %3 wanted")
                        .arg(index).arg(count).arg(components));
    if (accessor->sparse.isSparse)
        return fail(QStringLiteral("Accessor %1 is sparse, which is not supported").arg(index));
    const size_t element = size_t(componentBytes) * size_t(count);
    const int viewIndex = accessor->bufferView;
    if (viewIndex < 0 || viewIndex >= int(_gltf.bufferViews.size()))
        return fail(QStringLiteral("Accessor %1 has no buffer view").arg(index));
    const tinygltf::BufferView& view = _gltf.bufferViews[size_t(viewIndex)];
    if (view.buffer < 0 || view.buffer >= int(_gltf.buffers.size()))
        return fail(QStringLiteral("Buffer view %1 uses buffer %2, which does not exist").arg(viewIndex).arg(view.buffer));
    const std::vector<unsigned char>& data = _gltf.buffers[size_t(view.buffer)].data;
    if (view.byteOffset > data.size() || view.byteLength > data.size() - view.byteOffset)
        return fail(QStringLiteral("Buffer view %1 reaches past the end of buffer %2 (%3 bytes)")
                        .arg(viewIndex).arg(view.buffer).arg(data.size()));
    stride = view.byteStride ? view.byteStride : element;
    if (stride < element)
        return fail(QStringLiteral("Buffer view %1 has a stride below its element size").arg(viewIndex));
    const unsigned long long last = accessor->count
                                        ? accessor->byteOffset + (accessor->count - 1) * (unsigned long long)stride + element
                                        : 0;
    if (accessor->count > (size_t(1) << 28) || last > view.byteLength)
        return fail(QStringLiteral("Accessor %1 reaches past the end of its buffer").arg(index));
    base = data.data() + view.byteOffset + accessor->byteOffset;
    return true;
}

template <typename T>
float normalised(const unsigned char* p)
{
    T value;
    std::memcpy(&value, p, sizeof(T));
    return std::max(float(value) / float(std::numeric_limits<T>::max()), -1.0f);
}

bool Builder::readFloats(int index, int components, std::vector<float>& out)
{
    const tinygltf::Accessor* a = nullptr;
    const unsigned char* base = nullptr;
    size_t stride = 0;
    if (!checkAccessor(index, components, a, base, stride))
        return false;
    out.resize(a->count * size_t(components));
    for (size_t i = 0; i < a->count; ++i) {
        const unsigned char* element = base + i * stride;
        for (int c = 0; c < components; ++c) {
            float& v = out[i * size_t(components) + size_t(c)];
            switch (a->componentType) {
            case TINYGLTF_COMPONENT_TYPE_FLOAT: std::memcpy(&v, element + 4 * c, 4); break;
            case TINYGLTF_COMPONENT_TYPE_UNSIGNED_BYTE: v = normalised<quint8>(element + c); break;
            case TINYGLTF_COMPONENT_TYPE_BYTE: v = normalised<qint8>(element + c); break;
            case TINYGLTF_COMPONENT_TYPE_UNSIGNED_SHORT: v = normalised<quint16>(element + 2 * c); break;
            case TINYGLTF_COMPONENT_TYPE_SHORT: v = normalised<qint16>(element + 2 * c); break;
            default: return fail(QStringLiteral("Accessor %1 holds no floats or normalised integers").arg(index));
            }
        }
    }
    return true;
}

bool Builder::readIndices(int index, std::vector<quint32>& out)
{
    const tinygltf::Accessor* a = nullptr;
    const unsigned char* base = nullptr;
    size_t stride = 0;
    if (!checkAccessor(index, 1, a, base, stride))
        return false;
    out.resize(a->count);
    for (size_t i = 0; i < a->count; ++i) {
        const unsigned char* p = base + i * stride;
        switch (a->componentType) {
        case TINYGLTF_COMPONENT_TYPE_UNSIGNED_BYTE: out[i] = *p; break;
        case TINYGLTF_COMPONENT_TYPE_UNSIGNED_SHORT: { quint16 v; std::memcpy(&v, p, 2); out[i] = v; break; }
        case TINYGLTF_COMPONENT_TYPE_UNSIGNED_INT: std::memcpy(&out[i], p, 4); break;
        default: return fail(QStringLiteral("Index accessor %1 is not unsigned").arg(index));
        }
    }
    return true;
}

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

bool Builder::buildMesh(int meshIndex, const QVector<Instance>& instances)
{
    const tinygltf::Mesh& mesh = _gltf.meshes[size_t(meshIndex)];
    std::vector<float> positions, normals, uvs;
    std::vector<quint32> indices;
    std::vector<Primitive> primitives;
    for (size_t p = 0; p < mesh.primitives.size(); ++p) {
        const tinygltf::Primitive& prim = mesh.primitives[p];
        if (prim.mode != TINYGLTF_MODE_TRIANGLES && prim.mode != -1) {
            _warnings << QStringLiteral("Mesh %1 primitive %2 is not a triangle list; skipped").arg(meshIndex).arg(p);
            continue;
        }
        const auto position = prim.attributes.find("POSITION");
        if (position == prim.attributes.end()) {
            _warnings << QStringLiteral("Mesh %1 primitive %2 has no positions; skipped").arg(meshIndex).arg(p);
            continue;
        }
        std::vector<float> pos, nrm, uv;
        std::vector<quint32> idx;
        if (!readFloats(position->second, 3, pos))
            return false;
        const size_t vertices = pos.size() / 3;
        const auto normal = prim.attributes.find("NORMAL");
        const auto texCoord = prim.attributes.find("TEXCOORD_0");
        if (normal != prim.attributes.end() && !readFloats(normal->second, 3, nrm))
            return false;
        if (texCoord != prim.attributes.end() && !readFloats(texCoord->second, 2, uv))
            return false;
        if (prim.indices >= 0) {
            if (!readIndices(prim.indices, idx))
                return false;
        } else {
            idx.resize(vertices);
            for (size_t i = 0; i < vertices; ++i)
                idx[i] = quint32(i);
        }
        for (quint32 i : idx) {
            if (i >= vertices)
                return fail(QStringLiteral("Mesh %1 primitive %2 uses vertex %3 of %4")
                                .arg(meshIndex).arg(p).arg(i).arg(vertices));
        }
        if (nrm.size() != pos.size() || uv.size() != vertices * 2) {
            if (nrm.size() != pos.size() && !nrm.empty())
                return fail(QStringLiteral("Mesh %1 primitive %2 has more normals or positions than the other").arg(meshIndex).arg(p));
            if (!uv.empty() && uv.size() != vertices * 2)
                return fail(QStringLiteral("Mesh %1 primitive %2 has a texture coordinate count that differs from its positions").arg(meshIndex).arg(p));
        }
        idx.resize(idx.size() - idx.size() % 3);
        Primitive out;
        out.firstIndex = quint32(indices.size());
        out.indexCount = quint32(idx.size());
        out.baseVertex = quint32(positions.size() / 3);
        out.material = prim.material;
        if (prim.material >= int(_gltf.materials.size()))
            return fail(QStringLiteral("Mesh %1 primitive %2 uses material %3, which does not exist").arg(meshIndex).arg(p).arg(prim.material));
        for (size_t v = 0; v < vertices; ++v)
            out.bounds.expand(QVector3D(pos[3 * v], pos[3 * v + 1], pos[3 * v + 2]));
        positions.insert(positions.end(), pos.begin(), pos.end());
        const size_t oldNormals = normals.size();
        if (nrm.empty()) {
            normals.resize(oldNormals + pos.size(), 0.0f);
            computeNormals(positions, idx, out.baseVertex, normals);
        } else {
            normals.insert(normals.end(), nrm.begin(), nrm.end());
        }
        if (uv.empty())
            uv.assign(vertices * 2, 0.0f);
        uvs.insert(uvs.end(), uv.begin(), uv.end());
        indices.insert(indices.end(), idx.begin(), idx.end());
        primitives.push_back(out);
    }
    if (primitives.empty() || indices.empty())
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
    vao->registerBO(QStringLiteral("va_Vertex"), upload(positions), 3, GL_FLOAT);
    vao->registerBO(QStringLiteral("va_Normal"), upload(normals), 3, GL_FLOAT);
    vao->registerBO(QStringLiteral("va_TexCoord0"), upload(uvs), 2, GL_FLOAT);
    auto indexBuffer = device->newBuffer();
    indexBuffer->setTarget(GL_ELEMENT_ARRAY_BUFFER);
    indexBuffer->bind();
    indexBuffer->uploadGLuintData(indices.data(), int(indices.size()), GL_STATIC_DRAW);
    indexBuffer->unbind();

    // One command per (instance, primitive), split into drawables as long as the data arrays.
    struct Placement
    {
        int instance;
        size_t primitive;
    };
    std::vector<Placement> placements;
    for (int i = 0; i < instances.size(); ++i)
        for (size_t p = 0; p < primitives.size(); ++p)
            placements.push_back({i, p});
    const size_t firstBox = _boxes.size();
    for (const Primitive& p : primitives)
        _boxes.push_back(p.bounds);
    _model.loadBoundingBoxes(_boxes.data(), int(_boxes.size()));
    const QString meshName = mesh.name.empty() ? QStringLiteral("mesh%1").arg(meshIndex) : QString::fromStdString(mesh.name);
    for (size_t begin = 0; begin < placements.size(); begin += GLTFImporter::kMaxCommandsPerDrawable) {
        const size_t end = std::min(placements.size(), begin + GLTFImporter::kMaxCommandsPerDrawable);
        std::vector<DrawElementsIndirectCommand> commands;
        QList<InstanceData> materials;
        for (size_t s = begin; s < end; ++s) {
            const Primitive& p = primitives[placements[s].primitive];
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
        db->setIndexedDraw(indexBuffer, int(indices.size()), GL_UNSIGNED_INT);
        db->setDrawElementsIndirectCommands(commands.data(), int(commands.size()));
        auto* materialData = new InstanceDataCollection(QLatin1String(kMaterialPlanName), materials);
        auto* objectData = new InstanceDataCollection(GLTFImporter::objectPlan(), commands.size());
        const int first = primitives[placements[begin].primitive].material;
        const int drawable = _model.drawableIndex(_model.add(db, first, materialData, objectData, 0));
        for (size_t s = begin; s < end; ++s) {
            const Instance& instance = instances[placements[s].instance];
            const int command = int(s - begin);
            _model.useTransform(drawable, command, instance.transform);
            _model.useBoundingBox(drawable, command, int(firstBox + placements[s].primitive));
            _model.addObjectName(drawable, command, instance.name);
            const int material = primitives[placements[s].primitive].material;
            _model.addMaterialName(drawable, command,
                                   material >= 0 && !_gltf.materials[size_t(material)].name.empty()
                                       ? QString::fromStdString(_gltf.materials[size_t(material)].name)
                                       : QStringLiteral("material%1").arg(material));
        }
    }
    return true;
}

bool Builder::textureToken(const tinygltf::TextureInfo& info, bool srgb, TextureToken& token)
{
    return textureToken(info.index, info.texCoord, srgb, token);
}

bool Builder::textureToken(int texture, int texCoord, bool srgb, TextureToken& token)
{
    if (texture < 0) {
        token = _manager->tokenForColor(Qt::white);
        return true;
    }
    if (texture >= int(_gltf.textures.size()))
        return fail(QStringLiteral("Texture %1 does not exist").arg(texture));
    if (texCoord != 0)
        _warnings << QStringLiteral("Texture %1 asks for texture coordinate set %2; set 0 is used").arg(texture).arg(texCoord);
    const int source = _gltf.textures[size_t(texture)].source;
    if (source < 0 || source >= int(_gltf.images.size()))
        return fail(QStringLiteral("Texture %1 uses image %2, which does not exist").arg(texture).arg(source));
    const auto key = qMakePair(source, srgb);
    const auto cached = _imageTokens.constFind(key);
    if (cached != _imageTokens.cend()) {
        token = *cached;
        return true;
    }
    tinygltf::Image image = _gltf.images[size_t(source)];
    if (image.bufferView >= 0) {
        const int view = image.bufferView;
        if (view >= int(_gltf.bufferViews.size()))
            return fail(QStringLiteral("Image %1 uses buffer view %2, which does not exist").arg(source).arg(view));
        const tinygltf::BufferView& v = _gltf.bufferViews[size_t(view)];
        if (v.buffer < 0 || v.buffer >= int(_gltf.buffers.size()) || v.byteOffset > _gltf.buffers[size_t(v.buffer)].data.size() ||
            v.byteLength > _gltf.buffers[size_t(v.buffer)].data.size() - v.byteOffset)
            return fail(QStringLiteral("Image %1 reaches past the end of its buffer").arg(source));
        decodeImageBytes(&image, _gltf.buffers[size_t(v.buffer)].data.data() + v.byteOffset, v.byteLength);
    }
    Texture* made = nullptr;
    if (image.width > 0 && image.height > 0 && image.image.size() == size_t(image.width) * size_t(image.height) * 4) {
        const QImage view(image.image.data(), image.width, image.height, QImage::Format_ARGB32);
        TextureFileInfo fileInfo;
        fileInfo.srgb = srgb;
        made = QImageToTexture(view, false, fileInfo);
        if (made && made->bind()) {
            glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_WRAP_S, GL_REPEAT);
            glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_WRAP_T, GL_REPEAT);
            made->unbind();
        }
    }
    if (made) {
        token = _manager->tokenForTexture(made);
    } else {
        VYX_WARNING("Image %d ('%s') could not be loaded; it renders white", source, image.uri.c_str());
        _warnings << QStringLiteral("Image %1 ('%2') could not be loaded; it renders white")
                         .arg(source).arg(QString::fromStdString(image.uri));
        token = _manager->tokenForColor(Qt::white);
    }
    _imageTokens.insert(key, token);
    return true;
}

bool Builder::materialRecord(int index, InstanceData& record)
{
    const auto cached = _materials.constFind(index);
    if (cached != _materials.cend()) {
        record = *cached;
        return true;
    }
    static const tinygltf::Material defaults = [] {
        tinygltf::Material m;
        m.pbrMetallicRoughness.baseColorFactor = {1, 1, 1, 1};
        m.pbrMetallicRoughness.metallicFactor = 0;
        return m;
    }();
    const tinygltf::Material& m = index >= 0 ? _gltf.materials[size_t(index)] : defaults;
    const tinygltf::PbrMetallicRoughness& pbr = m.pbrMetallicRoughness;
    record = InstanceData(QLatin1String(kMaterialPlanName));
    TextureToken baseColor, metallicRoughness, normal, occlusion, emissive;
    if (!textureToken(pbr.baseColorTexture, true, baseColor) ||
        !textureToken(pbr.metallicRoughnessTexture, false, metallicRoughness) ||
        !textureToken(m.normalTexture.index, m.normalTexture.texCoord, false, normal) ||
        !textureToken(m.occlusionTexture.index, m.occlusionTexture.texCoord, false, occlusion) ||
        !textureToken(m.emissiveTexture, true, emissive))
        return false;
    record.setToken(QStringLiteral("BaseColorMap"), baseColor);
    record.setToken(QStringLiteral("MetallicRoughnessMap"), metallicRoughness);
    record.setToken(QStringLiteral("NormalMap"), normal);
    record.setToken(QStringLiteral("OcclusionMap"), occlusion);
    record.setToken(QStringLiteral("EmissiveMap"), emissive);
    const auto at = [](const std::vector<double>& v, size_t i, double fallback) {
        return float(i < v.size() ? v[i] : fallback);
    };
    const float baseColorFactor[4] = {at(pbr.baseColorFactor, 0, 1), at(pbr.baseColorFactor, 1, 1),
                                      at(pbr.baseColorFactor, 2, 1), at(pbr.baseColorFactor, 3, 1)};
    // w: the alpha cutoff of masked materials, else -1.
    const float emissiveFactor[4] = {at(m.emissiveFactor, 0, 0), at(m.emissiveFactor, 1, 0),
                                     at(m.emissiveFactor, 2, 0), m.alphaMode == "MASK" ? float(m.alphaCutoff) : -1.0f};
    // Normal scale 0 means "no normal map".
    const float factors[4] = {float(pbr.metallicFactor), float(pbr.roughnessFactor),
                              m.normalTexture.index >= 0 ? float(m.normalTexture.scale) : 0.0f,
                              m.occlusionTexture.index >= 0 ? float(m.occlusionTexture.strength) : 0.0f};
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

InstanceDataPlan* GLTFImporter::materialPlan()
{
    static InstanceDataPlan* plan = [] {
        auto* p = new InstanceDataPlan(QLatin1String(kMaterialPlanName));
        for (const char* name : {"BaseColorMap", "MetallicRoughnessMap", "NormalMap", "OcclusionMap", "EmissiveMap"})
            p->addMember(InstanceDataPlan::eTexture, QLatin1String(name));
        for (const char* name : {"BaseColorFactor", "EmissiveFactor", "PbrFactors"})
            p->addMember(InstanceDataPlan::eVec4, QLatin1String(name));
        p->setArraySize(kMaxCommandsPerDrawable);
        InstanceDataRegistry::Instance().registerPlan(p);
        return p;
    }();
    return plan;
}

InstanceDataPlan* GLTFImporter::objectPlan()
{
    static InstanceDataPlan* plan = [] {
        auto* p = new InstanceDataPlan(QLatin1String(kObjectPlanName));
        p->addMember(InstanceDataPlan::eMat4, QStringLiteral("ModelMatrix"));
        p->setArraySize(kMaxCommandsPerDrawable);
        InstanceDataRegistry::Instance().registerPlan(p);
        return p;
    }();
    return plan;
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
    _error.clear();
    _warnings.clear();
    _imageCount = 0;
    model.clear();
    model.setDeleteOnClear(true);
    materialPlan();
    objectPlan();
    TextureManager* manager = _manager ? _manager : TextureManager::Instance();

    tinygltf::TinyGLTF loader;
    loader.SetImageLoader(&decodeImage, nullptr);
    tinygltf::FsCallbacks fs{&tinygltf::FileExists, &tinygltf::ExpandFilePath, &readFile, &tinygltf::WriteWholeFile,
                             nullptr};
    loader.SetFsCallbacks(fs);
    tinygltf::Model gltf;
    std::string error, warning;
    const bool binary = bytes.startsWith("glTF");
    const std::string base = baseDirectory.toStdString();
    const bool parsed =
        binary ? loader.LoadBinaryFromMemory(&gltf, &error, &warning, reinterpret_cast<const unsigned char*>(bytes.constData()),
                                             unsigned(bytes.size()), base)
               : loader.LoadASCIIFromString(&gltf, &error, &warning, bytes.constData(), unsigned(bytes.size()), base);
    for (const QString& line : QString::fromStdString(warning).split(QLatin1Char('\n'), Qt::SkipEmptyParts))
        _warnings << line.trimmed();
    if (!parsed) {
        _error = QString::fromStdString(error).trimmed();
        if (_error.isEmpty())
            _error = QStringLiteral("Not a readable glTF file");
        _error.replace(QLatin1Char('\n'), QLatin1String("; "));
        return false;
    }
    _imageCount = int(gltf.images.size());
    Builder builder(gltf, manager, model, lightParent, _warnings);
    if (!builder.build()) {
        _error = builder.error;
        model.clear();
        return false;
    }
    for (const QString& line : qAsConst(_warnings))
        VYX_WARNING("%s", qPrintable(line));
    return true;
}

} // namespace Tavren::Vyx
