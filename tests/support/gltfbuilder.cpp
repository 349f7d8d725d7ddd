#include "support/gltfbuilder.h"

#include <QJsonDocument>
#include <QtEndian>

namespace VyxTest {

int GLTFBuilder::view(const QByteArray& data, QJsonObject fields)
{
    while (bin.size() % 4)
        bin.append('\0');
    fields.insert("buffer", fields.value("buffer").toInt(0));
    fields.insert("byteOffset", bin.size());
    fields.insert("byteLength", fields.contains("byteLength") ? fields.value("byteLength") : data.size());
    bin.append(data);
    views.append(fields);
    return views.size() - 1;
}

int GLTFBuilder::accessor(int view, int componentType, int count, const char* type, bool normalized)
{
    QJsonObject a{{"componentType", componentType}, {"count", count}, {"type", type}};
    if (view >= 0)
        a.insert("bufferView", view);
    if (normalized)
        a.insert("normalized", true);
    return accessor(a);
}

QJsonArray GLTFBuilder::embeddedBuffer() const
{
    return {QJsonObject{{"byteLength", bin.size()}, {"uri", QString::fromLatin1("data:application/octet-stream;base64," + bin.toBase64())}}};
}

QJsonObject GLTFBuilder::scene(const QJsonArray& primitives, const QJsonObject& extra, const QJsonArray& buffers) const
{
    QJsonObject root{{"asset", QJsonObject{{"version", "2.0"}}},
                     {"scenes", QJsonArray{QJsonObject{{"nodes", QJsonArray{0}}}}},
                     {"nodes", QJsonArray{QJsonObject{{"mesh", 0}}}},
                     {"meshes", QJsonArray{QJsonObject{{"name", "m"}, {"primitives", primitives}}}},
                     {"accessors", accessors},
                     {"bufferViews", views},
                     {"buffers", buffers.isEmpty() ? embeddedBuffer() : buffers}};
    for (auto it = extra.begin(); it != extra.end(); ++it)
        root[it.key()] = it.value();
    return root;
}

QByteArray GLTFBuilder::glb(const QJsonObject& root) const
{
    QByteArray json = QJsonDocument(root).toJson(QJsonDocument::Compact), chunk = bin;
    while (json.size() % 4)
        json.append(' ');
    while (chunk.size() % 4)
        chunk.append('\0');
    const auto word = [](quint32 value) {
        char b[4];
        qToLittleEndian(value, b);
        return QByteArray(b, 4);
    };
    return "glTF" + word(2) + word(quint32(20 + json.size() + (chunk.isEmpty() ? 0 : 8 + chunk.size()))) + word(quint32(json.size())) +
           "JSON" + json + (chunk.isEmpty() ? QByteArray() : word(quint32(chunk.size())) + QByteArray("BIN\0", 4) + chunk);
}

SceneRead readScene(const QByteArray& bytes)
{
    Tavren::Vyx::GLTFSceneReader reader;
    auto scene = reader.readFromMemory(bytes, QString());
    return {std::move(scene), reader.errorString(), reader.warnings()};
}

SceneRead readScene(const QJsonObject& root)
{
    return readScene(QJsonDocument(root).toJson());
}

} // namespace VyxTest
