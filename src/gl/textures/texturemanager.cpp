#include "gl/textures/texturemanager.h"

#include "core/logging.h"
#include "gl/objects/internal/texturerelease.h"
#include "gl/objects/texture.h"
#include "gl/textures/bindlesstexturemanager.h"
#include "gl/textures/samplertexturemanager.h"
#include "gl/textures/texturepool.h"

#include <QDebug>
#include <QDir>
#include <QFileInfo>

namespace Tavren::Vyx {

namespace {

TextureManager* currentInstance = nullptr;

const QColor opaqueWhite(255, 255, 255, 255);

// A framebuffer's released textures that came from the pool go back for reuse. With no manager
// yet, no texture can be from its pool, and none is made just to ask.
bool keepPoolTexture(Texture* texture)
{
    if (!currentInstance || !currentInstance->pool()->owns(texture))
        return false;
    currentInstance->releaseTempTextureRef(texture, 1);
    return true;
}

[[maybe_unused]] const bool keeperInstalled = setTextureKeeper(&keepPoolTexture);

} // namespace

TextureManager::TextureManager() : _pool(std::make_unique<TexturePool>())
{
    resetNullEntries();
}

// Textures the manager made from images and colours are its own; those it was given are not.
TextureManager::~TextureManager()
{
    for (auto it = _tokenToTexture.cbegin(); it != _tokenToTexture.cend(); ++it)
        if (_tokenToPath.contains(it.key()) || _tokenToColor.contains(it.key()))
            delete it.value();
}

void TextureManager::resetNullEntries()
{
    _textureTokenMap.insert(nullptr, TextureToken());
    _tokenToTexture.insert(TextureToken(), nullptr);
}

TextureManager* TextureManager::Instance()
{
    if (currentInstance)
        return currentInstance;
    if (BindlessTextureManager::isSupported()) {
        qDebug("BindlessTextureManager");
        currentInstance = new BindlessTextureManager();
    } else {
        qDebug("SamplerTextureManager");
        auto* sampler = new SamplerTextureManager();
        sampler->setMaxSlots(16);
        currentInstance = sampler;
    }
    return currentInstance;
}

bool TextureManager::hasInstance()
{
    return currentInstance != nullptr;
}

bool TextureManager::setInstance(TextureManager* manager)
{
    currentInstance = manager;
    return true;
}

TextureToken TextureManager::reserveToken()
{
    if (_freeTokens.isEmpty()) {
        const TextureToken token = _maxToken;
        ++_maxToken.token;
        return token;
    }
    auto first = _freeTokens.begin();
    const TextureToken token = *first;
    _freeTokens.erase(first);
    return token;
}

void TextureManager::deleteToken(const TextureToken& token)
{
    VYX_CHECK_CONTINUE(0 < this->_maxToken.token, "Delete token %llu but none %llu reserved!",
                       static_cast<unsigned long long>(token.token), static_cast<unsigned long long>(_maxToken.token));
    VYX_CHECK_CONTINUE(token.token < this->_maxToken.token, "Delete token %llu but only %llu reserved!",
                       static_cast<unsigned long long>(token.token), static_cast<unsigned long long>(_maxToken.token));
    _freeTokens.insert(token);
    // Keep the range dense at the top: GPU tables are sized by _maxToken.
    for (auto itFind = _freeTokens.find(TextureToken(_maxToken.token - 1));
         _maxToken.token > 0 && itFind != _freeTokens.end();
         itFind = _freeTokens.find(TextureToken(_maxToken.token - 1))) {
        VYX_CHECK_CONTINUE((itFind->token + 1) == this->_maxToken.token,
                           "Did not find the correct token %llu. Found token %llu.",
                           static_cast<unsigned long long>(_maxToken.token - 1),
                           static_cast<unsigned long long>(itFind->token));
        _freeTokens.erase(itFind);
        --_maxToken.token;
    }
}

TextureToken TextureManager::tokenForTexture(Texture* texture)
{
    const auto found = _textureTokenMap.constFind(texture);
    if (found != _textureTokenMap.cend())
        return *found;
    const TextureToken token = reserveToken();
    VYX_DEBUG("Creating token %llu for texture %p", static_cast<unsigned long long>(token.token),
              static_cast<void*>(texture));
    _textureTokenMap.insert(texture, token);
    _tokenToTexture.insert(token, texture);
    textureTokenIssued(token);
    return token;
}

TextureToken TextureManager::tokenForImage(const QString& path, const TextureFileInfo& info)
{
    const QFileInfo file(resolveTexturePath(path));
    if (path.isEmpty() || !file.isFile()) {
        VYX_WARNING("Cannot load %s", qPrintable(path));
        return tokenForColor(opaqueWhite);
    }
    // One token per file, however the path was spelled.
    const QString fullPath = file.canonicalFilePath();
    const auto found = _pathToToken.constFind(fullPath);
    if (found != _pathToToken.cend())
        return *found;
    const TextureToken token = reserveToken();
    VYX_DEBUG("Creating token %llu for %s (full path: %s)", static_cast<unsigned long long>(token.token),
              qPrintable(path), qPrintable(fullPath));
    _pathToToken.insert(fullPath, token);
    _tokenToPath.insert(token, fullPath);
    _tokenToFileInfo.insert(token, info);
    textureTokenIssued(token);
    return token;
}

TextureToken TextureManager::tokenForColor(const QColor& color)
{
    const QRgb key = color.rgba();
    const auto found = _colorToToken.constFind(key);
    if (found != _colorToToken.cend())
        return *found;
    const TextureToken token = reserveToken();
    VYX_DEBUG("Creating token %llu for %d %d %d %d", static_cast<unsigned long long>(token.token), color.red(),
              color.green(), color.blue(), color.alpha());
    _colorToToken.insert(key, token);
    _tokenToColor.insert(token, color);
    textureTokenIssued(token);
    return token;
}

Texture* TextureManager::textureForToken(const TextureToken& token)
{
    const auto found = _tokenToTexture.constFind(token);
    if (found != _tokenToTexture.cend())
        return *found;
    Texture* texture = nullptr;
    const auto path = _tokenToPath.constFind(token);
    if (path != _tokenToPath.cend()) {
        texture = LoadTextureFromFile(*path, _tokenToFileInfo.value(token));
        if (!texture)
            return textureForColor(opaqueWhite);
    } else {
        const auto color = _tokenToColor.constFind(token);
        if (color == _tokenToColor.cend())
            return nullptr;
        texture = MakeColorTexture(*color);
    }
    texture->setReadOnly();
    _textureTokenMap.insert(texture, token);
    _tokenToTexture.insert(token, texture);
    return texture;
}

Texture* TextureManager::textureForImage(const QString& path, const TextureFileInfo& info)
{
    return textureForToken(tokenForImage(path, info));
}

Texture* TextureManager::textureForColor(const QColor& color)
{
    return textureForToken(tokenForColor(color));
}

void TextureManager::deleteTexture(Texture* texture)
{
    if (!texture)
        return;
    // A copy: the map entry the token lives in is removed on the way.
    const auto found = _textureTokenMap.constFind(texture);
    if (found != _textureTokenMap.cend())
        deleteTexture(TextureToken(*found));
}

void TextureManager::deleteTexture(const TextureToken& token)
{
    if (token.isNull())
        return;
    textureTokenRevoked(token);
    const auto found = _tokenToTexture.find(token);
    if (found != _tokenToTexture.end()) {
        Texture* texture = *found;
        _tokenToTexture.erase(found);
        _textureTokenMap.remove(texture);
        // Entries are removed for every token, and colours under rgb(): a translucent colour keeps
        // its entry, and an image token drops any colour entry of opaque black (the default QColor).
        _pathToToken.remove(_tokenToPath.take(token));
        _colorToToken.remove(_tokenToColor.take(token).rgb());
        if (texture && texture->isManaged())
            delete texture;
    }
    deleteToken(token);
}

bool TextureManager::bind()
{
    return bind(static_cast<ShaderProgram*>(nullptr));
}

bool TextureManager::unbind()
{
    return unbind(static_cast<ShaderProgram*>(nullptr));
}

void TextureManager::dirty(Texture*) {}

void TextureManager::setup(GLSLMacroProcessor*) {}

void TextureManager::clear()
{
    for (Texture* texture : qAsConst(_tokenToTexture))
        delete texture;
    _freeTokens.clear();
    _tokenToTexture.clear();
    _textureTokenMap.clear();
    _pathToToken.clear();
    _tokenToPath.clear();
    _colorToToken.clear();
    _tokenToColor.clear();
    _maxToken = TextureToken(0);
    deleteUnusedTempTextures();
    resetNullEntries();
}

void TextureManager::setupForDraws(GLSLMacroProcessor* mp, int)
{
    setup(mp);
}

void TextureManager::textureTokenIssued(const TextureToken&) {}

void TextureManager::textureTokenRevoked(const TextureToken&) {}

QString TextureManager::resolveTexturePath(const QString& path) const
{
    if (QFileInfo::exists(path))
        return path;
    const QDir root(_textureRoot);
    const QString underRoot = root.absoluteFilePath(path);
    if (QFileInfo::exists(underRoot))
        return underRoot;
    int slash = path.lastIndexOf(QLatin1Char('/'));
    if (slash < 0)
        slash = path.lastIndexOf(QLatin1Char('\\'));
    const QString byName = root.absoluteFilePath(path.mid(slash + 1));
    if (QFileInfo::exists(byName))
        return byName;
    qDebug().noquote() << QStringLiteral("Failed to find file ") + path;
    return path;
}

QStringList TextureManager::textureFiles() const
{
    return _tokenToPath.values();
}

Texture* TextureManager::tempTexture(TextureFormat format, int width, int height, int depth)
{
    return _pool->texture(format, width, height, depth);
}

void TextureManager::addTempTextureRef(Texture* texture, int count)
{
    _pool->addRef(texture, count);
}

void TextureManager::releaseTempTextureRef(Texture* texture, int count)
{
    _pool->releaseRef(texture, count);
}

void TextureManager::printTempTextureSummary() const
{
    _pool->printSummary();
}

void TextureManager::deleteUnusedTempTextures()
{
    _pool->deleteUnused();
}

} // namespace Tavren::Vyx
