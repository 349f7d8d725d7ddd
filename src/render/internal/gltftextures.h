#pragma once

#include "gl/textures/texturetoken.h"
#include "scene/scenedata.h"

#include <QByteArray>
#include <QImage>
#include <QSet>
#include <QStringList>

#include <atomic>
#include <condition_variable>
#include <map>
#include <mutex>
#include <thread>
#include <tuple>
#include <vector>

namespace Tavren::Vyx {

class TextureManager;

// Makes the textures a scene's materials refer to: each image decoded once per sampler and colour
// space, through the texture recognisers first and then Qt's image reader, with the glTF
// sampler's filters and wraps applied. Rows stay in file order (top row first), which is how
// glTF's texture coordinates address them.
//
// predecode() sets worker threads reading and decoding the materials' pictures, so that token(),
// on the GL thread, uploads each as soon as it is ready while the next ones are still decoding.
class GLTFTextures
{
public:
    GLTFTextures(const SceneData& scene, TextureManager& manager, QStringList& warnings)
        : _scene(scene), _manager(manager), _warnings(warnings)
    {
    }
    ~GLTFTextures();
    GLTFTextures(const GLTFTextures&) = delete;
    GLTFTextures& operator=(const GLTFTextures&) = delete;

    // Opaque white for no texture or an image that cannot be decoded (warned once per image).
    // False with error set when the texture has no image.
    bool token(const SceneData::TextureRef& ref, bool srgb, TextureToken& token);
    // Starts reading every image a material refers to and, where Qt's image reader takes it,
    // decoding it and making its mipmaps, on one worker thread per core, in the order the
    // materials first refer to them. Formats the library's recognisers read stay with token().
    void predecode();
    // Whether the material reads the map as colour, which is stored as sRGB, rather than as data.
    static bool holdsColour(const SceneData::Material& material, const SceneData::TextureRef& map);
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
        QList<QImage> levels; // the picture's mipmaps in the job's colour space, if made
    };
    struct Job
    {
        int image;
        bool srgb; // the colour space its first map reads it in
        Prepared prepared;
        bool done = false; // under _mutex
    };
    // Claims the next job and does it; false when none is left.
    bool runNextJob();
    // The image's job once done, null for an image predecode() did not take. Without workers the
    // caller does the jobs itself.
    const Job* finished(int image);

    std::vector<Job> _jobs; // fixed once the workers run
    std::map<int, size_t> _jobOf; // image -> job
    std::atomic<size_t> _nextJob{0};
    std::atomic<bool> _stop{false};
    std::mutex _mutex;
    std::condition_variable _ready;
    std::vector<std::thread> _workers;
    QSet<int> _reported;
};

} // namespace Tavren::Vyx
