#pragma once
// The gradient noise of the cloth weave patterns and the scratch frame, private to the legacy
// BSDFs. The tables are built once, on first use, from the generator's raw state 100 behind a
// guard word; after that every call only reads them: no lock and no allocation.

#include "quorv/base.h"

namespace quorv {

/// The noise tables: 1024 permuted cell indices and 1024 gradients of length 1.5, each copied
/// once more behind the first 1024 (entries 0 to 1025), so lookups never wrap.
struct ClothNoiseTables {
    static constexpr Int SIZE = 1024;
    static constexpr Int MASK = 1023;
    static constexpr Int ENTRIES = SIZE + SIZE + 2;
    Int32 permutation[ENTRIES];
    Float64 gradient[ENTRIES][4];
};

/// The tables, built on the first call by exactly one thread; later calls wait for the build
/// and then only read. Thread safe.
const ClothNoiseTables& GetClothNoiseTables();

/// True once the tables are built (tests and diagnostics).
Bool IsClothNoiseBuilt();

/// Builds the tables into `tables` (the recipe itself, for tests).
void BuildClothNoiseTables(ClothNoiseTables& tables);

/// Gradient noise at p in [-1, 1], 0.3718413 added to x. The z = 0 and y = z = 0 paths give
/// what the full path gives there. Non-finite or huge coordinates fall into cell 0.
Float64 ClothNoise(const Vector64& p);

/// The same noise with cells repeating every `period` cells on each axis (period AND 1023);
/// period 0 is the plain noise.
Float64 ClothPeriodicNoise(const Vector64& p, Int32 period);

/// A sum of octaves: amplitude 1, each whole octave adds the noise (or its absolute value)
/// times the amplitude, then the amplitude halves and the coordinates double; the fraction of
/// an octave left adds that share of one more noise. Continuous in `octaves`.
Float64 ClothTurbulence(const Vector64& p, Float64 octaves, Bool absolute);

/// The octave sum of the periodic noise, at most 12 octaves; the period doubles with the
/// coordinates. Period 0 gives `ClothTurbulence`.
Float64 ClothPeriodicTurbulence(const Vector64& p, Float64 octaves, Bool absolute, Int32 period);

}  // namespace quorv
