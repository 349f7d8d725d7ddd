#pragma once

#include <QMetaType>
#include <QtGlobal>

namespace Tavren::Vyx {

// Names a texture for shaders: a 64-bit number handed out by the TextureManager. Managers
// count tokens from 0 and keep them dense; all bits set is the null token.
struct TextureToken
{
    constexpr TextureToken() = default;
    constexpr explicit TextureToken(quint64 value) : token(value) {}

    constexpr bool isNull() const { return token == ~quint64(0); }
    constexpr bool operator==(const TextureToken& other) const { return token == other.token; }
    constexpr bool operator!=(const TextureToken& other) const { return token != other.token; }

    quint64 token = ~quint64(0);
};

// Folds the high half in, so tokens that differ only above bit 31 still spread.
inline uint qHash(const TextureToken& textureToken, uint seed = 0)
{
    return uint((textureToken.token >> 31) ^ textureToken.token) ^ seed;
}

} // namespace Tavren::Vyx

Q_DECLARE_METATYPE(Tavren::Vyx::TextureToken)
