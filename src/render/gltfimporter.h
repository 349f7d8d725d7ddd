#pragma once

#include "core/vyxexport.h"
#include "gl/shadows/shadowmapmanager.h"

#include <QString>
#include <QStringList>
#include <QVector3D>

namespace Tavren::Vyx {

class GPUModel;
class InstanceDataPlan;
class TextureManager;

// A punctual light as a scene file describes it; the shadow code reads it as a ShadowMapLight.
// Radiometry follows the file: intensity in candela for point and spot lights, lux for the sun.
class VYXGL_EXPORT PunctualLight : public ShadowMapLight
{
    Q_OBJECT
public:
    explicit PunctualLight(QObject* parent = nullptr);
    QVector3D color{1, 1, 1};
    float intensity = 1.0f;
    float range = 0.0f;           // 0: unlimited
    float innerConeAngle = 0.0f;  // radians; the outer angle is spotCutoff()
};

// Reads glTF 2.0 scenes (.gltf with its buffers and images, or .glb) into a GPUModel: the node
// tree becomes transforms, each mesh a DrawBuffers with one command per primitive and instance,
// each primitive's metallic-roughness material one record of "GLTFMaterial" instance data and
// each command's matrices one record of "GLTFObject". Cameras, KHR_lights_punctual lights and
// the bounds from the POSITION accessors come along.
//
// Vertex attributes: "va_Vertex" (vec3), "va_Normal" (vec3, computed when absent),
// "va_TexCoord0" (vec2, glTF's top-left origin, which matches how images are uploaded).
// Only triangle lists are drawn; other primitive modes are skipped with a warning.
//
// A structurally broken file (bad JSON, truncated container, missing buffer, accessor past its
// buffer, index past the vertices, reference to a missing object) fails the whole load with
// errorString() set and leaves the model empty. An image that cannot be read or decoded only
// warns: its texture is opaque white.
class VYXGL_EXPORT GLTFImporter
{
public:
    // Commands per drawable: the instance-data arrays are this long.
    static constexpr int kMaxCommandsPerDrawable = 64;

    // With no manager the process-wide TextureManager::Instance() is used.
    explicit GLTFImporter(TextureManager* manager = nullptr);

    // Needs a current context. Lights are created as children of lightParent (which must then
    // outlive the model's use of them). The model owns its drawables (delete-on-clear).
    bool load(const QString& path, GPUModel& model, QObject* lightParent);
    // .glb when the bytes start with the binary magic, else JSON; relative URIs resolve
    // against baseDirectory.
    bool loadFromMemory(const QByteArray& bytes, const QString& baseDirectory, GPUModel& model, QObject* lightParent);

    QString errorString() const { return _error; }
    QStringList warnings() const { return _warnings; }
    // Images the last file listed, loaded or not.
    int imageCount() const { return _imageCount; }

    // The plans the imported instance data uses, registered on first use.
    static InstanceDataPlan* materialPlan();
    static InstanceDataPlan* objectPlan();

private:
    TextureManager* _manager;
    QString _error;
    QStringList _warnings;
    int _imageCount = 0;
};

} // namespace Tavren::Vyx
