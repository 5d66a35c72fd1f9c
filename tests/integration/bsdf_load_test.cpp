// The legacy BSDFs through the real load path of the built library: classes by id, a cache
// passed through a dictionary, the cache block through the module's static interface (bound in
// this binary when the module loads), and the command line.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>
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

// ---- cloth and anisotropic classes through the library -----------------------------------

TEST(BSDFModuleLoad, WeavePatternThroughTheStaticInterfaceFeedsTheClothClass) {
    Module();
    Result<ClothWeavePatternRef> made = ClothWeavePatternRef::Create();
    ASSERT_TRUE(made.IsOk()) << ErrorToString(made.GetErrorPointer());
    ClothWeavePatternImpl* p = made.GetValue().Get();
    ASSERT_TRUE(ClothWeavePatternInterface::SetupPattern(p, 2).IsOk());
    ClothWeavePatternInterface::SetupCloth(p, -1, 0.01, 4.0, 0.0, 0.0, 1.0, 0.0, 0.0, 1.0);
    EXPECT_EQ(ClothWeavePatternInterface::GetSampleCount(p), 1);
    EXPECT_EQ(ClothWeavePatternInterface::GetWarpWeftArea(p), (Vector2d64{1.0, 1.0}));
    // Preset 2 is "3 2 / 1 4", top row first, repeat 80: the bottom left cell holds yarn 1.
    Vector2d64 uv;
    Float64 umax = 0.0, weight = 1.0, state = 1.0;
    const ClothYarn* yarn = ClothWeavePatternInterface::GetYarn(p, 0.25 / 80, 0.25 / 80, &uv, &umax,
                                                                &weight, &state, true, 1.0);
    ASSERT_EQ(yarn, p->yarns[0]);
    EXPECT_EQ(yarn->type, 0u);
    // The yarn's virtual Evaluate runs in the module.
    const Float64 f = yarn->Evaluate({0.3, 0.1, 0.9}, {-0.2, 0.2, 0.95}, uv, {0.01, 4.0},
                                     {1.0, 1.0}, umax, 1.0, 0.0);
    EXPECT_TRUE(std::isfinite(f));
    // The cloth class made by id, one sample: the value is reciprocal bit for bit.
    BSDFLegacyRef cloth = test::MakeInstance<BSDFLegacyInterface>(BSDF_LEGACY_CLASS_REGISTRY_ID,
                                                                  IRAWAN_BRDF_CLASS_ID);
    IrawanInitData data;
    data.warpDiffuse = {0.1, 0.2, 0.3};
    data.warpSpecular = data.weftSpecular = {1.0, 1.0, 1.0};
    data.pattern = made.GetValue();
    ASSERT_TRUE(cloth.Init(DataDictionary(), &data).IsOk());
    const Vector64 wo{0.3, 0.1, 0.9}, wi{-0.2, 0.2, 0.95};
    const Color64 a = cloth.ComputeF_UVW(wo, wi, {0.25 / 80, 0.25 / 80, 0}, {});
    const Color64 b = cloth.ComputeF_UVW(wi, wo, {0.25 / 80, 0.25 / 80, 0}, {});
    EXPECT_EQ(a, b);
    EXPECT_GE(a.r, 0.1);
    // The anisotropic pair's Update through the interface.
    BSDFLegacyRef aniso = Make(ANISOTROPIC_BRDF_CLASS_ID, 0.5, nullptr);
    Result<void> r = aniso.Update(nullptr, BSDF_UPDATE_SCRATCH);
    ASSERT_TRUE(r.IsError());
    EXPECT_STREQ(r.GetErrorPointer()->message,
                 "Illegal argument: Illegal state in AnisotropicBxDF::Update. data is nullptr");
    AnisotropicScratchData scratch;
    scratch.pattern = 3;
    EXPECT_TRUE(aniso.Update(&scratch, BSDF_UPDATE_SCRATCH).IsOk());
    const BSDFFrame frame =
        aniso.ComputeBSDFFrame({0, 0, 1}, {1, 0, 0}, {0, 1, 0}, {0.9, 0.5, 0}, false, false, true);
    EXPECT_NEAR(frame.u.y, -1.0, 1e-15);  // fx 0.9 is not below 1 - fy: pi / 2
}

