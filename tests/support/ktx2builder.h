#pragma once

#include <QByteArray>

#include <cstdint>
#include <utility>
#include <vector>

namespace VyxTest {

// A KTX 2 file to lay out: levels are given uncompressed, level 0 first, and supercompressed
// (2 Zstandard, 3 ZLIB) as the scheme says. The descriptor is a basic block without samples.
struct KTX2File
{
    uint32_t vkFormat = 37; // R8G8B8A8_UNORM
    uint32_t typeSize = 1;
    uint32_t width = 4, height = 4, depth = 0, layers = 0, faces = 1;
    uint32_t levelCount = 1; // as the header says; `levels` holds what is stored
    uint32_t supercompression = 0;
    uint32_t colorModel = 1, transfer = 1, blockWidth = 1, blockHeight = 1, blockBytes = 4;
    std::vector<QByteArray> levels;
    std::vector<std::pair<QByteArray, QByteArray>> keyValues;

    QByteArray bytes() const;
};

// Byte offsets of header fields, for tests that break a file.
enum KTX2Field : int { kVkFormat = 12, kLevelCount = 40, kScheme = 44, kDfdLength = 52, kKvdOffset = 56,
                       kLevelIndex = 80 };
void patchWord(QByteArray& file, int offset, uint64_t value, int bytes = 4);

} // namespace VyxTest
