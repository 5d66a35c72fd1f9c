// The built library through the real load path: dlopen, binding, definitions, creation by id.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <set>
#include <sstream>
#include <string>

#include "common/test_support.h"
#include "quorv/host/host.h"
#include "render/cameras/camera.h"

namespace quorv {
namespace {

constexpr const char* CAMERAS = "net.quorv.render.registry.cameraclasses";

host::LoadedModule* Module() { return test::LoadModuleOnce(QUORV_MODULE_PATH); }

CameraRef MakeCamera(const char* id) {
    Module();
    return test::MakeInstance<CameraInterface>(CAMERAS, id);
}

DataDictionary Parameters(Vector2d64 resolution) {
    DataDictionary d = DataDictionary::Create().GetValue();
    Data value = Data::Of(resolution);
    EXPECT_TRUE(d.SetData(LiteralId("net.quorv.render.camera.cameraparameters.screenresolution"), value).IsOk());
    return d;
}

TEST(ModuleLoad, RecordsAreFoundById) {
    host::LoadedModule* m = Module();
    ASSERT_NE(m, nullptr);
    EXPECT_EQ(m->info->version0, 2023904);
    auto ids = host::Host::Get().ListModuleIds();
    EXPECT_NE(std::find(ids.begin(), ids.end(), "net.quorv.render"), ids.end());
    EXPECT_NE(std::find(ids.begin(), ids.end(), "net.quorv.misc.framework"), ids.end());
    std::set<std::string> classes;
    for (const auto& r : host::Host::Get().ListRegistries()) {
        if (r.id == CAMERAS) classes.insert(r.entries.begin(), r.entries.end());
    }
    EXPECT_EQ(classes, (std::set<std::string>{"net.quorv.render.cameraclass.parallel",
                                              "net.quorv.render.cameraclass.perspective"}));
    bool database = false;
    for (const auto& [id, url] : host::Host::Get().ListDescriptionDatabases()) database |= id == "net.quorv.render.module";
    EXPECT_TRUE(database);
}

TEST(ModuleLoad, BothCamerasGiveRaysThroughTheLoadedLibrary) {
    CameraRef parallel = MakeCamera("net.quorv.render.cameraclass.parallel");
    CameraRef perspective = MakeCamera("net.quorv.render.cameraclass.perspective");
    ASSERT_TRUE(parallel.Init(Parameters({640, 480}), 0).IsOk());
    ASSERT_TRUE(perspective.Init(Parameters({640, 480}), 0).IsOk());

    Ray ray;
    perspective.CreateScreenRay({320, 240}, ray);
    EXPECT_EQ(ray.origin, (Vector64{0, 0, 0}));
    EXPECT_EQ(ray.direction, (Vector64{0, 0, 1}));
    perspective.CreateScreenRay({640, 240}, ray);
    // a = 320 * (1/640) * 0.5 = 0.25; the direction is (0.25, 0, 1) normalised.
    Float64 l = std::sqrt(0.25 * 0.25 + 1.0);
    EXPECT_DOUBLE_EQ(ray.direction.x, 0.25 * (1.0 / l));
    EXPECT_DOUBLE_EQ(ray.direction.z, 1.0 * (1.0 / l));
    EXPECT_EQ(perspective.GetFeatures(), CAMERAFEATUREFLAGS::STRAIGHT_LINES);

    parallel.CreateScreenRay({0, 0}, ray);
    // u = -320/640 = -0.5, v = -240/-640 = 0.375: screen y runs against camera y.
    EXPECT_EQ(ray.origin, (Vector64{-0.5, 0.375, 0}));
    EXPECT_EQ(ray.direction, (Vector64{0, 0, 1}));
}

TEST(ModuleLoad, ExportsExactlyTheTwoRecordsAndNeedsOnlyRuntimes) {
    std::string syms = test::RunCommand(std::string("readelf --dyn-syms -W ") + QUORV_MODULE_PATH);
    ASSERT_FALSE(syms.empty());
    std::set<std::string> defined;
    std::istringstream lines(syms);
    std::string line;
    while (std::getline(lines, line)) {
        std::istringstream f(line);
        std::string num, value, size, type, bind, vis, ndx, name;
        if (!(f >> num >> value >> size >> type >> bind >> vis >> ndx >> name)) continue;
        if (ndx == "UND" || ndx == "Ndx" || bind == "LOCAL") continue;
        defined.insert(name);
    }
    EXPECT_EQ(defined, (std::set<std::string>{"g_quorv", "g_CpuYieldDelegate"}));

    std::string dyn = test::RunCommand(std::string("readelf -d -W ") + QUORV_MODULE_PATH);
    std::set<std::string> allowed{"libc.so.6", "libm.so.6", "libstdc++.so.6", "libgcc_s.so.1"};
    std::istringstream dl(dyn);
    int needed = 0;
    while (std::getline(dl, line)) {
        auto open = line.find("Shared library: [");
        if (open == std::string::npos) continue;
        std::string lib = line.substr(open + 17, line.find(']', open) - open - 17);
        ++needed;
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
        if (lib.rfind("libasan", 0) == 0 || lib.rfind("libubsan", 0) == 0 || lib.rfind("libtsan", 0) == 0) continue;
#endif
        EXPECT_TRUE(allowed.count(lib)) << "needs " << lib;
    }
    EXPECT_GT(needed, 0);
}

TEST(CommandLine, CameraLinesRoundTripExactly) {
    std::string cmd = std::string("printf '%s\\n' '{\"op\":\"CreateScreenRay\",\"screen\":[0.1,0.2]}' "
                                  "'not json' '{\"op\":\"GetFeatures\"}' | ") +
                      QUORV_CLI_PATH + " --module " + QUORV_MODULE_PATH +
                      " camera --class net.quorv.render.cameraclass.perspective"
                      " --param net.quorv.render.camera.cameraparameters.screenresolution=[640,480]";
    std::string out = test::RunCommand(cmd);
    std::istringstream lines(out);
    std::string first, second, third;
    std::getline(lines, first);
    std::getline(lines, second);
    std::getline(lines, third);
    EXPECT_NE(first.find("\"direction\":["), std::string::npos) << out;
    EXPECT_EQ(second, "{\"error\":\"line is not JSON: not json\"}");
    EXPECT_EQ(third, "{\"features\":2}");
}

}  // namespace
}  // namespace quorv