TEST(BSDFModuleLoad, CommandLineClothAndScratch) {
    const std::string cli = std::string(QUORV_CLI_PATH) + " --module " + QUORV_MODULE_PATH;
    // The preset table as JSON.
    const nlohmann::json list = nlohmann::json::parse(test::RunCommand(cli + " cloth list --json"));
    ASSERT_EQ(list["presets"].size(), 6u);
    EXPECT_EQ(list["presets"][2]["table"], nlohmann::json::parse("[[3,2],[1,4]]"));
    EXPECT_EQ(list["presets"][4]["yarns"].size(), 5u);
    EXPECT_EQ(list["presets"][3]["specularRatio"], 30.0);
    // GetYarn and getters line by line; a gap answers null.
    const std::string lines =
        "printf '%s\\n' '{\"op\":\"GetYarn\",\"u\":0.003125,\"v\":0.003125}' "
        "'{\"op\":\"GetSampleCount\"}' '{\"op\":\"SetupPattern\",\"preset\":6}' "
        "'{\"op\":\"GetYarn\",\"u\":0.003125,\"v\":0.003125}' '{\"op\":\"GetYarn\"}' | ";
    std::istringstream eval(test::RunCommand(lines + cli + " cloth eval --preset 2 --quality 0"));
    std::string line;
    std::getline(eval, line);
    nlohmann::json first = nlohmann::json::parse(line);
    EXPECT_EQ(first["yarn"], 1) << line;
    EXPECT_EQ(first["type"], 0) << line;
    std::getline(eval, line);
    EXPECT_EQ(line, "{\"sampleCount\":4}");
    std::getline(eval, line);
    EXPECT_EQ(line, "{\"ok\":true}");
    std::getline(eval, line);
    EXPECT_EQ(nlohmann::json::parse(line)["yarn"], nullptr) << line;
    std::getline(eval, line);
    EXPECT_EQ(line, "{\"error\":\"\\\"u\\\" is missing\"}");
    // The cloth class through bsdf eval: Init with a record, then a value; a null record is
    // the class's own error.
    const std::string clothLines =
        "printf '%s\\n' '{\"op\":\"Init\",\"cloth\":{\"preset\":2,\"warpDiffuse\":[0.5,0.5,0.5],"
        "\"warpSpecular\":[0,0,0],\"weftDiffuse\":[0.5,0.5,0.5],\"weftSpecular\":[0,0,0]}}' "
        "'{\"op\":\"ComputeF_UVW\",\"wo\":[0,0,1],\"wi\":[0,0.6,0.8],\"uvw\":[0.001,0.002,0]}' "
        "'{\"op\":\"Init\"}' | ";
    std::istringstream cloth(
        test::RunCommand(clothLines + cli + " bsdf eval --class " + IRAWAN_BRDF_CLASS_ID));
    std::getline(cloth, line);
    EXPECT_EQ(line, "{\"ok\":true}");
    std::getline(cloth, line);
    EXPECT_EQ(line, "{\"value\":[0.5,0.5,0.5]}");
    std::getline(cloth, line);
    EXPECT_NE(line.find("IrawanBSDF::Init. data is nullptr"), std::string::npos) << line;
    // Pictures: a yarn map, a swatch, the preview and a scratch frame, each written whole.
    char folder[] = "/tmp/quorv-cloth-XXXXXX";
    ASSERT_NE(mkdtemp(folder), nullptr);
    const std::string dir = folder;
    int status = -1;
    test::RunCommand(cli + " cloth layout --preset 0 --tiles 1 -o " + dir + "/layout.png", &status);
    EXPECT_EQ(status, 0);
    test::RunCommand(cli + " cloth swatch --preset 1 --size 32 -o " + dir + "/swatch.exr", &status);
    EXPECT_EQ(status, 0);
    test::RunCommand(cli + " cloth swatch --preset 1 --size 32 --preview -o " + dir + "/p.png",
                     &status);
    EXPECT_EQ(status, 0);
    test::RunCommand(cli +
                         " bsdf scratch --size 32 --scratch '{\"pattern\":2,\"channels\":3,"
                         "\"amplitudeU\":0.2}' -o " +
                         dir + "/scratch.png",
                     &status);
    EXPECT_EQ(status, 0);
    for (const char* f : {"/layout.png", "/swatch.exr", "/p.png", "/scratch.png"}) {
        EXPECT_GT(std::filesystem::file_size(dir + f), 100u) << f;
    }
    // A bad preset and a bad scratch record are refused before anything is written.
    test::RunCommand(cli + " cloth layout --preset 6 -o " + dir + "/bad.png 2>/dev/null", &status);
    EXPECT_NE(status, 0);
    test::RunCommand(
        cli + " bsdf scratch --scratch '{\"bogus\":1}' -o " + dir + "/bad.png 2>/dev/null",
        &status);
    EXPECT_NE(status, 0);
    EXPECT_FALSE(std::filesystem::exists(dir + "/bad.png"));
    std::filesystem::remove_all(dir);
}

}  // namespace
}  // namespace quorv
