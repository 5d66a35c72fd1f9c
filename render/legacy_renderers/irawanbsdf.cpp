// The cloth class "net.quorv.render.bsdflegacyclass.irawanbrdf": cosine-weighted samples, and a
// value averaged over jittered positions of the texture footprint, one yarn each.
#include <algorithm>
#include <cmath>

#include "quorv/image.h"
#include "render/legacy_renderers/bsdf_impl.h"
#include "render/legacy_renderers/bsdf_math.h"
#include "render/legacy_renderers/clothweavepattern_impl.h"

namespace quorv {

Result<void> IrawanBRDFImpl::Init(const DataDictionary&, const void* data) {
    if (!data) {
        return MakeError(ERRORKIND::ILLEGALARGUMENT, QUORV_SOURCE_LOCATION,
                         "Illegal argument: Illegal state in IrawanBSDF::Init. data is nullptr");
    }
    const IrawanInitData& d = *static_cast<const IrawanInitData*>(data);
    warpDiffuse = d.warpDiffuse;
    warpSpecular = d.warpSpecular;
    weftDiffuse = d.weftDiffuse;
    weftSpecular = d.weftSpecular;
    uvw = d.uvw;
    uvwDelta = d.uvwDelta;
    rotation = d.rotation;
    sinRotation = std::sin(rotation);
    cosRotation = std::cos(rotation);
    invScaleU = 1.0 / std::clamp(d.scaleU, 0.001, 1000.0);
    invScaleV = 1.0 / std::clamp(d.scaleV, 0.001, 1000.0);
    blur = std::clamp(d.blur, 0.01, 1.0);
    pattern = d.pattern;
    // Checked last on purpose: the state above has already changed when this fails.
    if (!pattern) {
        return MakeError(ERRORKIND::ILLEGALARGUMENT, QUORV_SOURCE_LOCATION,
                         "Illegal argument: Illegal state in IrawanBSDF::Init. _clothPattern is "
                         "nullptr");
    }
    return OK;
}

Result<void> IrawanBRDFImpl::Reset() {
    // invScaleV and the colours stay: Reset clears what it always cleared.
    rotation = 0.0;
    sinRotation = 0.0;
    cosRotation = 0.0;
    invScaleU = 0.0;
    pattern = ClothWeavePatternRef();
    return OK;
}

Color64 IrawanBRDFImpl::ComputeF_UVW(const Vector64& wo, const Vector64& wi, const Vector64& at,
                                     const Vector64& delta) const {
    const Float64 p = delta.y * invScaleV;
    const Float64 q = delta.x * invScaleU;
    // The variation amount: the smaller the footprint, the larger.
    const Float64 w = std::min(5e-05 / (p * p + q * q + 1e-10), 1.0);
    const ClothWeavePatternImpl* cloth = pattern.Get();
    const Int n = cloth ? cloth::GetSampleCount(cloth) : 0;
    const Float64 samples = static_cast<Float64>(n) / (w * 4.0 + 0.25);
    // A negative (or NaN) count runs no loop and gives zero.
    if (!(samples >= 0.0)) return ZERO_COLOR;
    const Int count = static_cast<Int>(std::min(samples, 1e9));
    const Float64 ratio = cloth ? cloth::GetSpecularRatio(cloth) : 0.0;
    const Float64 amount = w >= 0.01 ? w : 0.0;
    const Float64 s = sinRotation, c = cosRotation;
    const Vector64 o{c * wo.x - s * wo.y, s * wo.x + c * wo.y, wo.z};
    const Vector64 i{c * wi.x - s * wi.y, s * wi.x + c * wi.y, wi.z};
    Color64 sum = ZERO_COLOR;
    if (cloth) {
        const Vector2d64 scattering = cloth::GetScatteringCoefficients(cloth);
        const Vector2d64 areas = cloth::GetWarpWeftArea(cloth);
        const Float64 smoothing = cloth::GetSmoothing(cloth);
        // Set once: the first sample may change them, the others reuse what it left.
        Float64 weight = 1.0;
        Float64 variation = 1.0;
        for (Int k = 0; k <= count; ++k) {
            // The first sample still draws its pair, but sits at the centre.
            Float64 r1 = 2.0 * static_cast<Float64>(random.Step()) / 2147483649.0 - 1.0;
            Float64 r2 = 2.0 * static_cast<Float64>(random.Step()) / 2147483649.0 - 1.0;
            if (k == 0) r1 = r2 = 0.0;
            const Float64 a = at.x + r1 * delta.x * 0.75;
            const Float64 b = at.y + r2 * delta.y * 0.75;
            const Float64 u = invScaleU * (c * a - s * b);
            const Float64 v = (c * b + s * a) * invScaleV;
            Vector2d64 uv;
            Float64 umax = 0.0;
            const ClothYarn* yarn =
                cloth::GetYarn(cloth, u, v, &uv, &umax, &weight, &variation, k == 0, amount);
            // A gap adds nothing, not even the diffuse part, but counts in the divisor.
            if (!yarn) continue;
            // Copies, each turned to the upper side on its own.
            const Vector64 si = i.z < 0.0 ? Negate(i) : i;
            const Vector64 so = o.z < 0.0 ? Negate(o) : o;
            Float64 f = yarn->Evaluate(si, so, uv, scattering, areas, umax, blur, smoothing);
            f = ratio * f * weight;
            f = f + f;
            const bool warp = yarn->type == 0;
            const Color64& specular = warp ? warpSpecular : weftSpecular;
            const Color64& diffuse = warp ? warpDiffuse : weftDiffuse;
            sum = {sum.r + (f * specular.r + diffuse.r), sum.g + (f * specular.g + diffuse.g),
                   sum.b + (f * specular.b + diffuse.b)};
        }
    }
    const Float64 divisor = static_cast<Float64>(count + 1);
    return {sum.r / divisor, sum.g / divisor, sum.b / divisor};
}

Color64 IrawanBRDFImpl::SampleF(const Vector64& wo, const Vector64&, const BSDFCachedSample& sample,
                                Vector64& wi, Float64& pdf) const {
    wi = CosineSample(sample);
    const Float64 z = std::fabs(wi.z);
    if (z < 1e-10) {
        pdf = 0.0;
        return ZERO_COLOR;
    }
    pdf = z / BSDF_PI;
    return ComputeF_UVW(wo, wi, uvw, uvwDelta);
}

Color64 IrawanBRDFImpl::ComputeBSDF(const Vector64& wo, const Vector64& wiSide, const Vector64&,
                                    Float64& pdf) const {
    const Float64 z = std::fabs(wiSide.z);
    if (wo.z * wiSide.z > 0.0 && z >= 1e-10) {
        pdf = z / BSDF_PI;
        return ComputeF_UVW(wo, wiSide, uvw, uvwDelta);
    }
    pdf = 0.0;
    return ZERO_COLOR;
}

Float64 IrawanBRDFImpl::PdfIndirect(const Vector64&, const Vector64& wi) const {
    return std::fabs(wi.z) / BSDF_PI;
}

Result<void> IrawanBRDFImpl::GeneratePreviewImage(ImageObject* image, Float64 gain) {
    if (!image) {
        return MakeError(ERRORKIND::NULLPTR, QUORV_SOURCE_LOCATION,
                         "IrawanBSDF::GeneratePreviewImage: image is nullptr");
    }
    // A square of n x n pixels, n the width: a picture less high than wide fails at its first
    // row past the height, as a write past the image does.
    const Int n = ImageInterface::GetWidth(image);
    const Int height = ImageInterface::GetHeight(image);
    const Vector64 wo{0.5773502691896258, 0.5773502691896258, 0.5773502691896258};
    const Vector64 wi{0.0, 0.0, 1.0};
    const Vector64 delta{0.0002, 0.0002, 0.0};
    // The handler takes Float32 grey and converts it into the image's own pixel format.
    const PixelFormatObject* grey = FindPixelFormat("grey.f32");
    if (!grey) {
        return MakeError(ERRORKIND::ILLEGALSTATE, QUORV_SOURCE_LOCATION,
                         "IrawanBSDF::GeneratePreviewImage: no grey.f32 pixel format");
    }
    Result<PixelWriteHandler*> handler = ImageInterface::SetPixelHandler(image, grey);
    if (handler.IsError()) return handler.GetError();
    Ref<PixelWriteHandler> write = Ref<PixelWriteHandler>::Adopt(handler.GetValue());
    for (Int y = 0; y < n; ++y) {
        if (y >= height) {
            return MakeError(ERRORKIND::ILLEGALARGUMENT, QUORV_SOURCE_LOCATION,
                             FormatMessage("IrawanBSDF::GeneratePreviewImage: row @ is outside "
                                           "the image of @ rows",
                                           {std::to_string(y), std::to_string(height)}));
        }
        for (Int x = 0; x < n; ++x) {
            const Vector64 at{static_cast<Float64>(x) / static_cast<Float64>(n) * 0.1,
                              static_cast<Float64>(y) / static_cast<Float64>(n) * 0.1, 0.0};
            const Float32 value = static_cast<Float32>(ComputeF_UVW(wo, wi, at, delta).r * gain);
            write->write(write.Get(), x, y, 1, &value);
        }
    }
    return OK;
}

namespace {

ModuleUnit g_unit(__FILE__, {{&DataDictionaryInterface::record, "quorv/datadictionary.h"},
                             {&ImageInterface::record, "quorv/image.h"},
                             {&PixelFormatInterface::record, "quorv/image.h"}});
SimpleClass<IrawanBRDFImpl, BSDFLegacyInterface> g_irawan(g_unit, IRAWAN_BRDF_CLASS_ID,
                                                          BSDF_LEGACY_CLASS_REGISTRY_ID, __FILE__);

}  // namespace

}  // namespace quorv
