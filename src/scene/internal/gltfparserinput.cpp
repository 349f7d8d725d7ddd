#include "scene/internal/gltfparserinput.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QtEndian>

#include <tiny_gltf.h>

#include <set>

namespace Tavren::Vyx {

namespace {

// Where a primitive keeps its index accessor while the parser reads it. The name is no
// extension's; any the file gives itself is dropped first.
constexpr char kHiddenIndices[] = "VYX_indices_without_buffer_view";
constexpr char kMeshopt[] = "EXT_meshopt_compression";
// One byte, the least a data URI the parser accepts may hold.
constexpr char kPlaceholderUri[] = "data:application/octet-stream;base64,AA==";

// Hides every index accessor that has no buffer view; true when there was one.
bool hideViewlessIndices(QJsonObject& root)
{
    const QJsonArray accessors = root.value(QLatin1String("accessors")).toArray();
    QJsonArray meshes = root.value(QLatin1String("meshes")).toArray();
    bool changed = false;
    for (int m = 0; m < meshes.size(); ++m) {
        QJsonObject mesh = meshes[m].toObject();
        QJsonArray primitives = mesh.value(QLatin1String("primitives")).toArray();
        bool meshChanged = false;
        for (int p = 0; p < primitives.size(); ++p) {
            QJsonObject primitive = primitives[p].toObject();
            QJsonObject extensions = primitive.value(QLatin1String("extensions")).toObject();
            const QJsonValue indices = primitive.value(QLatin1String("indices"));
            const bool viewless = indices.isDouble() && indices.toInt(-1) >= 0 && indices.toInt() < accessors.size() &&
                                  !accessors[indices.toInt()].toObject().contains(QLatin1String("bufferView"));
            if (!viewless && !extensions.contains(QLatin1String(kHiddenIndices)))
                continue;
            extensions.remove(QLatin1String(kHiddenIndices));
            if (viewless) {
                extensions.insert(QLatin1String(kHiddenIndices), QJsonObject{{QLatin1String("accessor"), indices}});
                primitive.remove(QLatin1String("indices"));
            }
            primitive.insert(QLatin1String("extensions"), extensions);
            primitives[p] = primitive;
            meshChanged = changed = true;
        }
        if (meshChanged) {
            mesh.insert(QLatin1String("primitives"), primitives);
            meshes[m] = mesh;
        }
    }
    if (changed)
        root.insert(QLatin1String("meshes"), meshes);
    return changed;
}

// Buffers that only stand in for decompressed views: marked as fallbacks, or without data in a
// file that compresses views into them. They are handed to the parser as one byte each.
std::vector<int> replaceFallbackBuffers(QJsonObject& root, bool binary)
{
    std::set<int> targets, sources;
    for (const QJsonValue& value : root.value(QLatin1String("bufferViews")).toArray()) {
        const QJsonObject view = value.toObject();
        const QJsonValue compressed = view.value(QLatin1String("extensions")).toObject().value(QLatin1String(kMeshopt));
        if (compressed.isObject()) {
            targets.insert(view.value(QLatin1String("buffer")).toInt(-1));
            sources.insert(compressed.toObject().value(QLatin1String("buffer")).toInt(-1));
        }
    }
    std::vector<int> replaced;
    if (targets.empty())
        return replaced;
    QJsonArray buffers = root.value(QLatin1String("buffers")).toArray();
    for (int b = 0; b < buffers.size(); ++b) {
        QJsonObject buffer = buffers[b].toObject();
        const bool fallback = buffer.value(QLatin1String("extensions")).toObject().value(QLatin1String(kMeshopt))
                                  .toObject().value(QLatin1String("fallback")).toBool();
        // A binary file's first buffer without a URI is its binary chunk.
        const bool dataless = !buffer.contains(QLatin1String("uri")) && !(binary && b == 0) && targets.count(b);
        if (!(fallback || dataless) || sources.count(b))
            continue;
        buffer.insert(QLatin1String("uri"), QLatin1String(kPlaceholderUri));
        buffer.insert(QLatin1String("byteLength"), 1);
        buffers[b] = buffer;
        replaced.push_back(b);
    }
    if (!replaced.empty())
        root.insert(QLatin1String("buffers"), buffers);
    return replaced;
}

// The binary container with its JSON chunk replaced; everything after that chunk is kept as it is.
QByteArray withJson(const QByteArray& glb, QByteArray json)
{
    while (json.size() % 4)
        json.append(' ');
    const quint32 oldLength = qFromLittleEndian<quint32>(glb.constData() + 12);
    const quint32 total = qFromLittleEndian<quint32>(glb.constData() + 8) - oldLength + quint32(json.size());
    QByteArray out = glb.left(8);
    char word[4];
    qToLittleEndian<quint32>(total, word);
    out.append(word, 4);
    qToLittleEndian<quint32>(quint32(json.size()), word);
    out.append(word, 4);
    out.append(glb.mid(16, 4));
    out.append(json);
    out.append(glb.mid(20 + int(oldLength)));
    return out;
}

} // namespace

GLTFParserInput::GLTFParserInput(const QByteArray& file, const QJsonObject& root) : _bytes(file)
{
    if (root.isEmpty())
        return;
    const bool binary = file.startsWith("glTF");
    QJsonObject changed = root;
    const bool hidden = hideViewlessIndices(changed);
    _fallbackBuffers = replaceFallbackBuffers(changed, binary);
    _changed = hidden || !_fallbackBuffers.empty();
    if (!_changed)
        return;
    const QByteArray json = QJsonDocument(changed).toJson(QJsonDocument::Compact);
    // Qt read the JSON, so a binary file's header and JSON chunk were whole.
    _bytes = binary ? withJson(file, json) : json;
}

void GLTFParserInput::restore(tinygltf::Model& gltf) const
{
    if (!_changed)
        return;
    for (tinygltf::Mesh& mesh : gltf.meshes)
        for (tinygltf::Primitive& primitive : mesh.primitives) {
            const auto hidden = primitive.extensions.find(kHiddenIndices);
            if (hidden == primitive.extensions.end())
                continue;
            const tinygltf::Value& accessor = hidden->second.Get("accessor");
            primitive.indices = accessor.IsNumber() ? accessor.GetNumberAsInt() : -1;
            primitive.extensions.erase(hidden);
        }
    for (int b : _fallbackBuffers)
        if (b < int(gltf.buffers.size()))
            gltf.buffers[size_t(b)].data.clear();
}

} // namespace Tavren::Vyx
