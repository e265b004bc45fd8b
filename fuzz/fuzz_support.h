// What every fuzz target needs: the input in a heap block of exactly its size,
// so that AddressSanitizer catches a read one byte past it, and a check that
// stops the run when a result claims more than it may.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>

template <typename T = uint8_t> std::unique_ptr<T[]> exact_copy(const uint8_t *data, size_t size) {
    std::unique_ptr<T[]> block(new T[size]);
    if (size > 0)
        memcpy(block.get(), data, size);
    return block;
}

inline void check(bool ok) {
    if (!ok)
        __builtin_trap();
}
