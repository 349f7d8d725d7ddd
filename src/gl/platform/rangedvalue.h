#pragma once

#include <QMetaType>

namespace Tavren::Vyx {

// A number with the range a host's editor offers for it. Shaders only read the value.
template <typename T>
struct RangedValue
{
    T value = T(0);
    T minimum = T(0);
    T maximum = T(1);

    RangedValue() = default;
    RangedValue(T v, T lowest, T highest)
        : value(v)
        , minimum(lowest)
        , maximum(highest)
    {
    }
    bool operator==(const RangedValue& other) const
    {
        return value == other.value && minimum == other.minimum && maximum == other.maximum;
    }
    bool operator!=(const RangedValue& other) const { return !(*this == other); }
};

struct RangedFloat : RangedValue<float>
{
    using RangedValue<float>::RangedValue;
};

struct RangedDouble : RangedValue<double>
{
    using RangedValue<double>::RangedValue;
};

} // namespace Tavren::Vyx

Q_DECLARE_METATYPE(Tavren::Vyx::RangedFloat)
Q_DECLARE_METATYPE(Tavren::Vyx::RangedDouble)
