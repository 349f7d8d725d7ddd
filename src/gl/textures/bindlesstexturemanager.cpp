#include "gl/textures/bindlesstexturemanager.h"

#include "core/logging.h"
#include "gl/glloader.h"
#include "gl/objects/texture.h"
#include "gl/platform/glutilities.h"
#include "gl/platform/internal/glcapabilities.h"
#include "gl/shaders/glslmacroprocessor.h"
#include "gl/textures/internal/managedtextureshared.h"

namespace Tavren::Vyx {

namespace {

bool hasArbBindless()
{
    return hasGLCapability(GLCapability::BindlessTextureARB);
}

bool hasNvBindless()
{
    return hasGLCapability(GLCapability::BindlessTextureNV);
}

// The ARB and NV calls share their signatures; the NV rows follow the ARB rows in the same order.
BindlessTextureManager::EntryPoints resolveEntryPoints(bool arb)
{
    const auto row = [arb](GLCapability arbRow, GLCapability nvRow) { return arb ? arbRow : nvRow; };
    BindlessTextureManager::EntryPoints calls;
    calls.getTextureHandle = glCapabilityFunction<decltype(calls.getTextureHandle)>(
        row(GLCapability::GetTextureHandleARB, GLCapability::GetTextureHandleNV));
    calls.makeTextureHandleResident = glCapabilityFunction<decltype(calls.makeTextureHandleResident)>(
        row(GLCapability::MakeTextureHandleResidentARB, GLCapability::MakeTextureHandleResidentNV));
    calls.makeTextureHandleNonResident = glCapabilityFunction<decltype(calls.makeTextureHandleNonResident)>(
        row(GLCapability::MakeTextureHandleNonResidentARB, GLCapability::MakeTextureHandleNonResidentNV));
    return calls;
}

bool complete(const BindlessTextureManager::EntryPoints& calls)
{
    return calls.getTextureHandle && calls.makeTextureHandleResident && calls.makeTextureHandleNonResident;
}

} // namespace

BindlessTextureManager::BindlessTextureManager()
{
    TextureManager::tokenForColor(QColor(Qt::white));
}

BindlessTextureManager::~BindlessTextureManager()
{
    releaseResidency();
    delete _tableTexture;
    if (_tableBuffer)
        glDeleteBuffers(1, &_tableBuffer);
}

bool BindlessTextureManager::isSupported()
{
    if (!hasArbBindless() && !hasNvBindless())
        return false;
    return complete(entryPoints());
}

BindlessTextureManager::EntryPoints& BindlessTextureManager::entryPoints()
{
    static EntryPoints calls;
    if (!complete(calls)) {
        calls = resolveEntryPoints(true);
        if (!complete(calls))
            calls = resolveEntryPoints(false);
    }
    return calls;
}

void BindlessTextureManager::setup(GLSLMacroProcessor* mp)
{
    TextureManager::setup(mp);
    if (!mp)
        return;
    mp->addDefine(hasArbBindless() || !hasNvBindless() ? QStringLiteral("TEXTURE_MANAGER_BINDLESS_ARB")
                                                       : QStringLiteral("TEXTURE_MANAGER_BINDLESS_NV"),
                  QStringLiteral("1"));
}

QString BindlessTextureManager::getShaderFile() const
{
    return QStringLiteral("BindlessTextureManager.glslc");
}

void BindlessTextureManager::textureTokenIssued(const TextureToken&)
{
    _handleTable.resize(int(maxToken().token) * 2);
    _dirty = true;
}

void BindlessTextureManager::releaseHandle(qsizetype index)
{
    _handleTable[index * 2] = 0;
    _handleTable[index * 2 + 1] = 0;
    _dirty = true;
}

void BindlessTextureManager::textureTokenRevoked(const TextureToken& token)
{
    if (token.token < quint64(_handleTable.size() / 2))
        releaseHandle(qsizetype(token.token));
    // Only the token that owns its texture takes the residency away: a failed image token
    // shares the white texture's handle.
    Texture* texture = loadedTexture(token);
    auto resident = _residentHandles.find(texture);
    if (resident == _residentHandles.end() || textureTokenMap().value(texture) != token)
        return;
    entryPoints().makeTextureHandleNonResident(*resident);
    _residentHandles.erase(resident);
}

uint64_t BindlessTextureManager::handle(const TextureToken& token) const
{
    if (token.token >= quint64(_handleTable.size() / 2))
        return 0;
    const qsizetype index = qsizetype(token.token) * 2;
    return uint64_t(_handleTable[index]) | (uint64_t(_handleTable[index + 1]) << 32);
}

bool BindlessTextureManager::bind(const QSet<TextureToken>& tokens)
{
    EntryPoints& calls = entryPoints();
    VYX_CHECK_RETURN(complete(calls), false, "Bindless textures are not supported by this context");
    for (const TextureToken& token : tokens) {
        if (token.token >= quint64(_handleTable.size() / 2))
            continue;
        Texture* texture = textureForToken(token);
        if (!texture)
            continue;
        auto resident = _residentHandles.find(texture);
        if (resident == _residentHandles.end()) {
            const uint64_t handle = calls.getTextureHandle(texture->textureID());
            if (!VYX_CHECK(handle != 0, "No bindless handle for texture %u", texture->textureID()))
                continue;
            calls.makeTextureHandleResident(handle);
            resident = _residentHandles.insert(texture, handle);
        }
        const qsizetype index = qsizetype(token.token) * 2;
        const quint32 low = quint32(*resident), high = quint32(*resident >> 32);
        if (_handleTable[index] != low || _handleTable[index + 1] != high) {
            _handleTable[index] = low;
            _handleTable[index + 1] = high;
            _dirty = true;
        }
    }
    return true;
}

bool BindlessTextureManager::unbind(const QSet<TextureToken>&)
{
    return true;
}

bool BindlessTextureManager::bind(ShaderProgram* program)
{
    if (!_tableTexture) {
        glGenBuffers(1, &_tableBuffer);
        _tableTexture = new Texture();
        _tableTexture->setTarget(GL_TEXTURE_BUFFER);
    }
    if (!_tableTexture->bind())
        return false;
    if (_dirty) {
        // An empty buffer cannot back a texture buffer: keep one null entry at least.
        if (_handleTable.isEmpty())
            _handleTable.resize(2);
        glBindBuffer(GL_TEXTURE_BUFFER, _tableBuffer);
        glBufferData(GL_TEXTURE_BUFFER, GLsizeiptr(_handleTable.size() * sizeof(quint32)), _handleTable.constData(),
                     GL_DYNAMIC_DRAW);
        glBindBuffer(GL_TEXTURE_BUFFER, 0);
        glTexBuffer(GL_TEXTURE_BUFFER, GL_RG32UI, _tableBuffer);
        _dirty = false;
    }
    static const QString tableName = QStringLiteral("u_BindlessTextureHandles");
    if (const int location = managedUniformLocation(program, tableName); location >= 0)
        glUniform1i(location, _tableTexture->unit());
    return true;
}

bool BindlessTextureManager::unbind(ShaderProgram*)
{
    return _tableTexture && _tableTexture->unbind();
}

void BindlessTextureManager::releaseResidency()
{
    const EntryPoints& calls = entryPoints();
    for (uint64_t handle : qAsConst(_residentHandles))
        if (calls.makeTextureHandleNonResident)
            calls.makeTextureHandleNonResident(handle);
    _residentHandles.clear();
}

void BindlessTextureManager::clear()
{
    releaseResidency();
    _handleTable.clear();
    TextureManager::clear();
    tokenForColor(QColor(Qt::white));
}

} // namespace Tavren::Vyx
