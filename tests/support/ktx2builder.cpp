#include "support/ktx2builder.h"

#include "gl/textureio/ktx2parser.h"

#include <zstd.h>

#include <cstring>

namespace VyxTest {

namespace {

void append(QByteArray& out, uint64_t value, int bytes = 4)
{
    out.append(reinterpret_cast<const char*>(&value), bytes); // little-endian machines only
}

void align(QByteArray& out, int alignment)
{
    while (out.size() % alignment)
        out.append('\0');
}

QByteArray supercompress(const QByteArray& level, uint32_t scheme)
{
    if (scheme == 2) {
        QByteArray out(int(ZSTD_compressBound(size_t(level.size()))), Qt::Uninitialized);
        out.resize(int(ZSTD_compress(out.data(), size_t(out.size()), level.constData(), size_t(level.size()), 3)));
        return out;
    }
    return scheme == 3 ? qCompress(level).mid(4) : level; // qCompress puts the length first
}

} // namespace

void patchWord(QByteArray& file, int offset, uint64_t value, int bytes)
{
    std::memcpy(file.data() + offset, &value, size_t(bytes));
}

QByteArray KTX2File::bytes() const
{
    QByteArray dfd;
    append(dfd, 4 + 24);
    append(dfd, 0);
    append(dfd, 2 | (24u << 16));
    append(dfd, colorModel | (1u << 8) | (transfer << 16));
    append(dfd, (blockWidth - 1) | ((blockHeight - 1) << 8));
    append(dfd, blockBytes);
    append(dfd, 0);
    QByteArray kvd;
    for (const auto& [key, value] : keyValues) {
        const QByteArray entry = key + '\0' + value;
        append(kvd, uint64_t(entry.size()));
        kvd += entry;
        align(kvd, 4);
    }
    const int dfdOffset = 80 + 24 * int(levels.size());
    const int kvdOffset = dfdOffset + dfd.size();
    QByteArray out(reinterpret_cast<const char*>(Tavren::Vyx::KTX2Parser::identifier), 12);
    for (uint32_t field : {vkFormat, typeSize, width, height, depth,
                           layers, faces, levelCount, supercompression, uint32_t(dfdOffset), uint32_t(dfd.size()),
                           uint32_t(kvdOffset), uint32_t(kvd.size())})
        append(out, field);
    append(out, 0, 8);
    append(out, 0, 8);
    out += QByteArray(24 * int(levels.size()), '\0');
    out += dfd + kvd;
    // Smallest level first, each aligned to its texel block and four bytes unless supercompressed.
    const int alignment = supercompression ? 1 : int(blockBytes % 4 == 0 ? blockBytes : blockBytes * 4 / (blockBytes % 2 ? 1 : 2));
    for (size_t level = levels.size(); level-- > 0;) {
        align(out, alignment);
        const QByteArray stored = supercompress(levels[level], supercompression);
        patchWord(out, 80 + 24 * int(level), uint64_t(out.size()), 8);
        patchWord(out, 88 + 24 * int(level), uint64_t(stored.size()), 8);
        patchWord(out, 96 + 24 * int(level), uint64_t(levels[level].size()), 8);
        out += stored;
    }
    return out;
}

} // namespace VyxTest
