#pragma once

#include "core/vyxexport.h"
#include "gl/drawing/boundingbox.h"
#include "gl/drawing/camera.h"

#include <QHash>
#include <QList>
#include <QMatrix3x3>
#include <QMatrix4x4>
#include <QSharedPointer>
#include <QString>
#include <QStringList>
#include <QVariant>
#include <QVector>

#include <vector>

namespace Tavren::Vyx {

class DrawBuffers;
class InstanceDataCollection;
class ShaderProgram;
class Texture;
class TextureManager;

namespace GPUModelDetail {
struct IndirectCache;
}

// A scene on the GPU: drawables (a DrawBuffers with one command per mesh piece, per-material
// and per-object instance data, 64 flag bits), a hierarchy of transforms whose world matrices
// feed each command's "ModelMatrix" and "ModelNormalMatrix", per-command culling, and the
// names, bounds, cameras and lights that came with it.
//
// Ids and positions: add() returns an id that stays valid across sortDrawablesByFlags();
// every other `int drawable` argument is a position in the drawing order (drawableIndex(id)
// turns one into the other; they agree until the first sort). Object data is indexed by
// command: command c of a drawable reads record c, its draw ID. Material data holds one record
// per drawable, or one per command when it has that many.
//
// Copies share the drawables' DrawBuffers and collections; clear() deletes them when
// delete-on-clear is set, so let one copy own them. The destructor deletes nothing.
//
// Per frame: edit transforms, updateTransforms(), resetCulling(), visibilityCull(),
// frustumCull(), then one draw per pass. A draw binds only what changes from one drawable to
// the next (material data, then object data, then the texture manager, then the vertex array
// and index buffer) and unbinds everything before it returns, so consecutive draw calls start
// from nothing bound. Drawables that use the same DrawBuffers or collections back to back are
// therefore the cheap case: sort by flags and materials to get it.
//
// With base-instance or indirect drawing, selected commands that repeat one geometry over
// consecutive base instances are issued as one instanced record: getDrawID() sees the same IDs,
// gl_InstanceID alone does not. Culling keeps each transform's verdict and each command's
// world-space box between frames and tests a drawable's whole box before its commands, so a
// frame costs little more than what changed.
class VYXGL_EXPORT GPUModel
{
public:
    static constexpr int kInvalidTransformRef = -1;
    static constexpr int kInvalidBoundingBoxRef = -1;
    static constexpr int kInvalidCameraIndex = -1;
    static constexpr quint64 kHiddenFlag = quint64(1) << 63;
    static constexpr quint64 kSortBackToFrontFlag = quint64(1) << 62;
    static constexpr quint64 kSimpleDrawFeature = 16;

    // 0 disables face culling, 1 leaves it as it is, 2 culls with counter-clockwise fronts and
    // draws only commands whose world matrix keeps handedness, 3 culls with clockwise fronts
    // and draws only the mirrored ones.
    enum WindingType { eWindingNoCulling = 0, eWindingKeepState = 1, eWindingCCW = 2, eWindingCW = 3 };

    struct InstanceRef
    {
        int drawable = -1; // the id add() returned
        int command = -1;
        bool operator==(const InstanceRef& o) const { return drawable == o.drawable && command == o.command; }
    };

    struct Drawable
    {
        DrawBuffers* drawBuffers = nullptr;
        InstanceDataCollection* materialData = nullptr;
        InstanceDataCollection* objectData = nullptr;
        quint64 flags = 0;
        int id = -1;
        QVector<int> transformRefs;
        QVector<int> boundingBoxRefs;
        QVector<bool> culled;
        int culledCount = 0;
    };

    GPUModel();
    GPUModel(const GPUModel& other);
    GPUModel& operator=(const GPUModel& other);
    ~GPUModel();

    void setFeatureFlags(quint64 flags) { _featureFlags = flags; }
    quint64 getFeatureFlags() const { return _featureFlags; }
    bool hasFeatureFlags(quint64 mask) const { return (_featureFlags & mask) == mask; }

    // Building.
    int add(DrawBuffers* db, int materialIndex, InstanceDataCollection* materialData,
            InstanceDataCollection* objectData, const quint64& flags);
    // For models drawn whole by drawSimple(): filed under material 0, no per-command state.
    int addSimple(DrawBuffers* db, int materialIndex, InstanceDataCollection* materialData,
                  InstanceDataCollection* objectData, const quint64& flags);
    void set(int drawable, DrawBuffers* db, InstanceDataCollection* materialData, InstanceDataCollection* objectData,
             quint64 flags, quint64 mask);
    // Without a drawable the edit applies to every drawable.
    void setFlags(quint64 flags);
    void setFlags(quint64 flags, int drawable);
    void addFlags(quint64 flags);
    void addFlags(quint64 flags, int drawable);
    void removeFlags(quint64 flags);
    void removeFlags(quint64 flags, int drawable);
    quint64 getFlags(int drawable) const;
    static bool flagsLessThan(const Drawable& a, const Drawable& b) { return a.flags < b.flags; }
    // Stable; ids and the material map follow the drawables. Does nothing unless an add() broke
    // the order: drawables whose flags were edited stay where they are.
    void sortDrawablesByFlags();
    bool isUnsorted() const { return _unsorted; }
    // -1 for an unknown id.
    int drawableIndex(int id) const;

