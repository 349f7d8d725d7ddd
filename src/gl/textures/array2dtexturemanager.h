#pragma once

#include "gl/textures/texturemanager.h"

#include <QVector>

#include <memory>
#include <vector>

namespace Tavren::Vyx {

// Tokens resolved through layers of 2D array textures, so a shader reaches hundreds of textures
// through a handful of texture units on any GL 3.2 driver. Shader side:
// "Array2DTextureManager.glslc".
//
// Design:
// - Every 2D texture a bound token names is copied once into one layer of an array. Arrays are
//   grouped into size classes by internal format, size, mip level count and sampling state
//   (filters, wraps), so each layer samples exactly like its source. A texture that matches no
//   other gets a class (an array) of its own; nothing is dropped. A class grows by doubling up to
//   GL_MAX_ARRAY_TEXTURE_LAYERS, then a second array of the same class is started.
// - The copy is made with glCopyImageSubData where the context has it, else through the CPU
//   (uncompressed and compressed levels alike). Copies are made at bind(tokens) for tokens seen
//   the first time, and again for a texture after dirty(texture).
// - A token table (integer texture, 1024 tokens a row) maps each token to (array, layer); -1 for
//   tokens never bound. bind(program) binds every array and the table: per frame the cost is one
//   check per token plus one bind per array, whatever the number of tokens.
// - Only 2D textures can be layers; a token of another kind (cube map, 3D, ...) is reported once
//   and reads as VYX_INVALID_TEXEL. More arrays than getMaxArrays() are reported at every
//   bind(program), and tokens in the surplus arrays read as VYX_INVALID_TEXEL.
// - With setBindless(true) the arrays are reached through bindless handles instead of units
//   ("Array2DTextureManagerBindless.glslc"): bind(program) binds the table alone and uploads one
//   handle per array, made resident once. The host turns it on where
//   BindlessTextureManager::isSupported().
// - Layers of a source that failed to load (the white stand-in) are not cached: the load is
//   retried at each bind(tokens), as textureForToken() does.
class VYXGL_EXPORT Array2DTextureManager : public TextureManager
{
public:
    Array2DTextureManager();
    ~Array2DTextureManager() override;

    using TextureManager::bind;
    using TextureManager::unbind;
    // Binds the arrays and the token table and sets the program's (or current program's) uniforms.
    bool bind(ShaderProgram* program) override;
    // Copies the textures of tokens not yet placed into their layers.
    bool bind(const QSet<TextureToken>& tokens) override;
    bool unbind(ShaderProgram* program) override;
    // Layers stay in place for the next frame: nothing to undo.
    bool unbind(const QSet<TextureToken>& tokens) override;
    // The texture's layer is copied again (or moved, if its size changed) at its next bind.
    void dirty(Texture* texture) override;
    void setup(GLSLMacroProcessor* mp) override;
    QString getShaderFile() const override;
    void clear() override;

    // Sampler arrays the shader declares (TEXTURE_MANAGER_ARRAY2D_COUNT); reaches shaders
    // through the next setup(). 8 by default.
    int getMaxArrays() const { return _maxArrays; }
    void setMaxArrays(int count) { _maxArrays = count; }
    // Takes effect with the next setup() and the shader built from getShaderFile().
    void setBindless(bool bindless) { _bindless = bindless; }
    bool isBindless() const { return _bindless; }
    // Arrays made so far, and one of them (GL_TEXTURE_2D_ARRAY; null out of range).
    int arrayCount() const { return int(_arrays.size()); }
    Texture* arrayTexture(int index) const;
    // The (array, layer) a token reads; (-1, -1) for a token not placed.
    QPair<int, int> placement(const TextureToken& token) const;

protected:
    void textureTokenIssued(const TextureToken& token) override;
    void textureTokenRevoked(const TextureToken& token) override;

private:
    struct ArrayKey;
    struct LayerArray;
    struct Placement
    {
        int array = -1;
        int layer = -1;
    };

    void placeToken(const TextureToken& token);
    Placement placeTexture(Texture* texture);
    void unplaceTexture(Texture* texture);
    void setEntry(quint64 token, const Placement& placement);
    int arrayWithFreeLayer(const ArrayKey& key);
    void bindArrays(ShaderProgram* program);
    void uploadArrayHandles(ShaderProgram* program);

    std::vector<std::unique_ptr<LayerArray>> _arrays;
    QHash<Texture*, Placement> _placements;
    // Two ints per token (array, layer), uploaded as the token table.
    QVector<qint32> _tokenTable;
    // Per token: 1 when its own texture sits in a layer, so bind(tokens) can skip it.
    std::vector<unsigned char> _placed;
    QSet<Texture*> _unplaceable;
    Texture* _tableTexture = nullptr;
    Texture* _fallbackArray = nullptr;
    int _maxArrays = 8;
    bool _dirty = true;
    bool _bindless = false;
    QVector<Texture*> _boundArrays;
};

} // namespace Tavren::Vyx
