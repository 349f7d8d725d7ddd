#pragma once

#include <QString>

#include <vector>

namespace tinygltf {
class Model;
}

namespace Tavren::Vyx {

// Decodes accessors of a parsed glTF file into packed arrays, checking each against its buffer
// view and buffer first. The first failure's message is kept.
class GLTFAccessorReader
{
public:
    explicit GLTFAccessorReader(const tinygltf::Model& gltf) : _gltf(gltf) {}

    // Floats or normalised integers with one of the allowed component counts (VEC3 = 3, MAT4 = 16,
    // ...); componentsOut receives the count found. Signed normalised values are clamped at -1.
    bool readFloats(int index, std::initializer_list<int> allowedComponents, std::vector<float>& out,
                    int* componentsOut = nullptr);
    bool readFloats(int index, int components, std::vector<float>& out) { return readFloats(index, {components}, out); }
    // Unsigned integers, one per element (indices) or components per element (joints).
    bool readUnsigned(int index, int components, std::vector<quint32>& out);

    QString error;

private:
    struct View
    {
        const unsigned char* base = nullptr;
        size_t stride = 0, count = 0;
        int componentType = 0, components = 0;
    };
    bool fail(const QString& message);
    bool locate(int index, std::initializer_list<int> allowedComponents, View& view);

    const tinygltf::Model& _gltf;
};

} // namespace Tavren::Vyx
