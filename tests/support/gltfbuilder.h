#pragma once

#include "scene/gltfscenereader.h"

#include <QJsonArray>
#include <QJsonObject>
#include <QStringList>

#include <memory>
#include <vector>

namespace VyxTest {

enum GLTFComponentType : int { kByte = 5120, kUnsignedByte = 5121, kShort = 5122, kUnsignedShort = 5123, kUnsignedInt = 5125,
                               kFloat = 5126 };

template <typename T>
QByteArray bytes(const std::vector<T>& values)
{
    return QByteArray(reinterpret_cast<const char*>(values.data()), int(values.size() * sizeof(T)));
}

// Builds small glTF files from raw bytes: each view holds its own bytes, 4-byte aligned in `bin`.
struct GLTFBuilder
{
    QByteArray bin;
    QJsonArray views, accessors, primitives;
    QJsonObject extra; // for callers that build `primitives` and the root's members step by step

    // `fields` may set the buffer, byteStride, or a byteLength other than the data's.
    int view(const QByteArray& data, QJsonObject fields = {});
    // No buffer view when `view` is negative.
    int accessor(int view, int componentType, int count, const char* type, bool normalized = false);
    int accessor(const QByteArray& data, int componentType, int count, const char* type, bool normalized = false)
    {
        return accessor(view(data), componentType, count, type, normalized);
    }
    int accessor(const void* data, int size, int componentType, int count, const char* type, bool normalized = false)
    {
        return accessor(QByteArray(static_cast<const char*>(data), size), componentType, count, type, normalized);
    }
    int accessor(const QJsonObject& a)
    {
        accessors.append(a);
        return accessors.size() - 1;
    }
    int floats(const std::vector<float>& values, const char* type, int components)
    {
        return accessor(bytes(values), kFloat, int(values.size()) / components, type);
    }

    // `bin` as buffer 0, embedded as a data URI.
    QJsonArray embeddedBuffer() const;
    // One scene whose node 0 draws mesh 0 ('m') of `primitives`; `extra` adds to (or replaces) the
    // root's members. Without `buffers`, buffer 0 is `bin` embedded.
    QJsonObject scene(const QJsonArray& primitives, const QJsonObject& extra = {}, const QJsonArray& buffers = {}) const;
    // The binary container of `root` with `bin` as its chunk; `root`'s buffer 0 must have no URI.
    QByteArray glb(const QJsonObject& root) const;
};

struct SceneRead
{
    std::unique_ptr<Tavren::Vyx::SceneData> scene;
    QString error;
    QStringList warnings;

    const Tavren::Vyx::SceneData::Primitive& first() const { return scene->meshes.at(0).primitives.at(0); }
};

SceneRead readScene(const QByteArray& bytes);
SceneRead readScene(const QJsonObject& root);

} // namespace VyxTest
