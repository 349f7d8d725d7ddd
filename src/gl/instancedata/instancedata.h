#pragma once

#include "core/vyxexport.h"
#include "gl/instancedata/instancedataplan.h"
#include "gl/textures/texturetoken.h"

#include <QByteArray>
#include <QMap>
#include <QSet>
#include <QString>

#include <cstddef>

namespace Tavren::Vyx {

class Texture;
class TextureManager;

// Process-wide map from plan name to plan. Registering finalises a plan; shaders then pull its
// declarations in with `#instancedata "Name"`. Plans are not owned: unregister one before
// deleting it.
class VYXGL_EXPORT InstanceDataRegistry
{
public:
    static InstanceDataRegistry& Instance();

    // A later plan of the same name replaces the earlier. A plan whose name is no GLSL
    // identifier is reported and not registered.
    void registerPlan(InstanceDataPlan* plan);
    // Null, after a warning, for a name never registered.
    InstanceDataPlan* getPlan(const QString& name) const;
    void unregisterPlan(const QString& name);

    InstanceDataRegistry(const InstanceDataRegistry&) = delete;
    InstanceDataRegistry& operator=(const InstanceDataRegistry&) = delete;

private:
    InstanceDataRegistry();

    QMap<QString, InstanceDataPlan*> _plans;
};

// One record laid out by a plan, set member by member. The record starts zero-filled. Misuse
// (no plan, a member the plan lacks, a value larger than the member) is reported and changes
// nothing; a shorter value fills the member's first bytes.
class VYXGL_EXPORT InstanceData
{
public:
    InstanceData() = default;
    // The plan is looked up in the registry.
    explicit InstanceData(const QString& planName);
    explicit InstanceData(InstanceDataPlan* plan);

    bool set(const QString& name, const void* data, size_t size);
    // Raw bytes at a byte offset of the record.
    bool set(int offset, const void* data, size_t size);
    bool get(const QString& name, void* data, size_t size) const;

    template <typename T>
    bool set(const QString& name, const T& value)
    {
        return set(name, &value, sizeof(T));
    }

    // Registers the texture with the manager (the process-wide one when null) and stores its token.
    bool setTexture(const QString& name, Texture* texture, TextureManager* manager = nullptr);
    bool setTexture(int offset, Texture* texture, TextureManager* manager = nullptr);
    // A token for an image file, loaded when first needed.
    bool setTexture(const QString& name, const QString& imagePath, TextureManager* manager = nullptr);
    // A token issued elsewhere.
    bool setToken(const QString& name, const TextureToken& token);

    void clear();
    void clearTextures();

    QByteArray dataArray() const { return _data; }
    QSet<TextureToken>& getTextureTokens() { return _textureTokens; }
    const QSet<TextureToken>& textureTokens() const { return _textureTokens; }
    InstanceDataPlan* plan() const { return _plan; }
    // The plan's name; empty without a plan.
    QString name() const;
    size_t memoryEstimateCPU() const;

private:
    bool storeToken(int offset, const TextureToken& token);

    InstanceDataPlan* _plan = nullptr;
    QByteArray _data;
    QSet<TextureToken> _textureTokens;
};

} // namespace Tavren::Vyx
