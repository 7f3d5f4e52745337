// Internal: the flat interface never throws. Its functions are called from C,
// where an exception (in practice std::bad_alloc from a container) cannot be
// caught, so each one that uses C++ containers answers through this guard.
#ifndef SEALKEEP_COMMON_NO_THROW_HPP
#define SEALKEEP_COMMON_NO_THROW_HPP

#include <cstdio>
#include <utility>

namespace sealkeep {

// What body returns, or failure after "Out of memory\n" when it throws.
template <typename Body, typename Result>
Result withoutExceptions(Body&& body, Result failure) noexcept
{
    try {
        return std::forward<Body>(body)();
    } catch (...) {
        fputs("Out of memory\n", stderr);
        return failure;
    }
}

}  // namespace sealkeep

#endif
