#include "quorv/host/batch.h"

namespace quorv::host {

void IesIntensityBatch(const IesImpl* ies, const Vector64* directions, Float64* intensities,
                       Int count) {
    for (Int i = 0; i < count; ++i) {
        intensities[i] = IesInterface::ComputeLightIntensity(ies, directions[i]);
    }
}

void CameraRayBatch(const CameraRef& camera, const Vector2d64* screen, Ray* rays, Int count) {
    for (Int i = 0; i < count; ++i) camera.CreateScreenRay(screen[i], rays[i]);
}

void BSDFEvaluateBatch(const BSDFLegacyRef& bsdf, const Vector64* wo, Int woStride,
                       const Vector64* wi, const Vector64* wiSide, Color64* values,
                       Float64* pdfs, Int count) {
    const Vector64* side = wiSide ? wiSide : wi;
    for (Int i = 0; i < count; ++i) {
        Float64 pdf = 0.0;
        values[i] = bsdf.ComputeBSDF(wo[i * woStride], side[i], wi[i], pdf);
        pdfs[i] = pdf;
    }
}

void BSDFSampleBatch(const BSDFLegacyRef& bsdf, const Vector64* wo, Int woStride,
                     const BSDFCachedSample* samples, Vector64* wi, Color64* values,
                     Float64* pdfs, Int count) {
    constexpr Vector64 NORMAL{0.0, 0.0, 1.0};
    for (Int i = 0; i < count; ++i) {
        Float64 pdf = 0.0;
        values[i] = bsdf.SampleF(wo[i * woStride], NORMAL, samples[i], wi[i], pdf);
        pdfs[i] = pdf;
    }
}

void TextureSampleBatch(const ThreadedTextureRef& sampler, const Vector2d64* uv,
                        const Vector2d64* footprints, const TextureSampleSettings& settings,
                        ColorA64* colors, Int count) {
    for (Int i = 0; i < count; ++i) {
        colors[i] = sampler.Sample(uv[i], footprints ? footprints[i] : Vector2d64{0.0, 0.0},
                                   settings.modeU, settings.modeV, settings.interpolation,
                                   settings.colorSpace, settings.alpha, settings.tile);
    }
}

const std::vector<BSDFCachedSample>& BSDFSampleTable() {
    static const std::vector<BSDFCachedSample> table = [] {
        std::vector<BSDFCachedSample> t(static_cast<size_t>(BSDF_SAMPLE_TABLE_SIZE));
        BSDFRandom random;
        random.Seed(BSDF_RANDOM_SEED);
        for (auto& s : t) s = random.NextSample();
        return t;
    }();
    return table;
}

}  // namespace quorv::host
