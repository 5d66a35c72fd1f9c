#pragma once
/// Lazily filled lookup tables of the cached microfacet distributions, and the static
/// interface "net.quorv.render.interface.microfacetdistributioncaches" that allocates a block
/// of four of them.
///
/// A `SamplerCache` is one flat array of Float32: a value table of 401 rows of 2,000 entries
/// (entries 0-999 of a row at cosines 0.9 + i * 0.0001, entries 1000-1999 at (i - 1000) *
/// 0.001) and an inverse table of 401 rows of 1,000 entries (the drawn cosine for the uniform
/// number k * 0.001). An entry below -0.5 is unset; whichever evaluation first needs it
/// computes and stores it.
///
/// Thread safety: any number of threads may read and fill one cache at once without a lock.
/// Every entry is read and written as a relaxed atomic 32-bit word, so a race only repeats a
/// computation; for two materials in one row either value may win.

#include <algorithm>
#include <atomic>
#include <cmath>

#include "quorv/datatype.h"
#include "quorv/ref.h"

namespace quorv {

/// One distribution's lookup tables.
struct SamplerCache {
    static constexpr Int VALUE_ROW = 2000;
    static constexpr Int INVERSE_ROW = 1000;
    static constexpr Int ROWS = 401;
    static constexpr Int INVERSE_OFFSET = ROWS * VALUE_ROW;                  ///< 802,000
    static constexpr Int ENTRY_COUNT = INVERSE_OFFSET + ROWS * INVERSE_ROW;  ///< 1,203,000
    static constexpr Float32 UNSET = -1.0f;

    /// Constructed unset, ready for use.
    SamplerCache() { Clear(); }

    /// Writes the unset value into every entry. Must not race with lookups.
    void Clear() {
        for (Float32& e : entries) e = UNSET;
    }
    /// Relaxed atomic read of entry `i`.
    Float32 Load(Int i) const {
        return std::atomic_ref<Float32>(const_cast<Float32&>(entries[i]))
            .load(std::memory_order_relaxed);
    }
    /// Relaxed atomic write of entry `i`.
    void Store(Int i, Float32 v) const {
        std::atomic_ref<Float32>(const_cast<Float32&>(entries[i]))
            .store(v, std::memory_order_relaxed);
    }
    /// The number of set entries (tests and diagnostics).
    Int CountSet() const {
        Int n = 0;
        for (Int i = 0; i < ENTRY_COUNT; ++i) n += Load(i) < -0.5f ? 0 : 1;
        return n;
    }

