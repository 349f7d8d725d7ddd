#pragma once

#include "gl/platform/internal/glcapabilities.h"

#include <tuple>
#include <type_traits>
#include <vector>

namespace VyxTest {

namespace CallRecorderDetail {

// One recording shim per Key: the calls it saw and the original it forwards to.
template <typename Key, typename Pointer>
struct Shim;

template <typename Key, typename R, typename... Args>
struct Shim<Key, R (*)(Args...)>
{
    using Call = std::tuple<std::decay_t<Args>...>;
    static inline R (*original)(Args...) = nullptr;
    static inline bool forwarding = true;
    static inline std::vector<Call> recorded;

    // Starts recording in front of `from`; returns the shim to put in its place.
    static R (*start(R (*from)(Args...), bool forward))(Args...)
    {
        original = from;
        forwarding = forward;
        recorded.clear();
        return &call;
    }

    static R call(Args... args)
    {
        recorded.emplace_back(args...);
        if (forwarding && original)
            return original(args...);
        if constexpr (!std::is_void_v<R>)
            return R{};
    }
};

} // namespace CallRecorderDetail

// Swaps a GL entry-point pointer (a `_ptrc_` variable) for a shim that records each call's
// arguments, and puts the original back when destroyed. By default the shim forwards to the
// original, so GL state stays real.
//
//   CallRecorder<&_ptrc_glBindBuffer> bindBuffer;
//   ...
//   EXPECT_EQ(bindBuffer.calls().size(), 1u);
template <auto* Slot, typename Pointer = std::remove_reference_t<decltype(*Slot)>>
class CallRecorder
{
    using Shim = CallRecorderDetail::Shim<std::integral_constant<decltype(Slot), Slot>, Pointer>;

public:
    using Call = typename Shim::Call;

    explicit CallRecorder(bool forward = true) { *Slot = Shim::start(*Slot, forward); }
    ~CallRecorder() { *Slot = Shim::original; }
    CallRecorder(const CallRecorder&) = delete;
    CallRecorder& operator=(const CallRecorder&) = delete;

    static std::vector<Call>& calls() { return Shim::recorded; }
    std::size_t count() const { return Shim::recorded.size(); }
};

// The same for an optional entry point the library asks the capability table for: the shim
// stands in for the current context's answer.
//
//   CapabilityRecorder<GLCapability::CopyImageSubData, PFNVYXGLCOPYIMAGESUBDATAPROC> copies;
template <Tavren::Vyx::GLCapability Capability, typename Pointer>
class CapabilityRecorder
{
    using Shim = CallRecorderDetail::Shim<std::integral_constant<Tavren::Vyx::GLCapability, Capability>, Pointer>;

public:
    using Call = typename Shim::Call;

    explicit CapabilityRecorder(bool forward = true)
    {
        Pointer original = Tavren::Vyx::glCapabilityFunction<Pointer>(Capability);
        Tavren::Vyx::replaceGLCapability(Capability, reinterpret_cast<void*>(Shim::start(original, forward)));
    }
    ~CapabilityRecorder() { Tavren::Vyx::replaceGLCapability(Capability, reinterpret_cast<void*>(Shim::original)); }
    CapabilityRecorder(const CapabilityRecorder&) = delete;
    CapabilityRecorder& operator=(const CapabilityRecorder&) = delete;

    static std::vector<Call>& calls() { return Shim::recorded; }
    std::size_t count() const { return Shim::recorded.size(); }
};

// Replaces a pointer for the length of a scope.
template <typename Pointer>
class PointerSwap
{
public:
    PointerSwap(Pointer& slot, Pointer replacement) : _slot(slot), _saved(slot) { _slot = replacement; }
    ~PointerSwap() { _slot = _saved; }
    PointerSwap(const PointerSwap&) = delete;
    PointerSwap& operator=(const PointerSwap&) = delete;

private:
    Pointer& _slot;
    Pointer _saved;
};

} // namespace VyxTest
