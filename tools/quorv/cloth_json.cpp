// Reading the cloth and scratch records from JSON.
#include "cloth_json.h"

#include <algorithm>
#include <initializer_list>
#include <string>

namespace quorv::cli {

namespace {

void RefuseUnknown(const Json& j, std::initializer_list<const char*> known, const char* what) {
    if (!j.is_object()) throw LineError(std::string(what) + " must be an object");
    for (auto it = j.begin(); it != j.end(); ++it) {
        if (std::none_of(known.begin(), known.end(),
                         [&](const char* k) { return it.key() == k; })) {
            throw LineError("unknown field \"" + Quote(it.key()) + "\" in " + what);
        }
    }
}

Color64 GetColorField(const Json& j, const char* name, const Color64& fallback) {
    const Vector64 v = GetVectorField(j, name, {fallback.r, fallback.g, fallback.b});
    return {v.x, v.y, v.z};
}

}  // namespace

void ReadClothSetup(const Json& j, ClothSetupArguments* a) {
    RefuseUnknown(j,
                  {"quality", "alpha", "beta", "smoothing", "intensityVariation",
                   "intensityFineness", "warpVariation", "weftVariation", "variationScale"},
                  "\"setupCloth\"");
    a->quality = GetIntegerField<Int32>(j, "quality", a->quality);
    a->alpha = GetNumberField(j, "alpha", a->alpha);
    a->beta = GetNumberField(j, "beta", a->beta);
    a->smoothing = GetNumberField(j, "smoothing", a->smoothing);
    a->intensityVariation = GetNumberField(j, "intensityVariation", a->intensityVariation);
    a->intensityFineness = GetNumberField(j, "intensityFineness", a->intensityFineness);
    a->warpVariation = GetNumberField(j, "warpVariation", a->warpVariation);
    a->weftVariation = GetNumberField(j, "weftVariation", a->weftVariation);
    a->variationScale = GetNumberField(j, "variationScale", a->variationScale);
}

IrawanInitData DefaultClothRecord() {
    IrawanInitData d;
    d.warpDiffuse = {0.05, 0.08, 0.2};
    d.warpSpecular = {0.6, 0.7, 1.0};
    d.weftDiffuse = {0.2, 0.08, 0.04};
    d.weftSpecular = {1.0, 0.75, 0.5};
    d.scaleU = 1.0;
    d.scaleV = 1.0;
    d.blur = 1.0;
    return d;
}

void ReadClothRecord(const Json& j, IrawanInitData* d) {
    RefuseUnknown(j,
                  {"warpDiffuse", "warpSpecular", "weftDiffuse", "weftSpecular", "uvw", "uvwDelta",
                   "rotation", "scaleU", "scaleV", "blur", "preset", "setupCloth"},
                  "\"cloth\"");
    d->warpDiffuse = GetColorField(j, "warpDiffuse", d->warpDiffuse);
    d->warpSpecular = GetColorField(j, "warpSpecular", d->warpSpecular);
    d->weftDiffuse = GetColorField(j, "weftDiffuse", d->weftDiffuse);
    d->weftSpecular = GetColorField(j, "weftSpecular", d->weftSpecular);
    d->uvw = GetVectorField(j, "uvw", d->uvw);
    d->uvwDelta = GetVectorField(j, "uvwDelta", d->uvwDelta);
    d->rotation = GetNumberField(j, "rotation", d->rotation);
    d->scaleU = GetNumberField(j, "scaleU", d->scaleU);
    d->scaleV = GetNumberField(j, "scaleV", d->scaleV);
    d->blur = GetNumberField(j, "blur", d->blur);
    const UInt32 preset = GetIntegerField<UInt32>(j, "preset", 1);
    ClothSetupArguments a;
    if (const Json* s = FindField(j, "setupCloth")) ReadClothSetup(*s, &a);
    Result<ClothWeavePatternRef> p = ClothWeavePatternRef::Create();
    if (p.IsError()) throw LineError(ErrorToString(p.GetErrorPointer()));
    Result<void> r = ClothWeavePatternInterface::SetupPattern(p.GetValue().Get(), preset);
    if (r.IsError()) throw LineError(ErrorToString(r.GetErrorPointer()));
    ClothWeavePatternInterface::SetupCloth(p.GetValue().Get(), a.quality, a.alpha, a.beta,
                                           a.smoothing, a.intensityVariation, a.intensityFineness,
                                           a.warpVariation, a.weftVariation, a.variationScale);
    d->pattern = p.GetValue();
}

AnisotropicScratchData ReadScratchRecord(const Json& j) {
    RefuseUnknown(j,
                  {"centerX", "centerY", "sectors", "scale", "rotation", "tilt", "amplitudeU",
                   "frequencyU", "stretchU", "blurU", "amplitudeV", "frequencyV", "stretchV",
                   "blurV", "mapping", "pattern", "mirror", "channels"},
                  "\"scratch\"");
    AnisotropicScratchData s;
    s.centerX = GetNumberField(j, "centerX", s.centerX);
    s.centerY = GetNumberField(j, "centerY", s.centerY);
    s.sectors = GetIntegerField<Int>(j, "sectors", s.sectors);
    s.scale = GetNumberField(j, "scale", s.scale);
    s.rotation = GetNumberField(j, "rotation", s.rotation);
    s.tilt = GetNumberField(j, "tilt", s.tilt);
    s.amplitudeU = GetNumberField(j, "amplitudeU", s.amplitudeU);
    s.frequencyU = GetNumberField(j, "frequencyU", s.frequencyU);
    s.stretchU = GetNumberField(j, "stretchU", s.stretchU);
    s.blurU = GetNumberField(j, "blurU", s.blurU);
    s.amplitudeV = GetNumberField(j, "amplitudeV", s.amplitudeV);
    s.frequencyV = GetNumberField(j, "frequencyV", s.frequencyV);
    s.stretchV = GetNumberField(j, "stretchV", s.stretchV);
    s.blurV = GetNumberField(j, "blurV", s.blurV);
    s.mapping = GetIntegerField<UInt8>(j, "mapping", s.mapping);
    s.pattern = GetIntegerField<UInt8>(j, "pattern", s.pattern);
    s.mirror = GetIntegerField<UInt8>(j, "mirror", s.mirror);
    s.channels = GetIntegerField<UInt8>(j, "channels", s.channels);
    return s;
}

}  // namespace quorv::cli
