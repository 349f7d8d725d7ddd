#include "render/internal/shadowsignature.h"

#include "gl/model/gpumodel.h"
#include "gl/shadows/shadowmapmanager.h"

#include <QMatrix4x4>

#include <cstring>

namespace Tavren::Vyx {

namespace {

// FNV-1a over 64-bit words: matrices are hashed whole each frame, so bytes at a time would cost.
class Digest
{
public:
    void add(quint64 word)
    {
        _value ^= word;
        _value *= 0x100000001b3ull;
    }
    void add(const void* data, size_t bytes)
    {
        const auto* p = static_cast<const unsigned char*>(data);
        for (; bytes >= 8; bytes -= 8, p += 8) {
            quint64 word;
            std::memcpy(&word, p, 8);
            add(word);
        }
        quint64 tail = 0;
        std::memcpy(&tail, p, bytes);
        add(tail ^ (quint64(bytes) << 56));
    }
    quint64 value() const { return _value; }

private:
    quint64 _value = 0xcbf29ce484222325ull;
};

} // namespace

quint64 shadowSignature(GPUModel& model, const ShadowMapRenderData& data)
{
    Digest digest;
    digest.add(quint64(data.shadowMapSize()));
    digest.add(quint64(data.lightCount()) << 32 | quint64(quint32(data.projectorCount())));
    for (const ShadowMapRenderData::Transform& t : data.transforms)
        digest.add(t.m, sizeof(t.m));
    for (const ShadowMapRenderData::ProjectorInfo& info : data.projectorInfos)
        digest.add(quint64(info.count) << 32 | info.index);

    digest.add(quint64(reinterpret_cast<quintptr>(&model)));
    digest.add(model.deformationRevision());
    digest.add(quint64(model.numDrawables()) << 32 | quint64(quint32(model.transformCount())));
    for (int i = 0; i < model.numDrawables(); ++i) {
        const GPUModel::Drawable& d = model.drawable(i);
        digest.add(model.getFlags(i));
        digest.add(quint64(reinterpret_cast<quintptr>(model.drawBuffers(i))));
        digest.add(d.transformRefs.constData(), size_t(d.transformRefs.size()) * sizeof(int));
    }
    for (int t = 0; t < model.transformCount(); ++t) {
        const QMatrix4x4 world = model.worldTransform(t);
        digest.add(world.constData(), 16 * sizeof(float));
        digest.add(quint64(quint32(model.visibility(t))));
    }
    return digest.value();
}

} // namespace Tavren::Vyx
