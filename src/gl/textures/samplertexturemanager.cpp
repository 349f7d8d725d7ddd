#include "gl/textures/samplertexturemanager.h"

#include "core/logging.h"
#include "gl/glloader.h"
#include "gl/objects/texture.h"
#include "gl/shaders/glslmacroprocessor.h"
#include "gl/textures/internal/managedtextureshared.h"

#include <algorithm>

namespace Tavren::Vyx {

namespace {

constexpr int kSlotReserve = 32;

} // namespace

SamplerTextureManager::SamplerTextureManager()
{
    resetSlots();
    TextureManager::tokenForColor(QColor(Qt::white));
}

SamplerTextureManager::~SamplerTextureManager()
{
    delete _slotMapTexture;
    delete _fallbackTexture;
}

void SamplerTextureManager::resetSlots()
{
    _slotUnits.clear();
    _slotCounts.clear();
    _slotUnits.reserve(kSlotReserve);
    _slotCounts.reserve(kSlotReserve);
}

void SamplerTextureManager::setup(GLSLMacroProcessor* mp)
{
    TextureManager::setup(mp);
    if (!mp)
        return;
    mp->addDefine(QStringLiteral("TEXTURE_MANAGER_SAMPLER"), QStringLiteral("1"));
    mp->addDefine(QStringLiteral("TEXTURE_MANAGER_SLOT_COUNT"), QString::number(_maxSlots));
    _dirty = true;
}

void SamplerTextureManager::setupForDraws(GLSLMacroProcessor* mp, int tokensPerDraw)
{
    setup(mp);
    if (mp)
        mp->addDefine(QStringLiteral("TEXTURE_MANAGER_SLOT_COUNT"),
                      QString::number(std::clamp(tokensPerDraw, 1, std::max(_maxSlots, 1))));
}

QString SamplerTextureManager::getShaderFile() const
{
    return QStringLiteral("TextureManager.glslc");
}

void SamplerTextureManager::textureTokenIssued(const TextureToken&)
{
    delete _slotMapTexture;
    _slotMapTexture = nullptr;
    _tokenSlotMap.resize(int(maxToken().token));
    _dirty = true;
}

void SamplerTextureManager::setSlotMapEntry(const TextureToken& token, int slot)
{
    if (token.token >= quint64(_tokenSlotMap.size()) || _tokenSlotMap[int(token.token)] == slot)
        return;
    _tokenSlotMap[int(token.token)] = slot;
    _dirty = true;
}

bool SamplerTextureManager::bind(const QSet<TextureToken>& tokens)
{
    for (const TextureToken& token : tokens) {
        Texture* texture = textureForToken(token);
        if (!texture || !texture->bind())
            continue;
        const int unit = texture->unit();
        int slot = 0;
        while (slot < _slotUnits.size() && (_slotUnits[slot] != unit || _slotCounts[slot] == 0))
            ++slot;
        if (slot < _slotUnits.size()) {
            ++_slotCounts[slot];
        } else {
            // The lowest free slot, not one this unit held before: programs built for fewer
            // slots than the maximum read only the first ones.
            slot = int(_slotCounts.indexOf(0));
            if (slot >= 0) {
                _slotUnits[slot] = unit;
                _slotCounts[slot] = 1;
            } else {
                slot = int(_slotUnits.size());
                _slotUnits.append(unit);
                _slotCounts.append(1);
            }
        }
        TokenBind& bound = _tokenBinds[texture];
        ++bound.count;
        bound.slot = slot;
        // A token whose image failed to load resolves to the white texture's token: map both.
        setSlotMapEntry(textureTokenMap().value(texture), slot);
        setSlotMapEntry(token, slot);
    }
    return true;
}

bool SamplerTextureManager::bind(ShaderProgram* program)
{
    if (!_fallbackTexture)
        _fallbackTexture = nearestTexture(GL_TEXTURE_2D, false);
    if (!_slotMapTexture)
        _slotMapTexture = nearestTexture(GL_TEXTURE_2D, true);
    if (!_slotMapTexture->bind())
        return false;
    if (_dirty) {
        glTexImage2D(GL_TEXTURE_2D, 0, GL_R32I, GLsizei(maxToken().token), 1, 0, GL_RED_INTEGER, GL_INT,
                     _tokenSlotMap.constData());
        _dirty = false;
    }
    static const QString slotMapName = QStringLiteral("u_TextureTokenManagedTextureSlotMap");
    static const QString slotsName = QStringLiteral("u_ManagedTextureSlots[0]");
    const int slotMapLocation = managedUniformLocation(program, slotMapName);
    const int slotsLocation = managedUniformLocation(program, slotsName);
    // Absent uniforms (-1) are skipped: with no program current, even those calls are errors.
    if (slotMapLocation >= 0)
        glUniform1i(slotMapLocation, _slotMapTexture->unit());

    const int count = int(_slotUnits.size());
    if (count > _maxSlots)
        VYX_WARNING("Requesting %d texture slots but only %d available. Rendering will be incorrect!", count,
                    _maxSlots);
    // A program set up for fewer draws' tokens than are bound reads the rest as invalid.
    int highest = count - 1;
    while (highest > 0 && _slotCounts[highest] == 0)
        --highest;
    if (highest > 0 && highest < _maxSlots && slotsLocation >= 0 && !_reportedShortProgram &&
        managedUniformLocation(program, QStringLiteral("u_ManagedTextureSlots[%1]").arg(highest)) < 0) {
        _reportedShortProgram = true;
        VYX_WARNING("Texture slot %d is in use but the program declares fewer slots; its textures read as invalid",
                    highest);
    }
    const bool anyInUse = std::any_of(_slotCounts.cbegin(), _slotCounts.cend(), [](int c) { return c > 0; });
    const bool needFallback = !anyInUse || _slotCounts.contains(0);
    if (needFallback && _fallbackTexture->bind())
        _boundFallback = _fallbackTexture;
    const int fallbackUnit = _boundFallback ? _boundFallback->unit() : 0;

    // Every declared slot gets a unit: free slots and the padding take the fallback, so no
    // sampler2D is left on a unit that holds the integer slot map.
    QVector<GLint> units(std::max(_maxSlots, 1), fallbackUnit);
    const int used = anyInUse ? std::min(count, _maxSlots) : 0;
    for (int slot = 0; slot < used; ++slot)
        units[slot] = _slotCounts[slot] > 0 ? _slotUnits[slot] : fallbackUnit;
    if (slotsLocation >= 0)
        glUniform1iv(slotsLocation, GLsizei(_maxSlots), units.constData());
    return true;
}

bool SamplerTextureManager::unbind(ShaderProgram*)
{
    if (_boundFallback) {
        _boundFallback->unbind();
        _boundFallback = nullptr;
    }
    return _slotMapTexture && _slotMapTexture->unbind();
}

bool SamplerTextureManager::unbind(const QSet<TextureToken>& tokens)
{
    for (const TextureToken& token : tokens) {
        Texture* texture = textureForToken(token);
        auto bound = _tokenBinds.find(texture);
        if (!texture || bound == _tokenBinds.end())
            continue;
        // The slot is remembered from bind(tokens): asking the texture for its unit costs a lookup.
        const int slot = bound->slot;
        if (slot < _slotCounts.size() && _slotCounts[slot] > 0)
            --_slotCounts[slot];
        if (--bound->count == 0)
            _tokenBinds.erase(bound);
        texture->unbind();
    }
    return true;
}

// White is asked for after the base tables are emptied, so it is token 0 again.
void SamplerTextureManager::clear()
{
    _tokenSlotMap.clear();
    _tokenBinds.clear();
    resetSlots();
    TextureManager::clear();
    tokenForColor(QColor(Qt::white));
}

} // namespace Tavren::Vyx
