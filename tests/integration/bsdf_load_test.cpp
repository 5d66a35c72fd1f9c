// The legacy BSDFs through the real load path of the built library: classes by id, a cache
// passed through a dictionary, the cache block through the module's static interface (bound in
// this binary when the module loads), and the command line.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <sstream>
#include <string>

#include "common/test_support.h"
#include "quorv/host/host.h"
#include "render/legacy_renderers/bsdf_legacy.h"
#include "render/legacy_renderers/bsdfdata.h"
#include "render/legacy_renderers/clothweavepattern.h"
#include "render/legacy_renderers/microfacetdistributioncaches.h"

namespace quorv {
namespace {

const Vector64 FIXED_WO{0.5773502691896258, 0.5773502691896258, 0.5773502691896258};
const Vector64 FIXED_WI{-0.556021856893694, -0.556021856893694, 0.6178020632152155};

host::LoadedModule* Module() { return test::LoadModuleOnce(QUORV_MODULE_PATH); }

BSDFLegacyRef Make(const char* id, Float64 roughness, SamplerCache* cache) {
    Module();
    BSDFLegacyRef b = test::MakeInstance<BSDFLegacyInterface>(BSDF_LEGACY_CLASS_REGISTRY_ID, id);
    DataDictionary d = DataDictionary::Create().GetValue();
    EXPECT_TRUE(d.SetData(DataDictionaryKey(BSDF_PARAM_ROUGHNESS), Data::Of(roughness)).IsOk());
    if (cache) {
        // The handle type is the module's: found by id once the module is loaded.
        Data handle = Data::Of(SamplerCachePointer{cache});
        EXPECT_FALSE(handle.IsEmpty());
        EXPECT_TRUE(d.SetData(DataDictionaryKey(BSDF_PARAM_DISTRIBUTION_CACHE), handle).IsOk());
    }
    if (id == std::string(IRAWAN_BRDF_CLASS_ID)) {
        // The cloth class reads its record, with a pattern made through the static interface.
        Result<ClothWeavePatternRef> pattern = ClothWeavePatternRef::Create();
        EXPECT_TRUE(pattern.IsOk()) << ErrorToString(pattern.GetErrorPointer());
        EXPECT_TRUE(ClothWeavePatternInterface::SetupPattern(pattern.GetValue().Get(), 1).IsOk());
        ClothWeavePatternInterface::SetupCloth(pattern.GetValue().Get(), 1, 0.01, 4.0, 0.0, 0.0,
                                               0.0, 0.0, 0.0, 0.0);
        IrawanInitData data;
        data.warpDiffuse = {0.1, 0.2, 0.3};
        data.weftDiffuse = {0.3, 0.2, 0.1};
        data.warpSpecular = data.weftSpecular = {1.0, 1.0, 1.0};
        data.pattern = pattern.GetValue();
        EXPECT_TRUE(b.Init(d, &data).IsOk());
        return b;
    }
    EXPECT_TRUE(b.Init(d, nullptr).IsOk());
    return b;
}

TEST(BSDFModuleLoad, RegistryListsTheFifteenClassesAndEachEvaluates) {
    Module();
    std::vector<std::string> entries;
    for (const auto& r : host::Host::Get().ListRegistries()) {
        if (r.id == BSDF_LEGACY_CLASS_REGISTRY_ID) entries = r.entries;
    }
    ASSERT_EQ(entries.size(), 15u);
    for (const char* id : BSDF_LEGACY_CLASS_IDS) {
        EXPECT_NE(std::find(entries.begin(), entries.end(), id), entries.end()) << id;
        BSDFLegacyRef b = Make(id, 0.5, nullptr);
        Float64 pdf = -1.0;
        const Color64 f = b.ComputeBSDF(FIXED_WO, FIXED_WI, FIXED_WI, pdf);
        EXPECT_TRUE(std::isfinite(f.r)) << id;
        EXPECT_GE(pdf, 0.0) << id;
    }
    // The data types of the module, by id.
    EXPECT_NE(GetDataType<SamplerCache>(), nullptr);
    EXPECT_NE(GetDataType<BSDFCachedSample>(), nullptr);
}

TEST(BSDFModuleLoad, CacheBlockThroughTheStaticInterfaceFeedsAClass) {
    Module();
    Result<MicrofacetDistributionCachesRef> block = CreateMicrofacetDistributionCaches();
    ASSERT_TRUE(block.IsOk()) << ErrorToString(block.GetErrorPointer());
    MicrofacetDistributionCaches* caches = block.GetValue().Get();
    EXPECT_EQ(MicrofacetDistributionCachesInterface::GetCache(caches, 4), nullptr);
    SamplerCache* ggx = MicrofacetDistributionCachesInterface::GetCache(caches, 1);
    ASSERT_NE(ggx, nullptr);
    EXPECT_EQ(ggx->CountSet(), 0);

    BSDFLegacyRef plain = Make(GGX_BRDF_CLASS_ID, 0.5, nullptr);
    BSDFLegacyRef cached = Make(GGX_BRDF_CLASS_ID, 0.5, ggx);
    // At the fixed pair the half vector has c = 0.9994: analytic on both paths, bit for bit.
    Float64 pa, pc;
    EXPECT_EQ(plain.ComputeBSDF(FIXED_WO, FIXED_WI, FIXED_WI, pa).r,
              cached.ComputeBSDF(FIXED_WO, FIXED_WI, FIXED_WI, pc).r);
    EXPECT_EQ(pa, pc);
    EXPECT_EQ(ggx->CountSet(), 0);
    // Off the peak the module fills two entries of this binary's block.
    const Vector64 wi{-0.3, 0.1, std::sqrt(1.0 - 0.1)};
    const Float64 fa = plain.ComputeBSDF(FIXED_WO, wi, wi, pa).r;
    const Float64 fc = cached.ComputeBSDF(FIXED_WO, wi, wi, pc).r;
    EXPECT_EQ(ggx->CountSet(), 2);
    EXPECT_NEAR(fc, fa, 1e-3 * fa);
}

TEST(BSDFModuleLoad, CommandLineEvaluatesLinesAndRoundTripsNumbers) {
    const std::string cli = std::string(QUORV_CLI_PATH) + " --module " + QUORV_MODULE_PATH;
    const std::string list = test::RunCommand(cli + " bsdf list");
    EXPECT_EQ(std::count(list.begin(), list.end(), '\n'), 15) << list;
    EXPECT_NE(list.find("net.quorv.render.bsdflegacyclass.wardbtdf\n"), std::string::npos);
    const std::string lines =
        "printf '%s\\n' '{\"op\":\"ComputeBSDF\",\"wo\":[0,0,1],\"wi\":[0.6,0,0.8]}' "
        "'{\"op\":\"SampleF\",\"wo\":[0,0,1],\"sample\":{\"u0\":0.25,\"u1\":0.36,\"u2\":0}}' "
        "'{\"op\":\"Frobnicate\"}' | ";
    const std::string out = test::RunCommand(
        lines + cli + " bsdf eval --class net.quorv.render.bsdflegacyclass.lambertbrdf");
    std::istringstream in(out);
    std::string first, second, third;
    std::getline(in, first);
    std::getline(in, second);
    std::getline(in, third);
    // 0.8 / pi written so that it reads back to the same bits.
    const std::string prefix = "{\"pdf\":";
    ASSERT_EQ(first.compare(0, prefix.size(), prefix), 0) << out;
    EXPECT_EQ(std::strtod(first.c_str() + prefix.size(), nullptr), 0.8 / 3.141592653589793);
    EXPECT_NE(first.find("\"value\":[1.0,1.0,1.0]"), std::string::npos) << out;
    EXPECT_NE(second.find("\"wi\":["), std::string::npos) << out;
    EXPECT_NE(second.find("\"cosTheta\":0.6000000238418579"), std::string::npos) << out;
    EXPECT_EQ(third, "{\"error\":\"unknown op \\\"Frobnicate\\\"\"}");
}

}  // namespace
}  // namespace quorv
