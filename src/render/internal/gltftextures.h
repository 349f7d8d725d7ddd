#pragma once

#include "gl/textures/texturetoken.h"
#include "scene/scenedata.h"

#include <QByteArray>
#include <QImage>
#include <QSet>
#include <QStringList>

#include <map>
#include <tuple>

namespace Tavren::Vyx {

class TextureManager;

// Makes the textures a scene's materials refer to: each image decoded once per sampler and colour
// space, through the texture recognisers first and then Qt's image reader, with the glTF
// sampler's filters and wraps applied. Rows stay in file order (top row first), which is how
// glTF's texture coordinates address them.
//
// predecode() reads and decodes the materials' pictures on worker threads beforehand, so that
// token(), on the GL thread, only uploads them.
class GLTFTextures
{
public:
    GLTFTextures(const SceneData& scene, TextureManager& manager, QStringList& warnings)
        : _scene(scene), _manager(manager), _warnings(warnings)
    {
    }

    // Opaque white for no texture or an image that cannot be decoded (warned once per image).
    // False with error set when the texture has no image.
    bool token(const SceneData::TextureRef& ref, bool srgb, TextureToken& token);
    // Every image a material refers to, read and, where Qt's image reader takes it, decoded, on
    // up to one thread per core. Formats the library's recognisers read stay with token().
    void predecode();
    QString error;

private:
    const SceneData& _scene;
    TextureManager& _manager;
    QStringList& _warnings;
    std::map<std::tuple<int, int, bool>, TextureToken> _tokens; // image, sampler, sRGB
    struct Prepared
    {
        QByteArray bytes;
        QImage picture; // null when Qt's reader did not take the bytes
    };
    std::map<int, Prepared> _prepared; // by image
    QSet<int> _reported;
};

} // namespace Tavren::Vyx