    alignas(16) Float32 entries[ENTRY_COUNT];
};
static_assert(sizeof(SamplerCache) == SamplerCache::ENTRY_COUNT * sizeof(Float32));
static_assert(std::atomic_ref<Float32>::is_always_lock_free);

/// How a parameter dictionary carries a `SamplerCache` (key `BSDF_PARAM_DISTRIBUTION_CACHE`):
/// a pointer-sized handle. The caller owns the cache and keeps it alive while classes use it.
struct SamplerCachePointer {
    SamplerCache* cache = nullptr;
};

QUORV_DATATYPE_ID(SamplerCache, "net.quorv.render.legacy_renderers.samplercache");
QUORV_DATATYPE_ID(SamplerCachePointer, "net.quorv.render.legacy_renderers.samplercachepointer");

/// The row of a roughness: truncation of clamp(roughness, 0, 1) * 400; NaN gives row 0.
inline Int SamplerCacheRow(Float64 roughness) {
    const Float64 r = roughness > 1.0 ? 1.0 : (roughness >= 0.0 ? roughness : 0.0);
    return static_cast<Int>(r * 400.0);
}

/// clamp(truncation of x, 0, 999); NaN gives 0, so no input reads outside a row.
inline Int SamplerCacheIndex(Float64 x) {
    return x >= 0.0 ? (x < 999.0 ? static_cast<Int>(x) : 999) : 0;
}

/// Fills entry `i` with `value(c)` when unset; returns the entry.
template <typename F>
Float32 SamplerCacheEntry(const SamplerCache& cache, Int i, Float32 e, Float64 c, F&& value) {
    if (!(e < -0.5f)) return e;
    e = static_cast<Float32>(value(c));
    cache.Store(i, e);
    return e;
}

/// Table value for the cosine `c` in the row starting at `rowD`, interpolated as
/// INTERPOLATE(e0, e1, f) in Float32. `value(c0)` is the analytic function at a grid cosine.
template <typename F, typename I>
Float64 SamplerCacheLookup(const SamplerCache& cache, Int rowD, Float64 c, F&& value,
                           I&& interpolate) {
    if (c < 1e-16) return 0.0;
    Float64 x, f, c0, c1;
    Int i, j;
    if (c >= 0.9) {
        x = (c - 0.9) * 10000.0;
        const Int k = SamplerCacheIndex(x);
        i = k;
        j = std::min<Int>(k, 998) + 1;
        f = x - static_cast<Float64>(k);
        c0 = static_cast<Float64>(k) * 0.0001 + 0.9;
        c1 = static_cast<Float64>(j) * 0.0001 + 0.9;
    } else {
        x = c * 1000.0;
        const Int k = SamplerCacheIndex(x);
        i = k + 1000;
        j = std::min<Int>(k, 998) + 1001;
        f = x - static_cast<Float64>(k);
        c0 = static_cast<Float64>(k) * 0.001;
        c1 = static_cast<Float64>(std::min<Int>(k, 998) + 1) * 0.001;
    }
    // Both entries are read before either is filled.
    Float32 e0 = cache.Load(rowD + i);
    Float32 e1 = cache.Load(rowD + j);
    auto grid = [&](Float64 cg) { return cg < 1e-16 ? 0.0 : value(cg); };
    e0 = SamplerCacheEntry(cache, rowD + i, e0, c0, grid);
    e1 = SamplerCacheEntry(cache, rowD + j, e1, c1, grid);
    return static_cast<Float64>(interpolate(e0, e1, static_cast<Float32>(f)));
}

/// e0 * (1 - f) + e1 * f in Float32, the last product and the sum fused.
inline Float32 SamplerCacheLerp(Float32 e0, Float32 e1, Float32 f) {
    return std::fma(e1, f, e0 * (1.0f - f));
}

/// Inverse table: the drawn cosine for the uniform number `u` in the row starting at
/// `rowInverse`; `cosine(u)` is the analytic draw, called with min(k * 0.001, 0.99999).
template <typename F>
Float64 SamplerCacheInverse(const SamplerCache& cache, Int rowInverse, Float64 u, F&& cosine) {
    const Float64 x = u * 1000.0;
    const Int k = SamplerCacheIndex(x);
    const Int j = std::min<Int>(k, 998) + 1;
    const Int base = SamplerCache::INVERSE_OFFSET + rowInverse;
    Float32 e0 = cache.Load(base + k);
    Float32 e1 = cache.Load(base + j);
    auto grid = [&](Float64 g) { return cosine(std::min(g, 0.99999)); };
    e0 = SamplerCacheEntry(cache, base + k, e0, static_cast<Float64>(k) * 0.001, grid);
    const Float32 f = static_cast<Float32>(x - static_cast<Float64>(k));
    e1 = SamplerCacheEntry(cache, base + j, e1, static_cast<Float64>(j) * 0.001, grid);
    return static_cast<Float64>(SamplerCacheLerp(e0, e1, f));
}

/// Four `SamplerCache` records in one block (0 Beckmann, 1 GGX, 2 Ward, 3 unused), counted.
struct MicrofacetDistributionCaches;

// clang-format off
/// The operations of "net.quorv.render.interface.microfacetdistributioncaches", in slot order.
#define QUORV_MICROFACETDISTRIBUTIONCACHES_METHODS(M) \
    M(void, Free, (MicrofacetDistributionCaches* caches), (caches)) \
    M(Result<MicrofacetDistributionCaches*>, Alloc, (), ()) \
    M(Result<void>, Init, (MicrofacetDistributionCaches* caches), (caches)) \
    M(SamplerCache*, GetCache, (MicrofacetDistributionCaches* caches, UInt32 type), (caches, type))
// clang-format on

/// The static interface of the cache block:
/// - `Free(caches)`: releases the block (run by the last reference's drop).
/// - `Alloc()`: a new block with one reference, entries zero ("empty"); out of memory gives
///   the kind 0 error.
/// - `Init(caches)`: writes the unset value into every entry of all four tables; the only way
///   to clear them. Null gives the nullptr error.
/// - `GetCache(caches, type)`: record 0 to 3, each directly behind the last; any other type,
///   or a null block, gives null.
QUORV_NONVIRTUAL_INTERFACE(MicrofacetDistributionCachesInterface,
                           "net.quorv.render.interface.microfacetdistributioncaches",
                           QUORV_MICROFACETDISTRIBUTIONCACHES_METHODS);

/// A counted handle of a cache block.
using MicrofacetDistributionCachesRef = Ref<MicrofacetDistributionCaches>;

/// Allocates and initialises a block through the interface.
inline Result<MicrofacetDistributionCachesRef> CreateMicrofacetDistributionCaches() {
    Result<MicrofacetDistributionCaches*> block = MicrofacetDistributionCachesInterface::Alloc();
    if (block.IsError()) return block.GetError();
    MicrofacetDistributionCachesRef ref = MicrofacetDistributionCachesRef::Adopt(block.GetValue());
    QUORV_RETURN_IF_ERROR(MicrofacetDistributionCachesInterface::Init(ref.Get()));
    return ref;
}

}  // namespace quorv
