// Which optional instructions this processor has.
#pragma once

namespace vestrel {

/// Put before a function that is compiled for processors with AVX2 and only called when `HasAvx2`.
#if defined(__x86_64__)
#define VESTREL_FOR_AVX2 [[gnu::target("avx2")]]
#else
#define VESTREL_FOR_AVX2
#endif

/// For the bodies of kernels. They are inlined into their callers, so that each is compiled once
/// for every kind of processor that has a caller of its own.
#define VESTREL_KERNEL [[gnu::always_inline]] inline
#define VESTREL_KERNEL_LAMBDA __attribute__((always_inline))

/// Whether the processor has AVX2; false when `$VESTREL_VECTORS` is "plain", so that both versions
/// can be compared.
bool HasAvx2();

}  // namespace vestrel