    // Transforms.
    int addTransform(int parent, const QMatrix4x4& local);
    // Refuses (and reports) a parent that would make a cycle.
    bool setTransformParent(int transform, int parent);
    int transformParent(int transform) const;
    bool isValidTransform(int transform) const { return transform >= 0 && transform < _locals.size(); }
    int transformCount() const { return _locals.size(); }
    // Whether a lies below b.
    bool isDescendant(int a, int b) const;
    void setTransformName(int transform, const QString& name);
    int findTransform(const QString& name) const { return _transformIndex.value(name, kInvalidTransformRef); }
    QStringList transformNames() const { return _transformNames; }
    void setLocalTransform(int transform, const QMatrix4x4& local);
    // With a parent P, stores m × P⁻¹ as the local matrix, so the world matrix becomes P m P⁻¹.
    void setWorldTransform(int transform, const QMatrix4x4& m);
    QMatrix4x4 localTransform(int transform) const;
    // Brings the chain up to date first.
    QMatrix4x4 worldTransform(int transform);
    QMatrix3x3 normalTransform(int transform) const;
    bool isTransformMirrored(int transform) const;
    bool isTransformDirty(int transform) const;
    // 0 or 1 visible, 2 hidden, 3 hidden with every descendant.
    void setVisibility(int transform, int state);
    int visibility(int transform) const;
    bool isVisible(int transform) const;
    // Whether an ancestor of the transform hides its descendants.
    bool isParentHidden(int transform) const;
    // Recomputes dirty world matrices and rewrites the object data of their users; false when
    // nothing was dirty.
    bool updateTransforms();

    void useTransform(int drawable, int command, int transform);
    void useBoundingBox(int drawable, int command, int box);
    void loadBoundingBoxes(const BoundingBox* boxes, int count);
    BoundingBox getBoundingBox(int box) const;
    bool isValidBoundingBox(int box) const { return box >= 0 && box < int(_boxes.size()); }
    // Union of every command's box in world space.
    BoundingBox sceneBounds();

    // Names and properties.
    void addMaterialName(int drawable, int command, const QString& name);
    void addObjectName(int drawable, int command, const QString& name);
    QStringList materialNames() const { return _materialNames.keys(); }
    QStringList objectNames() const { return _objectNames.keys(); }
    QList<InstanceRef> materialInstances(const QString& name) const { return _materialNames.value(name); }
    QList<InstanceRef> objectInstances(const QString& name) const { return _objectNames.value(name); }
    // Writes size bytes under the uniform `property` for every instance under the name; false
    // when the name is unknown.
    bool setMaterialProperty(const QString& materialName, const QString& property, const void* data, size_t size);
    bool setObjectProperty(const QString& objectName, const QString& property, const void* data, size_t size);

    // Cameras and lights.
    int addCamera(const Camera& camera, const QString& name);
    void setCamera(int index, const Camera& camera);
    Camera getCamera(int index) const;
    int getCameraCount() const { return int(_cameras.size()); }
    int getCameraIndex(const QString& name) const;
    QStringList getCameraNames() const { return _cameraNames; }
    // Attaches the camera to a transform: its matrix is then relative to that transform.
    void setCameraTransform(int index, int transform);
    QMatrix4x4 getCameraWorldSpaceMatrix(int index);
    QMatrix4x4 getCameraProjectionMatrix(int index, float aspect) const;
    // A light is whatever the host's light record is (a QObject* in a variant for the shadow code).
    int addLight(const QVariant& light, const QString& name);
    bool getLight(int index, QVariant& out) const;
    QString lightName(int index) const;
    int lightCount() const { return _lights.size(); }

    // Textures that every drawable's program may read under one sampler uniform, such as the
    // texture buffers of joint matrices and morph targets: each draw call binds those whose
    // uniform the program declares, and unbinds them before it returns. A null
    // texture removes the entry. Copies of the model share the textures.
    void setSharedTexture(const QString& uniform, const QSharedPointer<Texture>& texture);
    Texture* sharedTexture(const QString& uniform) const;
    // Bumped by whatever moves vertices other than through transforms (skin and morph poses in
    // the shared textures), so that passes kept from earlier frames know they are stale.
    void noteDeformationChanged() { ++_deformationRevision; }
    quint64 deformationRevision() const { return _deformationRevision; }

