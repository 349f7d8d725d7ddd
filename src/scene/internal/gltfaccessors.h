#pragma once

#include <QString>

#include <map>
#include <vector>

namespace tinygltf {
class Model;
}

namespace Tavren::Vyx {

// What compressed accessors hold once decoded, by accessor index: `count` elements of the
// accessor's own type, tightly packed, in place of what its buffer view would give.
using DecodedAccessors = std::map<int, std::vector<unsigned char>>;

// Decodes accessors of a parsed glTF file into packed arrays, checking each against its buffer
// view and buffer first: strides, sparse substitutions and accessors without a buffer view (zeros)
// included. The first failure's message is kept.
class GLTFAccessorReader
{
public:
    // How integer components become floats: as the accessor's `normalized` flag says (plain values
    // when unset, which KHR_mesh_quantization allows for positions and texture coordinates), or
    // normalised whatever the flag says, for semantics that have no other integer form.
    enum class Integers { AsFlagged, Normalised };

    explicit GLTFAccessorReader(const tinygltf::Model& gltf) : _gltf(gltf) {}

    // Floats or integers with one of the allowed component counts (VEC3 = 3, MAT4 = 16, ...);
    // componentsOut receives the count found. Signed normalised values are clamped at -1.
    bool readFloats(int index, std::initializer_list<int> allowedComponents, std::vector<float>& out,
                    int* componentsOut = nullptr, Integers integers = Integers::AsFlagged);
    bool readFloats(int index, int components, std::vector<float>& out, Integers integers = Integers::AsFlagged)
    {
        return readFloats(index, {components}, out, nullptr, integers);
    }
    // Unsigned integers, one per element (indices) or components per element (joints).
    bool readUnsigned(int index, int components, std::vector<quint32>& out);

    // Accessors read from `decoded` where it has them, until set back to null.
    void setDecoded(const DecodedAccessors* decoded) { _decoded = decoded; }

    QString error;
    // Set with the error when it came from a buffer view whose compressed data could not be
    // decompressed: the data is lost, not malformed, so its users may be left out instead.
    bool compressedDataLost = false;

private:
    struct Block
    {
        const unsigned char* base = nullptr;
        size_t stride = 0;
    };
    bool fail(const QString& message);
    bool block(const QString& what, int viewIndex, size_t byteOffset, size_t elementBytes, bool useViewStride,
               size_t count, Block& out);
    template <typename T, typename Decode>
    bool read(int index, std::initializer_list<int> allowedComponents, int* componentsOut, std::vector<T>& out,
              const Decode& decode);

    const tinygltf::Model& _gltf;
    const DecodedAccessors* _decoded = nullptr;
};

} // namespace Tavren::Vyx
