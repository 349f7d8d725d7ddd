#pragma once

#include "scene/internal/gltfaccessors.h"
#include "scene/scenedata.h"

#include <QStringList>

namespace tinygltf {
class Model;
struct Primitive;
}

namespace Tavren::Vyx {

// Turns the parser's model into SceneData, checking every reference on the way.
class GLTFConverter
{
public:
    GLTFConverter(const tinygltf::Model& gltf, const QString& baseDirectory, QStringList& warnings, SceneData& out)
        : _gltf(gltf), _base(baseDirectory), _warnings(warnings), _out(out), _accessors(gltf)
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
    bool roots();
    bool meshes();
    bool primitive(int meshIndex, int index, const tinygltf::Primitive& source, SceneData::Primitive& out);
    bool materials();
    bool textureRef(int texture, int texCoord, float scale, SceneData::TextureRef& out);
    bool textures();
    bool images();
    bool skins();
    void cameras();
    void lights();
    void animations();

    const tinygltf::Model& _gltf;
    QString _base;
    QStringList& _warnings;
    SceneData& _out;
    GLTFAccessorReader _accessors;
};

} // namespace Tavren::Vyx