    void setContainsReflectedTransparency(bool contains) { _reflectedTransparency = contains; }
    bool containsReflectedTransparency() const { return _reflectedTransparency; }
    void setDeleteOnClear(bool deleteOnClear) { _deleteOnClear = deleteOnClear; }
    bool deleteOnClear() const { return _deleteOnClear; }

    // Culling.
    int visibilityCull();
    int frustumCull(const QMatrix4x4& viewProjection);
    void resetCulling();
    bool isCullingApplied() const { return _cullingApplied; }
    bool isCommandCulled(int drawable, int command) const;
    // True when no drawable that matches the flags has a command left to draw.
    bool isDrawEmpty(quint64 flags, quint64 mask) const;

    // Drawing; true only when every drawable drawn succeeded. honourCulling false draws the
    // commands culling removed (a shadow pass that must not use the camera's frustum), though
    // hidden transforms stay hidden.
    bool draw(ShaderProgram* program, TextureManager* textureManager, const quint64& flags, const quint64& mask);
    bool draw(ShaderProgram* program, TextureManager* textureManager, const quint64& flags, const quint64& mask,
              const WindingType& winding, bool honourCulling);
    bool draw(ShaderProgram* program, TextureManager* textureManager, const quint64& flags, const quint64& mask,
              const WindingType& winding, const QMatrix4x4* view, bool honourCulling);
    bool draw(ShaderProgram* program, const quint64& flags, const quint64& mask, const WindingType& winding,
              bool honourCulling);
    bool drawMaterials(ShaderProgram* program, TextureManager* textureManager, const quint64& flags,
                       const quint64& mask, const WindingType& winding, const QMatrix4x4* view,
                       const QList<int>& materials);
    bool drawExclude(ShaderProgram* program, TextureManager* textureManager, const quint64& flags,
                     const quint64& mask, const WindingType& winding, const QMatrix4x4* view,
                     const QList<int>& excluded);
    bool drawExclude(ShaderProgram* program, const quint64& flags, const quint64& mask, const WindingType& winding,
                     const QList<int>& excluded);
    bool drawSimple(ShaderProgram* program, TextureManager* textureManager, quint64 flags, quint64 mask);
    // One drawable (by position) whatever its flags, for callers that order drawables themselves
    // (blended ones back to front); culling is honoured, reflected transparency is not tagged.
    bool drawDrawable(int drawable, ShaderProgram* program, TextureManager* textureManager, const WindingType& winding,
                      const QMatrix4x4* view);

    // Accessors, by position.
    DrawBuffers* drawBuffers(int drawable) { return _drawables[drawable].drawBuffers; }
    const DrawBuffers* drawBuffers(int drawable) const { return _drawables[drawable].drawBuffers; }
    InstanceDataCollection* materialData(int drawable) { return _drawables[drawable].materialData; }
    const InstanceDataCollection* materialData(int drawable) const { return _drawables[drawable].materialData; }
    InstanceDataCollection* objectData(int drawable) { return _drawables[drawable].objectData; }
    const InstanceDataCollection* objectData(int drawable) const { return _drawables[drawable].objectData; }
    const Drawable& drawable(int index) const { return _drawables[index]; }
    int numDrawables() const { return _drawables.size(); }
    bool isDrawablesEmpty() const { return _drawables.isEmpty(); }
    QList<int> materials() const { return _materialMap.keys(); }
    QVector<int> materialDrawables(int material) const { return _materialMap.value(material); }
    quint64 getTotalVerts() const;
    // The most texture tokens drawing the drawables can have bound at once: the largest token set
    // of any material data plus that of any object data, as one drawable's may stay bound while
    // the next one's other collection is bound.
    int maxDrawableTokens() const;
    // The most texture-coordinate and tangent sets any drawable's vertex array carries, counted
    // from its attribute names ("va_TexCoord<n>", "va_Tangent<n>").
    int maxUVSets() const;
    int maxTangentSets() const;
    size_t memoryEstimateCPU() const;
    size_t memoryEstimateGPU() const;
    void clear();

private:
    struct BoundState;
    bool isDrawableIndex(int drawable) const { return drawable >= 0 && drawable < _drawables.size(); }
    bool isCommandOf(int drawable, int command) const;
    int appendDrawable(DrawBuffers* db, int materialIndex, InstanceDataCollection* materialData,
                       InstanceDataCollection* objectData, const quint64& flags, bool perCommand);
    bool writeProperty(const QHash<QString, QList<InstanceRef>>& names, const QString& name, const QString& property,
                       const void* data, size_t size, bool material);
    QMatrix4x4 updateTransform(int transform);
    void writeObjectMatrices(int transform);
    // The normal matrix of the cached world matrix, made now if that changed since.
    const QMatrix3x3& freshNormal(int transform) const;
    void markDirty(int transform);
    void markDescendantsDirty();
    // Culling caches (gpumodelcull.cpp).
    struct WorldBox
    {
        float lo[3];
        float hi[3];
    };
    struct DrawableBounds
    {
        WorldBox box; // around every command's box, once holdsBox
        bool holdsBox = false;
        int boxed = 0; // commands with a box
        int empty = 0; // commands whose box is empty
        bool finite = true;
        bool loose = false; // grown by edits since it was last fitted
        bool stale = true;
    };
    void refreshWorldBox(int drawable, int command);
    void refreshWorldBoxes();
    void refreshBounds(DrawableBounds& bounds, int drawable);
    static void uniteBox(DrawableBounds& bounds, const WorldBox& box);
    void refreshVerdicts();
    // The centre of the command's box (or its origin) in world space.
    QVector3D commandCentre(const Drawable& d, int command) const;
    bool draw(ShaderProgram* program, TextureManager* textureManager, const quint64& flags, const quint64& mask,
              const WindingType& winding, const QMatrix4x4* view, const QList<int>& materials,
              const QList<int>& excluded, bool honourCulling);
    bool drawMesh(Drawable& d, ShaderProgram* program, TextureManager* textureManager, const WindingType& winding,
                  const QMatrix4x4* view, bool honourCulling, BoundState& bound);
    void selectCommands(const Drawable& d, const WindingType& winding, bool honourCulling);
    bool issueCommands(Drawable& d, ShaderProgram* program);
    // Where `program` reads each shared texture (-1: it does not), looked up once per program
    // and link rather than by name on every draw call.
    const QVector<int>& sharedTextureLocations(ShaderProgram* program);

