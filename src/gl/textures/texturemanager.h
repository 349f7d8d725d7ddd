#pragma once

#include "core/vyxexport.h"
#include "gl/objects/textureformat.h"
#include "gl/textureio/textureio.h"
#include "gl/textures/texturetoken.h"

#include <QColor>
#include <QHash>
#include <QSet>
#include <QString>
#include <QStringList>

#include <climits>
#include <memory>

namespace Tavren::Vyx {

class GLSLMacroProcessor;
class ShaderProgram;
class Texture;
class TexturePool;

// Hands out texture tokens for textures, image files and solid colours, and makes the textures
// of a set of tokens reachable from shaders. Images and colours are materialised the first time
// a token's texture is asked for. Concrete managers decide how tokens reach the GPU; shaders
// resolve them through "TextureManager.glslh" and the file getShaderFile() names.
//
// A draw: bind(tokens), bind(program), draw, unbind(program), unbind(tokens).
class VYXGL_EXPORT TextureManager
{
public:
    // Deletes the textures it made from images and colours (a GL context should be current).
    virtual ~TextureManager();

    // Null for an unknown token. An image that fails to load gives the white texture and is
    // tried again on the next call.
    virtual Texture* textureForToken(const TextureToken& token);
    virtual Texture* textureForImage(const QString& path, const TextureFileInfo& info);
    virtual Texture* textureForColor(const QColor& color);
    // One token per texture; null gives the null token. A managed texture given here is deleted
    // with its token (deleteTexture, clear).
    virtual TextureToken tokenForTexture(Texture* texture);
    // A missing file gives the token of opaque white. The first info given for a path wins.
    virtual TextureToken tokenForImage(const QString& path, const TextureFileInfo& info);
    virtual TextureToken tokenForColor(const QColor& color);
    virtual void deleteTexture(Texture* texture);
    // Releases the token for reuse and deletes its texture when the texture is managed.
    virtual void deleteTexture(const TextureToken& token);

    virtual bool bind(ShaderProgram* program) = 0;
    virtual bool bind();
    virtual bool bind(const QSet<TextureToken>& tokens) = 0;
    virtual bool unbind(ShaderProgram* program) = 0;
    virtual bool unbind();
    virtual bool unbind(const QSet<TextureToken>& tokens) = 0;
    // The texture's contents changed.
    virtual void dirty(Texture* texture);
    // Distinct tokens one draw can have bound at once: the textures of a drawable's instance data
    // must stay within it.
    virtual int maxTokensPerDraw() const { return INT_MAX; }
    // Adds the defines the manager's GLSL file needs.
    virtual void setup(GLSLMacroProcessor* mp);
    // As setup(), for a program whose draws have at most tokensPerDraw distinct tokens bound at
    // once, counting any bound outside them: a manager whose shaders pay for every texture they
    // could read may then declare fewer.
    virtual void setupForDraws(GLSLMacroProcessor* mp, int tokensPerDraw);
    // The GLSL source under :/GLSL/src that implements "TextureManager.glslh".
    virtual QString getShaderFile() const = 0;
    // Deletes every token texture (managed or not) and the pool's unused textures.
    virtual void clear();

    // The instance given to setInstance, else one made on first use: bindless where the driver
    // has it, else the sampler manager.
    static TextureManager* Instance();
    // Whether Instance() would answer without making one.
    static bool hasInstance();
    // Does not delete the previous instance. Always true.
    static bool setInstance(TextureManager* manager);

    void setTextureRoot(const QString& root) { _textureRoot = root; }
    QString getTextureRoot() const { return _textureRoot; }
    // The path as given when it exists, else under the texture root, else its file name under
    // the root; unchanged when none exists.
    QString resolveTexturePath(const QString& path) const;
    // Resolved paths of all image tokens.
    QStringList textureFiles() const;

    Texture* tempTexture(TextureFormat format, int width, int height, int depth = -1);
    void addTempTextureRef(Texture* texture, int count);
    void releaseTempTextureRef(Texture* texture, int count);
    void printTempTextureSummary() const;
    void deleteUnusedTempTextures();
    TexturePool* pool() const { return _pool.get(); }

protected:
    TextureManager();
    // Not copyable: a copy would share, and delete twice, the textures it made.
    TextureManager(const TextureManager&) = delete;
    TextureManager& operator=(const TextureManager&) = delete;

    // Called after every new token.
    virtual void textureTokenIssued(const TextureToken& token);
    // Called before a token's texture is dropped.
    virtual void textureTokenRevoked(const TextureToken& token);

    TextureToken reserveToken();
    void deleteToken(const TextureToken& token);
    // One above the highest live token: GPU-side tables are this long.
    TextureToken maxToken() const { return _maxToken; }
    const QHash<Texture*, TextureToken>& textureTokenMap() const { return _textureTokenMap; }
    // The token's texture if it exists now; never loads or creates one.
    Texture* loadedTexture(const TextureToken& token) const { return _tokenToTexture.value(token); }

private:
    void resetNullEntries();

    TextureToken _maxToken{0};
    QSet<TextureToken> _freeTokens;
    QHash<TextureToken, Texture*> _tokenToTexture;
    QHash<Texture*, TextureToken> _textureTokenMap;
    QHash<QString, TextureToken> _pathToToken;
    QHash<TextureToken, QString> _tokenToPath;
    QHash<TextureToken, TextureFileInfo> _tokenToFileInfo;
    QHash<QRgb, TextureToken> _colorToToken;
    QHash<TextureToken, QColor> _tokenToColor;
    QString _textureRoot;
    std::unique_ptr<TexturePool> _pool;
};

} // namespace Tavren::Vyx
