#pragma once
/// Batch entry points: one C++ loop over a module interface per kind of query, shared by every
/// caller that evaluates many inputs at once (the command line's JSON-lines paths, which hand
/// over one input at a time, and the Python module, which hands over whole arrays). The loop
/// runs on the caller's thread, allocates nothing and takes no lock, so a caller may release
/// its own interpreter lock around it. Arrays are plain and contiguous, `count` entries each.
///
/// Link `quorv_batch`: it also holds this binary's tables of the IES and texture interfaces,
/// bound when the render module loads.

#include <vector>

#include "quorv/host/host.h"
#include "quorv/result.h"
#include "render/cameras/camera.h"
#include "render/legacy_renderers/bsdf_legacy.h"
#include "render/photometric/ies.h"
#include "render/textures/texture.h"

namespace quorv::host {

/// `ComputeLightIntensity` of each direction (the web's own space, z its vertical axis):
/// intensities relative to the web's maximum.
QUORV_HOST_API void IesIntensityBatch(const IesImpl* ies, const Vector64* directions, Float64* intensities,
                       Int count);

/// `CreateScreenRay` for each screen position; each ray starts from `rays[i]` as given (the
/// members the camera does not write keep their values).
QUORV_HOST_API void CameraRayBatch(const CameraRef& camera, const Vector2d64* screen, Ray* rays, Int count);

/// `ComputeBSDF(wo, wiSide, wi)` for each pair; `wiSide` null means wi (what every renderer
/// call passes). `wo` advances by `woStride` entries (0: one direction for all). Writes the
/// value and the density of each pair.
QUORV_HOST_API void BSDFEvaluateBatch(const BSDFLegacyRef& bsdf, const Vector64* wo, Int woStride,
                       const Vector64* wi, const Vector64* wiSide, Color64* values,
                       Float64* pdfs, Int count);

/// `SampleF(wo, +z, sample, wi, pdf)` for each sample record. `wo` advances by `woStride`
/// entries (0: one direction for all). `wi` is read (the value before the call, which a
/// rejection leaves as it was) and written.
QUORV_HOST_API void BSDFSampleBatch(const BSDFLegacyRef& bsdf, const Vector64* wo, Int woStride,
                     const BSDFCachedSample* samples, Vector64* wi, Color64* values,
                     Float64* pdfs, Int count);

/// How a batch of texture samples filters: the arguments of `ThreadedTexture::Sample` that stay
/// the same for every position.
struct TextureSampleSettings {
    TEXTUREMODE modeU = TEXTUREMODE::CLAMP;
    TEXTUREMODE modeV = TEXTUREMODE::CLAMP;
    TEXTUREINTERPOLATION interpolation = TEXTUREINTERPOLATION::LINEAR;
    DESTINATIONCOLORSPACE colorSpace = DESTINATIONCOLORSPACE::RAW;
    ALPHAPROCESSING alpha = ALPHAPROCESSING::NONE;
    Bool tile = true;
};

/// `Sample` of each position through one sampler (one thread's: a sampler is not shared).
/// `footprints` null means a zero footprint for all.
QUORV_HOST_API void TextureSampleBatch(const ThreadedTextureRef& sampler, const Vector2d64* uv,
                                       const Vector2d64* footprints,
                                       const TextureSampleSettings& settings, ColorA64* colors,
                                       Int count);

/// Entries of the table of sample records that callers name by index.
constexpr Int BSDF_SAMPLE_TABLE_SIZE = 65536;

/// The BSDF_SAMPLE_TABLE_SIZE sample records drawn from the generator seeded with
/// BSDF_RANDOM_SEED (100), in order; made once, then shared read-only by every thread.
QUORV_HOST_API const std::vector<BSDFCachedSample>& BSDFSampleTable();

}  // namespace quorv::host
