#pragma once

#include "core/vyxexport.h"
#include "render/punctuallight.h"
#include "render/scenematerial.h"

#include <QString>
#include <QStringList>

#include <memory>

namespace Tavren::Vyx {

class GPUModel;
class InstanceDataPlan;
class SceneAnimator;
struct SceneData;
class TextureManager;

// Reads glTF 2.0 scenes (.gltf with its buffers and images, or .glb) into a GPUModel in two steps:
// GLTFSceneReader parses the file into SceneData without GL, then the data is uploaded: the node
// tree becomes transforms (and each EXT_mesh_gpu_instancing instance one more below its node),
// each mesh one vertex array shared by drawables that each hold one primitive type and one set
// of SceneMaterial flags (sidedness, alpha mode), with one command per primitive and instance.
// Each command gets one record of "GLTFMaterial" instance data and one of "GLTFObject" (see
// SceneMaterial for both and for the vertex attributes). A drawable binds no more textures than
// the texture manager can bind for one draw. Cameras, KHR_lights_punctual lights and the bounds
// from the POSITION accessors come along. Images are decoded through the texture recognisers
// and take their glTF sampler's filters and wraps.
//
// A structurally broken file (bad JSON, truncated container, missing buffer, accessor past its
// buffer, index past the vertices, reference to a missing object) fails the whole load with
// errorString() set and leaves the model empty. An image that cannot be read or decoded only
// warns, once: its texture is opaque white. Warnings are printed once each after a load.
class VYXGL_EXPORT GLTFImporter
{
public:
    // Commands per drawable: the instance-data arrays are this long.
    static constexpr int kMaxCommandsPerDrawable = SceneMaterial::kMaxCommandsPerDrawable;

    // With no manager the process-wide TextureManager::Instance() is used.
    explicit GLTFImporter(TextureManager* manager = nullptr);
    ~GLTFImporter();

    // Needs a current context. Lights are created as children of lightParent (which must then
    // outlive the model's use of them). The model owns its drawables (delete-on-clear).
    bool load(const QString& path, GPUModel& model, QObject* lightParent);
    // .glb when the bytes start with the binary magic, else JSON; relative URIs resolve
    // against baseDirectory.
    bool loadFromMemory(const QByteArray& bytes, const QString& baseDirectory, GPUModel& model, QObject* lightParent);
    // Scene data read by GLTFSceneReader (on any thread) or built by the host, checked as the
    // reader checks it, into the model.
    bool upload(const std::shared_ptr<const SceneData>& scene, GPUModel& model, QObject* lightParent);

    // What plays the last loaded scene's animations and poses its skins and morph targets; the
    // model shows the rest pose without it. Null before a successful load and after the first call.
    std::unique_ptr<SceneAnimator> takeAnimator();

    QString errorString() const { return _error; }
    QStringList warnings() const { return _warnings; }
    // Images the last file listed, loaded or not.
    int imageCount() const { return _imageCount; }

    // The plans the imported instance data uses, registered on first use.
    static InstanceDataPlan* materialPlan() { return SceneMaterial::materialPlan(); }
    static InstanceDataPlan* objectPlan() { return SceneMaterial::objectPlan(); }

private:
    TextureManager* _manager;
    QString _error;
    QStringList _warnings;
    int _imageCount = 0;
    std::unique_ptr<SceneAnimator> _animator;
};

} // namespace Tavren::Vyx
