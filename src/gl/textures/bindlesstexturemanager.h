#pragma once

#include "gl/textures/texturemanager.h"

#include <QVector>

#include <cstdint>

namespace Tavren::Vyx {

class Texture;

// Tokens resolved through bindless texture handles: a texture buffer of 64-bit handles indexed
// by token value ("u_BindlessTextureHandles", two 32-bit words per token), so a shader reaches
// any number of textures without binding a unit for each. Shader side:
// "BindlessTextureManager.glslc".
//
// A token's handle is made on its first bind(tokens) and kept resident until the token is
// revoked, so a frame costs a table look-up per token and no residency calls. Making a handle
// freezes the texture's sampling state and storage, as the extension demands. Handle 0 (no
// texture) reads as an invalid token in shaders.
class VYXGL_EXPORT BindlessTextureManager : public TextureManager
{
public:
    // The bindless entry points, looked up by name because the generated loader lacks them.
    // Tests may replace them.
    struct EntryPoints
    {
        uint64_t (*getTextureHandle)(unsigned int texture) = nullptr;
        void (*makeTextureHandleResident)(uint64_t handle) = nullptr;
        void (*makeTextureHandleNonResident)(uint64_t handle) = nullptr;
    };

    BindlessTextureManager();
    ~BindlessTextureManager() override;

    // The context lists GL_ARB_bindless_texture or GL_NV_bindless_texture and supplies its calls.
    static bool isSupported();
    // The calls in use: those of the ARB extension, else the NV ones, resolved on first use.
    static EntryPoints& entryPoints();

    using TextureManager::bind;
    using TextureManager::unbind;
    // Uploads the handle table when it changed and points the program's table sampler at it.
    bool bind(ShaderProgram* program) override;
    // Makes a handle for each token's texture and makes it resident.
    bool bind(const QSet<TextureToken>& tokens) override;
    bool unbind(ShaderProgram* program) override;
    // Handles stay resident; nothing to undo.
    bool unbind(const QSet<TextureToken>& tokens) override;
    void setup(GLSLMacroProcessor* mp) override;
    QString getShaderFile() const override;
    void clear() override;

    // The handle the table holds for the token; 0 when none.
    uint64_t handle(const TextureToken& token) const;

protected:
    void textureTokenIssued(const TextureToken& token) override;
    void textureTokenRevoked(const TextureToken& token) override;

private:
    void releaseHandle(qsizetype index);
    void releaseResidency();

    // Two words (low, high) per token, as the shader reads them.
    QVector<quint32> _handleTable;
    QHash<Texture*, uint64_t> _residentHandles;
    unsigned int _tableBuffer = 0;
    Texture* _tableTexture = nullptr;
    bool _dirty = true;
};

} // namespace Tavren::Vyx
