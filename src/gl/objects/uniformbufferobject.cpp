#include "gl/objects/uniformbufferobject.h"

#include "core/logging.h"
#include "gl/glloader.h"
#include "gl/objects/bufferobject.h"
#include "gl/platform/glutilities.h"
#include "gl/platform/internal/glcapabilities.h"
#include "gl/platform/internal/percontextrecords.h"
#include "gl/shaders/shaderprogram.h"

#include <QHash>
#include <QVector>

#include <algorithm>
#include <set>
#include <utility>

namespace Tavren::Vyx {

namespace {

int aliveUniformBuffers = 0;

// Binding points of one context and who holds them.
struct UboContextData
{
    int _maxUniformBlockBindings = 0;
    QHash<unsigned int, int> _uniformBufferObjectToUniformBlockBindingMaps;
    QHash<unsigned int, int> _boundUniformBufferObjectCounts;
    std::set<int> _freeUniformBlockBindings;
    int _batchFirst = -1;
    int _batchLast = -1;
    // What each binding point should hold when a batch is flushed.
    QVector<GLuint> _bindingTable;
    PFNVYXGLBINDBUFFERSBASEPROC _bindBuffersBase = nullptr;

    // A driver without the batched call says so once per context.
    void initialise()
    {
        GLint maximum = 0;
        glGetIntegerv(GL_MAX_UNIFORM_BUFFER_BINDINGS, &maximum);
        _maxUniformBlockBindings = qMax(0, maximum);
        for (int binding = 0; binding < _maxUniformBlockBindings; ++binding)
            _freeUniformBlockBindings.insert(binding);
        _bindingTable.fill(0, _maxUniformBlockBindings);
        _bindBuffersBase = glCapabilityFunction<PFNVYXGLBINDBUFFERSBASEPROC>(GLCapability::BindBuffersBase);
    }

