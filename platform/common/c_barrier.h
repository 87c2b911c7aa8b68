// The exception barrier of the stand-ins' C entry points: an exception (out
// of memory, a thread that cannot start) must never unwind into C code.
#ifndef QZ_PLATFORM_COMMON_C_BARRIER_H
#define QZ_PLATFORM_COMMON_C_BARRIER_H

#include <type_traits>

namespace qzplat {

// Returns f(), or on_fail (converted to f's result type) when f throws
// anything.
template <class F>
std::invoke_result_t<F &> c_barrier(std::type_identity_t<std::invoke_result_t<F &>> on_fail,
                                    F &&f) noexcept {
    try {
        return f();
    } catch (...) {
        return on_fail;
    }
}

// For entry points that return nothing: an exception ends f silently, as
// the C caller has no way to be told.
template <class F>
requires std::is_void_v<std::invoke_result_t<F>>
void c_barrier_void(F &&f) noexcept {
    try {
        f();
    } catch (...) {
    }
}

}  // namespace qzplat

#endif  // QZ_PLATFORM_COMMON_C_BARRIER_H
