#pragma once

#include <tuple>
#include <type_traits>
#include <vector>

namespace VyxTest {

// Swaps a GL entry-point pointer (a `_ptrc_` variable) for a shim that records each call's
// arguments, and puts the original back when destroyed. By default the shim forwards to the
// original, so GL state stays real.
//
//   CallRecorder<&_ptrc_glBindBuffer> bindBuffer;
//   ...
//   EXPECT_EQ(bindBuffer.calls().size(), 1u);
template <auto* Slot, typename Pointer = std::remove_reference_t<decltype(*Slot)>>
class CallRecorder;

template <auto* Slot, typename R, typename... Args>
class CallRecorder<Slot, R (*)(Args...)>
{
public:
    using Call = std::tuple<std::decay_t<Args>...>;

    explicit CallRecorder(bool forward = true)
    {
        original = *Slot;
        forwarding = forward;
        recorded.clear();
        *Slot = &shim;
    }
    ~CallRecorder() { *Slot = original; }
    CallRecorder(const CallRecorder&) = delete;
    CallRecorder& operator=(const CallRecorder&) = delete;

    static std::vector<Call>& calls() { return recorded; }
    std::size_t count() const { return recorded.size(); }

private:
    static inline R (*original)(Args...) = nullptr;
    static inline bool forwarding = true;
    static inline std::vector<Call> recorded;

    static R shim(Args... args)
    {
        recorded.emplace_back(args...);
        if (forwarding && original)
            return original(args...);
        if constexpr (!std::is_void_v<R>)
            return R{};
    }
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
