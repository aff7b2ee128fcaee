#pragma once

// VELTAN_SIMD_CLONES marks a hot plain loop for function multiversioning:
// GCC emits an AVX-512 (x86-64-v4) and an AVX2-with-FMA (x86-64-v3) copy
// beside the baseline one and picks between them when the library loads, so
// one binary runs on any x86-64 machine and still uses the widest vectors,
// mask registers and fused multiply-adds the processor has.
//
// Kernels written with explicit vectors use the packet layer instead
// (frame/Packet-inl.h, Highway's dispatch). The loops left here are ones the
// compiler vectorises well by itself: a per-target copy is all they need, and
// moving them behind a kernel table would only add a call through it.
//
// Not under ThreadSanitizer: the clone resolvers run while the dynamic loader
// relocates the library, before the TSan runtime is up, and their
// instrumentation would crash there.
#if defined(__GNUC__) && !defined(__clang__) && defined(__x86_64__) && !defined(__SANITIZE_THREAD__)
#define VELTAN_SIMD_CLONES __attribute__((target_clones("arch=x86-64-v4", "arch=x86-64-v3", "default")))
#else
#define VELTAN_SIMD_CLONES
#endif
