#include "scene/internal/gltfaccessors.h"

#include <tiny_gltf.h>

#include <algorithm>
#include <cstring>
#include <limits>

namespace Tavren::Vyx {

namespace {

// Larger accessors are taken for corrupt counts rather than scenes.
constexpr size_t kMaxElements = size_t(1) << 28;

template <typename T>
T load(const unsigned char* p)
{
    T value;
    std::memcpy(&value, p, sizeof(T));
    return value;
}

template <typename T>
float normalised(const unsigned char* p)
{
    return std::max(float(load<T>(p)) / float(std::numeric_limits<T>::max()), -1.0f);
}

} // namespace

bool GLTFAccessorReader::fail(const QString& message)
{
    if (error.isEmpty())
        error = message;
    return false;
}

bool GLTFAccessorReader::locate(int index, std::initializer_list<int> allowedComponents, View& out)
{
    if (index < 0 || index >= int(_gltf.accessors.size()))
        return fail(QStringLiteral("Accessor %1 does not exist").arg(index));
    const tinygltf::Accessor& accessor = _gltf.accessors[size_t(index)];
    const int componentBytes = tinygltf::GetComponentSizeInBytes(uint32_t(accessor.componentType));
    const int count = tinygltf::GetNumComponentsInType(uint32_t(accessor.type));
    if (componentBytes <= 0 || std::find(allowedComponents.begin(), allowedComponents.end(), count) == allowedComponents.end())
        return fail(QStringLiteral("Accessor %1 has %2 components of an unusable type, %3 wanted")
                        .arg(index).arg(count).arg(*allowedComponents.begin()));
    if (accessor.sparse.isSparse)
        return fail(QStringLiteral("Accessor %1 is sparse, which is not supported").arg(index));
    const size_t element = size_t(componentBytes) * size_t(count);
    const int viewIndex = accessor.bufferView;
    if (viewIndex < 0 || viewIndex >= int(_gltf.bufferViews.size()))
        return fail(QStringLiteral("Accessor %1 has no buffer view").arg(index));
    const tinygltf::BufferView& view = _gltf.bufferViews[size_t(viewIndex)];
    if (view.buffer < 0 || view.buffer >= int(_gltf.buffers.size()))
        return fail(QStringLiteral("Buffer view %1 uses buffer %2, which does not exist").arg(viewIndex).arg(view.buffer));
    const std::vector<unsigned char>& data = _gltf.buffers[size_t(view.buffer)].data;
    if (view.byteOffset > data.size() || view.byteLength > data.size() - view.byteOffset)
        return fail(QStringLiteral("Buffer view %1 reaches past the end of buffer %2 (%3 bytes)")
                        .arg(viewIndex).arg(view.buffer).arg(data.size()));
    const size_t stride = view.byteStride ? view.byteStride : element;
    if (stride < element)
        return fail(QStringLiteral("Buffer view %1 has a stride below its element size").arg(viewIndex));
    const unsigned long long last =
        accessor.count ? accessor.byteOffset + (accessor.count - 1) * (unsigned long long)stride + element : 0;
    if (accessor.count > kMaxElements || last > view.byteLength)
        return fail(QStringLiteral("Accessor %1 reaches past the end of its buffer").arg(index));
    out.base = data.data() + view.byteOffset + accessor.byteOffset;
    out.stride = stride;
    out.count = accessor.count;
    out.componentType = accessor.componentType;
    out.components = count;
    return true;
}

bool GLTFAccessorReader::readFloats(int index, std::initializer_list<int> allowedComponents, std::vector<float>& out,
                                    int* componentsOut)
{
    View v;
    if (!locate(index, allowedComponents, v))
        return false;
    const size_t components = size_t(v.components);
    out.resize(v.count * components);
    for (size_t i = 0; i < v.count; ++i) {
        const unsigned char* element = v.base + i * v.stride;
        for (size_t c = 0; c < components; ++c) {
            float& value = out[i * components + c];
            switch (v.componentType) {
            case TINYGLTF_COMPONENT_TYPE_FLOAT: value = load<float>(element + 4 * c); break;
            case TINYGLTF_COMPONENT_TYPE_UNSIGNED_BYTE: value = normalised<quint8>(element + c); break;
            case TINYGLTF_COMPONENT_TYPE_BYTE: value = normalised<qint8>(element + c); break;
            case TINYGLTF_COMPONENT_TYPE_UNSIGNED_SHORT: value = normalised<quint16>(element + 2 * c); break;
            case TINYGLTF_COMPONENT_TYPE_SHORT: value = normalised<qint16>(element + 2 * c); break;
            default: return fail(QStringLiteral("Accessor %1 holds no floats or normalised integers").arg(index));
            }
        }
    }
    if (componentsOut)
        *componentsOut = v.components;
    return true;
}

bool GLTFAccessorReader::readUnsigned(int index, int components, std::vector<quint32>& out)
{
    View v;
    if (!locate(index, {components}, v))
        return false;
    out.resize(v.count * size_t(components));
    for (size_t i = 0; i < out.size(); ++i) {
        const unsigned char* p = v.base + (i / size_t(components)) * v.stride;
        const size_t c = i % size_t(components);
        switch (v.componentType) {
        case TINYGLTF_COMPONENT_TYPE_UNSIGNED_BYTE: out[i] = p[c]; break;
        case TINYGLTF_COMPONENT_TYPE_UNSIGNED_SHORT: out[i] = load<quint16>(p + 2 * c); break;
        case TINYGLTF_COMPONENT_TYPE_UNSIGNED_INT: out[i] = load<quint32>(p + 4 * c); break;
        default:
            return fail(components == 1 ? QStringLiteral("Index accessor %1 is not unsigned").arg(index)
                                        : QStringLiteral("Accessor %1 holds no unsigned integers").arg(index));
        }
    }
    return true;
}

} // namespace Tavren::Vyx
