#pragma once

#include "gl/textures/texturemanager.h"

#include <QVector>

namespace Tavren::Vyx {

// The manager that works on every GL 3.2 driver: the textures of the bound tokens sit in a few
// sampler uniforms ("slots"), and a one-row integer texture maps each token to its slot. The
// shader side is "TextureManager.glslc"; it declares getMaxSlots() samplers, set by setup().
// A texture takes the lowest free slot, so with n textures bound, slots 0 to n - 1 are used.
class VYXGL_EXPORT SamplerTextureManager : public TextureManager
{
public:
    SamplerTextureManager();
    ~SamplerTextureManager() override;

    using TextureManager::bind;
    using TextureManager::unbind;
    // Uploads the slot map when it changed and sets the slot uniforms of the program (or, with
    // none, of the GL's current program).
    bool bind(ShaderProgram* program) override;
    // Binds the tokens' textures and gives each a slot; tokens without a texture are skipped.
    bool bind(const QSet<TextureToken>& tokens) override;
    bool unbind(ShaderProgram* program) override;
    bool unbind(const QSet<TextureToken>& tokens) override;
    int maxTokensPerDraw() const override { return _maxSlots; }
    void setup(GLSLMacroProcessor* mp) override;
    // Declares only as many slots as the draws need: the shader switches over the slots, and a
    // software rasteriser samples every case of it.
    void setupForDraws(GLSLMacroProcessor* mp, int tokensPerDraw) override;
    QString getShaderFile() const override;
    void clear() override;

    int getMaxSlots() const { return _maxSlots; }
    // Reaches shaders through the next setup().
    void setMaxSlots(int count) { _maxSlots = count; }

protected:
    void textureTokenIssued(const TextureToken& token) override;

private:
    void resetSlots();
    void setSlotMapEntry(const TextureToken& token, int slot);

    bool _dirty = true;
    int _maxSlots = 8;
    bool _reportedShortProgram = false;
    Texture* _slotMapTexture = nullptr;
    QVector<qint32> _tokenSlotMap;
    QVector<qint32> _slotUnits;
    QVector<qint32> _slotCounts;
    Texture* _fallbackTexture = nullptr;
    Texture* _boundFallback = nullptr;
    // Binds made by bind(tokens) that unbind(tokens) still owes, with the slot they took; a
    // texture that found no unit is not in here, so it is not unbound either.
    struct TokenBind
    {
        int count = 0;
        int slot = 0;
    };
    QHash<Texture*, TokenBind> _tokenBinds;
};

} // namespace Tavren::Vyx
