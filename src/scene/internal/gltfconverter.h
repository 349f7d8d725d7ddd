#pragma once

#include "scene/internal/gltfaccessors.h"
#include "scene/scenedata.h"

#include <QJsonObject>
#include <QStringList>

#include <map>
#include <string>

namespace tinygltf {
class Model;
class Value;
class Node;
struct Primitive;
}

namespace Tavren::Vyx {

// Turns the parser's model into SceneData, checking every reference on the way. `json` is the
// file's JSON as Qt reads it (empty when it could not), consulted only for what the parser drops.
class GLTFConverter
{
public:
    GLTFConverter(const tinygltf::Model& gltf, const QJsonObject& json, const QString& baseDirectory,
                  QStringList& warnings, SceneData& out)
        : _gltf(gltf), _json(json), _base(baseDirectory), _warnings(warnings), _out(out), _accessors(gltf)
    {
    }

    bool convert();
    QString error;

private:
    bool fail(const QString& message)
    {
        if (error.isEmpty())
            error = message;
        return false;
    }
    bool failAccessor() { return fail(_accessors.error); }
    bool nodes();
    bool instances(int index, const tinygltf::Node& source, SceneData::Node& node);
    bool roots();
    bool meshes();
    bool primitive(int meshIndex, int index, const tinygltf::Primitive& source, SceneData::Primitive& out);
    bool attributes(const tinygltf::Primitive& source, SceneData::Primitive& out);
    bool morphTargets(const tinygltf::Primitive& source, const QString& name, SceneData::Primitive& out);
    QString primitiveName(int meshIndex, int index) const;
    bool leaveOut(const QString& name, const QString& why, SceneData::Primitive& out);
    bool materials();
    bool textureRef(int texture, int texCoord, float scale, const tinygltf::Value* transform, SceneData::TextureRef& out);
    bool extensionTextureRef(const tinygltf::Value& object, const char* key, SceneData::TextureRef& out);
    bool materialExtensions(const std::map<std::string, tinygltf::Value>& extensions, SceneData::Material& material);
    void warnWhenNothingIsDrawn();
    bool textures();
    bool images();
    bool skins();
    void cameras();
    void lights();
    void animations();

    const tinygltf::Model& _gltf;
    QJsonObject _json;
    QString _base;
    QStringList& _warnings;
    SceneData& _out;
    GLTFAccessorReader _accessors;
    QString _leftOut; // the first primitive left out for its compressed data, and why
};

} // namespace Tavren::Vyx
