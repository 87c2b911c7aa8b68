// Heap blocks whose allocation failure the library reports (contexts,
// registry records, hash nodes, subcard nodes, holders). They come from
// malloc/calloc; the unit tests can make a chosen one fail.
#ifndef LIBQZ_CAP_CORE_ALLOC_H
#define LIBQZ_CAP_CORE_ALLOC_H

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>

namespace qzcap {

void *xmalloc(size_t size);
void *xcalloc(size_t count, size_t size);

struct Free {
    void operator()(void *p) const { std::free(p); }
};
// Owns an xmalloc/xcalloc block until release() hands it on.
template <class T>
using XPtr = std::unique_ptr<T, Free>;

// count zero-filled Ts; empty when the allocation fails.
template <class T>
XPtr<T> xcalloc_n(size_t count) {
    return XPtr<T>(static_cast<T *>(xcalloc(count, sizeof(T))));
}
template <class T>
XPtr<T> xcalloc_one() {
    return xcalloc_n<T>(1);
}

// count uninitialised Ts; empty when the allocation fails.
template <class T>
XPtr<T> xmalloc_n(size_t count) {
    return XPtr<T>(static_cast<T *>(xmalloc(count * sizeof(T))));
}

}  // namespace qzcap

// Internal, for tests: the nth allocation from now (1 = the next) fails;
// 0 turns failures off.
extern "C" void libqz_cap_test_fail_alloc(uint32_t nth);

#endif  // LIBQZ_CAP_CORE_ALLOC_H