    quint64 _featureFlags = 15;
    QVector<Drawable> _drawables;
    QVector<int> _drawableIds;
    QVector<int> _drawableMaterials; // by id
    QHash<int, QVector<int>> _materialMap;
    QHash<QString, QList<InstanceRef>> _materialNames;
    QHash<QString, QList<InstanceRef>> _objectNames;
    bool _deleteOnClear = true;
    bool _unsorted = false;

    QVector<QMatrix4x4> _locals;
    QVector<QMatrix4x4> _worlds;
    // Normal matrices are made when asked for: most object plans do not carry one.
    mutable QVector<QMatrix3x3> _normals;
    mutable QVector<bool> _normalsStale;
    QVector<int> _parents;
    QVector<bool> _mirrored;
    QVector<bool> _dirty;
    QVector<int> _visibility;
    bool _anyDirty = false;
    quint64 _deformationRevision = 0;
    QHash<QString, int> _transformIndex;
    QStringList _transformNames;
    QVector<QList<InstanceRef>> _transformUsers;

    std::vector<BoundingBox> _boxes;
    std::vector<Camera> _cameras;
    QStringList _cameraNames;
    QVector<int> _cameraTransforms;
    QVector<QVariant> _lights;
    QStringList _lightNames;
    bool _reflectedTransparency = false;
    QVector<QPair<QString, QSharedPointer<Texture>>> _sharedTextures;
    struct SharedTextureLocations
    {
        quint64 linkSerial = 0; // of the program's link they were looked up for
        QVector<int> locations; // one per shared texture
    };
    QVector<SharedTextureLocations> _sharedTextureLocations;
    bool _cullingApplied = false;

    // Transforms marked dirty since the last update (a full scan replaces the list when it
    // outgrows the transforms) and each transform's children, so an update visits only what
    // moved.
    std::vector<int> _dirtyList;
    bool _dirtyListFull = false;
    std::vector<std::vector<int>> _children;

    // What culling and drawing would otherwise recompute per command and frame. Per transform:
    // hidden by its own state 2 or 3 or an ancestor's 3; world matrix scaled to nothing. Per
    // drawable id: commands hidden that way, commands a visibility cull of clean transforms
    // takes, the first slot of its commands' world-space boxes and their union. Per slot: the
    // box (state 0 none, 1 a box, 2 empty).
    std::vector<quint8> _hidden;
    std::vector<quint8> _zeroScale;
    std::vector<int> _hiddenCommands;
    std::vector<int> _cullableCommands;
    bool _verdictsStale = true;
    std::vector<int> _slotBase;
    std::vector<WorldBox> _worldBoxes;
    std::vector<quint8> _boxState;
    std::vector<DrawableBounds> _bounds;
    // Material keys in ascending order.
    QList<int> _materialOrder;
    bool _materialOrderStale = true;

    // Scratch lists: the commands one drawable draws; a dirty chain of transforms.
    QVector<int> _selected;
    // _selected is every command of the drawable in its own order.
    bool _selectedWhole = false;
    QVector<int> _chain;
    // Indirect buffers for partial command lists, shared by copies.
    QSharedPointer<GPUModelDetail::IndirectCache> _indirect;
};

} // namespace Tavren::Vyx
