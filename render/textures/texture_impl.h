#pragma once
// The functions behind the texture slots, the lazy builds and the reduction the builds and the
// sampler share; for the module's own sources and white-box tests.
#include "render/textures/texture.h"

namespace quorv::texture {

void Free(TextureImpl* texture);
TextureImpl* Alloc(const SourceLocation& loc);
Result<void> Init(TextureImpl* texture, const UrlObject* url, UInt32 flags,
                  const LayerSetObject* layerSet, Float64 time);
Bool IsRegularFloatingPointFormat(const TextureImpl* texture);
ImageTextureObject* GetImage(const TextureImpl* texture);

/// Builds the MIP chain and the RIP table once (as a job behind the texture's guard); answers
/// when the pyramid state is final or the build was cancelled.
void EnsurePyramid(TextureImpl* texture);
/// Builds the summed area table once, likewise.
void EnsureSummedAreaTable(TextureImpl* texture);

/// The builds themselves, run inside the guard's job.
Result<void> BuildPyramid(TextureImpl* texture);
Result<void> BuildSummedAreaTable(TextureImpl* texture);

/// Bits per channel of a pixel format: its bits divided by its channel count.
Int BitsPerChannel(const PixelFormatObject* format);

/// Reduction of two or four texels of `channels` values: integers sum and shift right
/// (truncating), floats sum and scale by 0.5 or 0.25 in single precision.
template <typename T>
inline void Reduce2(const T* a, const T* b, T* out, Int channels) {
    for (Int c = 0; c < channels; ++c) {
        if constexpr (std::is_floating_point_v<T>)
            out[c] = (a[c] + b[c]) * 0.5f;
        else
            out[c] = static_cast<T>((static_cast<UInt32>(a[c]) + b[c]) >> 1);
    }
}
template <typename T>
inline void Reduce4(const T* a, const T* b, const T* c, const T* d, T* out, Int channels) {
    for (Int k = 0; k < channels; ++k) {
        if constexpr (std::is_floating_point_v<T>)
            out[k] = (a[k] + b[k] + c[k] + d[k]) * 0.25f;
        else
            out[k] = static_cast<T>((static_cast<UInt32>(a[k]) + b[k] + c[k] + d[k]) >> 2);
    }
}

}  // namespace quorv::texture