    // Binds buffer to the point now, or widens the batch that will.
    void attach(const BufferObject& buffer, int binding)
    {
        if (-1 != _batchFirst) {
            _batchFirst = std::min(_batchFirst, binding);
            _batchLast = std::max(_batchLast, binding);
            return;
        }
        // Reported only: the data may still be uploaded after binding.
        static_cast<void>(VYX_CHECK_AS(buffer.valueCount() * buffer.valueSize() != 0,
                                       "_bufferObject->valueCount() * _bufferObject->valueSize() != 0",
                                       "glBindBufferRange() cannot take 0 as a size (%d,%d)", buffer.valueCount(),
                                       int(buffer.valueSize())));
        glBindBufferBase(GL_UNIFORM_BUFFER, GLuint(binding), buffer.getBO());
    }
};

PerContextRecords<UboContextData>& uboContextRecords()
{
    static PerContextRecords<UboContextData> records;
    return records;
}

// Runs fn on the current context's record, which starts from the context's limits.
template <typename Fn>
decltype(auto) withCurrentRecord(Fn&& fn)
{
    return uboContextRecords().withCurrentPrepared([](UboContextData& record, void*) { record.initialise(); },
                                                   static_cast<Fn&&>(fn));
}

// The binding the program's block uses now: the one last set through the program, else the
// one it was linked with (a layout qualifier or an earlier glUniformBlockBinding).
int currentProgramBinding(ShaderProgram* program, int blockIndex)
{
    const unsigned int set = program->getUniformBlockBinding(unsigned(blockIndex));
    if (set != GL_INVALID_INDEX)
        return int(set);
    GLint linked = -1;
    glGetActiveUniformBlockiv(program->shaderProgramID(), GLuint(blockIndex), GL_UNIFORM_BLOCK_BINDING, &linked);
    return linked;
}

// The program bound now, for the calls that take no program; reported when there is none.
ShaderProgram* boundProgram()
{
    ShaderProgram* program = ShaderProgram::currentShaderProgram();
    if (!program)
        VYX_WARNING("No ShaderProgram is bound");
    return program;
}

} // namespace

UniformBufferObject::UniformBufferObject(const QString& blockName, QSharedPointer<BufferObject> buffer,
                                         QObject* parent)
    : QObject(parent)
    , _bufferObject(std::move(buffer))
    , _uniformBlockName(blockName)
{
    ++aliveUniformBuffers;
}

UniformBufferObject::~UniformBufferObject()
{
    --aliveUniformBuffers;
}

int UniformBufferObject::NumAlive()
{
    return aliveUniformBuffers;
}

int UniformBufferObject::maxUniformBlockBindings()
{
    return withCurrentRecord([](UboContextData& record) { return record._maxUniformBlockBindings; });
}

bool UniformBufferObject::bind(ShaderProgram* program)
{
    VYX_CHECK_RETURN(!this->_bufferObject.isNull(), false, "m_bufferObject is NULL on bind()");
    const unsigned int bufferObjectID = _bufferObject->getBO();
    const int blockIndex = program ? program->getUniformBlockIndex(_uniformBlockName) : -1;

    const int binding = withCurrentRecord([&](UboContextData& uboContextData) {
        const auto held = uboContextData._uniformBufferObjectToUniformBlockBindingMaps.constFind(bufferObjectID);
        if (held != uboContextData._uniformBufferObjectToUniformBlockBindingMaps.constEnd()) {
            ++uboContextData._boundUniformBufferObjectCounts[bufferObjectID];
            return held.value();
        }
        std::set<int>& freeBindings = uboContextData._freeUniformBlockBindings;
        if (freeBindings.empty()) {
            VYX_WARNING("There is no available uniformBlockBindings");
            return -1;
        }
        // A program linked with an explicit binding keeps it where it can.
        auto chosen = freeBindings.begin();
        if (blockIndex >= 0) {
            const auto preferred = freeBindings.find(currentProgramBinding(program, blockIndex));
            if (preferred != freeBindings.end())
                chosen = preferred;
        }
        const int newBinding = *chosen;
        freeBindings.erase(chosen);
        uboContextData._uniformBufferObjectToUniformBlockBindingMaps.insert(bufferObjectID, newBinding);
        uboContextData._boundUniformBufferObjectCounts.insert(bufferObjectID, 1);
        uboContextData._bindingTable[newBinding] = bufferObjectID;

        uboContextData.attach(*_bufferObject, newBinding);
        return newBinding;
    });
    if (binding < 0)
        return false;
    if (blockIndex >= 0)
        program->setUniformBlockBinding(unsigned(blockIndex), unsigned(binding));
    return true;
}

bool UniformBufferObject::unbind(ShaderProgram* /*program*/)
{
    VYX_CHECK_RETURN(!this->_bufferObject.isNull(), false, "m_bufferObject is NULL on bind()");
    const unsigned int bufferObjectID = _bufferObject->getBO();
    return withCurrentRecord([&](UboContextData& uboContextData) {
        // Unbinding a buffer that holds no binding point is harmless.
        auto& bindings = uboContextData._uniformBufferObjectToUniformBlockBindingMaps;
        const auto held = bindings.find(bufferObjectID);
        if (held == bindings.end())
            return true;
        // One lookup per map: the checks print the conditions they stand for.
        auto& counts = uboContextData._boundUniformBufferObjectCounts;
        const auto count = counts.find(bufferObjectID);
        if (!VYX_CHECK_AS(count != counts.end(),
                          "uboContextData._boundUniformBufferObjectCounts.contains(bufferObjectID)",
                          "UniformBufferObject has not been bound on unbind"))
            return false;
        if (--count.value() > 0)
            return true;
        const int binding = held.value();
        bindings.remove(bufferObjectID);
        counts.remove(bufferObjectID);
        glBindBufferBase(GL_UNIFORM_BUFFER, GLuint(binding), 0);
        uboContextData._bindingTable[binding] = 0;
        uboContextData._freeUniformBlockBindings.insert(binding);
        return true;
    });
}

bool UniformBufferObject::rebind(UniformBufferObject* bound, ShaderProgram* program)
{
    if (!bound || bound == this || !program || bound->_bufferObject.isNull() || _bufferObject.isNull() ||
        bound->_uniformBlockName != _uniformBlockName) {
        const bool unbound = !bound || bound->unbind(program);
        return (program ? bind(program) : bind()) && unbound;
    }
    const unsigned int releasedID = bound->_bufferObject->getBO();
    const unsigned int takenID = _bufferObject->getBO();
    const int blockIndex = program->getUniformBlockIndex(_uniformBlockName);
    const bool tookOver = blockIndex >= 0 && withCurrentRecord([&](UboContextData& uboContextData) {
        auto& bindings = uboContextData._uniformBufferObjectToUniformBlockBindingMaps;
        auto& counts = uboContextData._boundUniformBufferObjectCounts;
        const auto held = bindings.find(releasedID);
        const auto count = counts.find(releasedID);
        // Anything else is what unbind() and bind() would sort out between them.
        if (held == bindings.end() || count == counts.end() || count.value() != 1 || bindings.contains(takenID) ||
            currentProgramBinding(program, blockIndex) != held.value())
            return false;
        const int binding = held.value();
        // remove() by key: erase() would walk the buckets to the next node, which nobody reads.
        bindings.remove(releasedID);
        counts.remove(releasedID);
        bindings.insert(takenID, binding);
        counts.insert(takenID, 1);
        uboContextData._bindingTable[binding] = takenID;
        uboContextData.attach(*_bufferObject, binding);
        return true;
    });
    if (tookOver)
        return true;
    const bool unbound = bound->unbind(program);
    return bind(program) && unbound;
}

bool UniformBufferObject::bind()
{
    ShaderProgram* program = boundProgram();
    return program && bind(program);
}

bool UniformBufferObject::unbind()
{
    ShaderProgram* program = boundProgram();
    return program && unbind(program);
}

int UniformBufferObject::uniformBlockBinding() const
{
    VYX_CHECK_RETURN(!this->_bufferObject.isNull(), -1, "m_bufferObject is NULL on uniformBlockBinding()");
    const unsigned int bufferObjectID = _bufferObject->getBO();
    return withCurrentRecord([&](UboContextData& uboContextData) {
        VYX_CHECK_RETURN(uboContextData._uniformBufferObjectToUniformBlockBindingMaps.contains(bufferObjectID), -1,
                         "UniformBufferObject has not been bound on uniformBlockBinding()");
        VYX_CHECK_RETURN(uboContextData._boundUniformBufferObjectCounts.contains(bufferObjectID), -1,
                         "UniformBufferObject has not been bound on uniformBlockBinding()");
        return uboContextData._uniformBufferObjectToUniformBlockBindingMaps.value(bufferObjectID);
    });
}

void UniformBufferObject::bindBatchStart()
{
    withCurrentRecord([](UboContextData& record) {
        record._batchFirst = record._maxUniformBlockBindings;
        record._batchLast = -1;
        return true;
    });
}

void UniformBufferObject::bindBatchFlush()
{
    withCurrentRecord([](UboContextData& record) {
        const int first = record._batchFirst;
        const int last = record._batchLast;
        record._batchFirst = -1;
        record._batchLast = -1;
        if (-1 == last || first > last)
            return false;
        // Points in the range that nobody holds get buffer 0 from the table, which unbinds them.
        if (record._bindBuffersBase) {
            record._bindBuffersBase(GL_UNIFORM_BUFFER, GLuint(first), GLsizei(last - first + 1),
                                    record._bindingTable.constData() + first);
        } else {
            for (int binding = first; binding <= last; ++binding)
                glBindBufferBase(GL_UNIFORM_BUFFER, GLuint(binding), record._bindingTable[binding]);
        }
        return true;
    });
}

size_t UniformBufferObject::memoryEstimateCPU() const
{
    const size_t own = 56 + size_t(_uniformBlockName.size());
    return _bufferObject.isNull() ? own : own + _bufferObject->memoryEstimateCPU();
}

size_t UniformBufferObject::memoryEstimateGPU() const
{
    return _bufferObject.isNull() ? 0 : _bufferObject->memoryEstimateGPU();
}

} // namespace Tavren::Vyx
