#pragma once

#include "gl/instancedata/instancedataplan.h"

#include <QList>
#include <QString>

// What the plan's layout, its GLSL generator and its program check share.
namespace Tavren::Vyx::InstanceDataLayout {

constexpr int kSlotBytes = 16;

// The base kind of a member decides which vector type (and texture-buffer view) reads it.
enum class Kind { Float, Int, Uint };

struct TypeInfo
{
    const char* glsl;
    int size;
    int align;
    Kind kind;
    int components;
    // Bools are packed one byte per component into a 32-bit word.
    bool bytes;
};

const TypeInfo& typeInfo(InstanceDataPlan::DataType type);

constexpr int alignUp(int value, int alignment)
{
    return (value + alignment - 1) / alignment * alignment;
}

// One field of the uniform-block struct: a member, a filler or a packed word or slot.
struct StructField
{
    QString type;
    QString name;
    int offset;
};

// The struct fields of a finalised uniform-block plan, in record order.
QList<StructField> structFields(const InstanceDataPlan& plan);
// The byte offset the driver gives a uniform-block member; -1 when it is not active.
int activeUniformOffset(unsigned int program, const QString& name);
// The GL type of an active uniform; 0 when it is not active.
unsigned int activeUniformType(unsigned int program, const QString& name);

// The member's offset when the plan has it and `size` bytes fit in it; else -1 after a report
// naming `caller`.
int checkedMemberOffset(const InstanceDataPlan* plan, const QString& name, size_t size, const char* caller);
// The same with the member's size and type; null after the report.
const InstanceDataPlan::MemberLayout* checkedMember(const InstanceDataPlan* plan, const QString& name, size_t size,
                                                   const char* caller);

} // namespace Tavren::Vyx::InstanceDataLayout
