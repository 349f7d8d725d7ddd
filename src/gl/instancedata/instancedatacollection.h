#pragma once

#include "core/vyxexport.h"
#include "gl/instancedata/instancedata.h"
#include "gl/platform/bindable.h"

#include <QByteArray>
#include <QList>
#include <QObject>
#include <QSet>
#include <QSharedPointer>
#include <QString>

#include <cstddef>
#include <memory>
#include <vector>

namespace Tavren::Vyx {

class ShaderProgram;
class Texture;
class TextureManager;
class UniformBufferObject;

// The records of one plan, back to back, uploaded into one GL buffer and bound for drawing:
// as the plan's uniform block, or as a texture buffer seen through a float and an integer view.
// A bind uploads what changed since the last one. When the size is unchanged the buffer is
// mapped and rewritten, never reallocated; when few records changed only their bytes are
// written (a few ranges directly, more as explicitly flushed ranges of one mapping), so a small
// edit of a large table costs a small upload.
class VYXGL_EXPORT InstanceDataCollection : public QObject, public Bindable
{
    Q_OBJECT

public:
    // count zero-filled records.
    InstanceDataCollection(InstanceDataPlan* plan, size_t count, QObject* parent = nullptr);
    // Whole records copied from raw bytes; tokens found in texture members are kept for binding.
    InstanceDataCollection(InstanceDataPlan* plan, const char* bytes, size_t numBytes, QObject* parent = nullptr);
    InstanceDataCollection(const QString& planName, const QList<InstanceData>& list, QObject* parent = nullptr);
    ~InstanceDataCollection() override;

    // Replace every record. Records of another plan, or bytes that are no whole number of
    // records, are reported and change nothing.
    bool update(const QList<InstanceData>& list);
    bool update(const char* bytes, size_t numBytes);

    // One member of one record; misuse is reported and changes nothing.
    bool set(int index, const QString& member, const void* data, size_t size);
    template <typename T>
    bool set(int index, const QString& member, const T& value)
    {
        return set(index, member, &value, sizeof(T));
    }
    // Copies the member's dataSize() bytes.
    bool get(int index, const QString& member, void* data) const;

    int size() const;
    InstanceDataPlan* plan() const { return _plan; }
    QByteArray dataArray() const { return _data; }
    const QSet<TextureToken>& textureTokens() const { return _textureTokens; }

    // Usage of the buffer's data store (GL_DYNAMIC_DRAW by default).
    void setBOUsageFlags(int usage) { _usage = usage; }
    // Immutable storage with these flags (write mapping is always added) where the driver has
    // it; 0 switches it off. Takes effect when the buffer is made.
    void useStorageBuffer(int flags) { _storageFlags = flags; }
    // The host vouches that the GPU copy is current: nothing is uploaded at the next bind.
    void clearDirtyStatus();
    bool isDirty() const { return _dirty; }

    // Made on the first call with a current context and device context; null otherwise.
    const QSharedPointer<UniformBufferObject>& getUniformBufferObject();
    // The two views of the texture-buffer mechanism; null before the buffer is made.
    Texture* floatTexture() const { return _floatTexture.get(); }
    Texture* intTexture() const { return _intTexture.get(); }

    // Uploads if dirty, binds the table for program (the current one when null; it must be the
    // bound program for the texture-buffer samplers) and hands the records' texture tokens to
    // the manager (the process-wide one when null and there are tokens).
    bool bind(ShaderProgram* program, TextureManager* manager);
    bool unbind(ShaderProgram* program, TextureManager* manager);
    // The same as bound->unbind(program, manager) then bind(program, manager); a uniform block
    // of the same plan takes over bound's binding point without releasing it in between.
    bool rebind(InstanceDataCollection* bound, ShaderProgram* program, TextureManager* manager);
    bool bind(TextureManager* manager);
    bool bind() override;
    bool unbind() override;

    size_t memoryEstimateCPU() const;
    size_t memoryEstimateGPU() const;
    // Bytes written to the GPU by this collection so far.
    quint64 uploadedBytes() const { return _uploadedBytes; }

private:
    void checkFits(size_t records) const;
    void replace(const char* bytes, size_t numBytes);
    void collectTokens();
    // Keeps the token stored in these 8 bytes for binding, unless it is the null token.
    void noteToken(const void* bytes);
    // The records' tokens to the manager (the process-wide one when null), and back.
    void handTokens(TextureManager* manager) const;
    void takeTokensBack(TextureManager* manager) const;
    void markDirty(int record);
    void markAllDirty();
    bool makeBuffer();
    bool upload();
    bool reallocate();
    bool rewriteAll();
    bool rewriteChanged();
    // Bytes the GPU buffer holds: never less than the uniform block reads.
    size_t gpuBytes() const;

    bool _dirty = true;
    InstanceDataPlan* _plan = nullptr;
    QByteArray _data;
    qint64 _uploadedSize = -1;
    QSet<TextureToken> _textureTokens;
    int _usage;
    int _storageFlags = 0;
    QSharedPointer<UniformBufferObject> _uniformBufferObject;
    std::unique_ptr<Texture> _floatTexture;
    std::unique_ptr<Texture> _intTexture;

    // Records changed since the last upload while few did; past a share of the table every
    // record counts as changed.
    bool _allDirty = true;
    std::vector<int> _dirtyRecords;
    std::vector<bool> _dirtyMarks;
    size_t _allocatedBytes = 0;
    bool _immutable = false;
    quint64 _uploadedBytes = 0;
};

} // namespace Tavren::Vyx
