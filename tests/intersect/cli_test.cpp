// The intersect and asset subcommands of the built command line.
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "common/test_support.h"

namespace quorv {
namespace {

TEST(IntersectCli, ClassesNameTheDefaultAndWhy) {
    int status = -1;
    const std::string out = test::RunCommand(
        std::string(QUORV_CLI_PATH) + " --module " + QUORV_MODULE_PATH +
            " --config g_polygonIntersection=net.quorv.render.intersectionclass.ymb intersect"
            " --intersect-module " +
            QUORV_INTERSECT_MODULE_PATH + " classes --json",
        &status);
    EXPECT_EQ(status, 0);
    EXPECT_NE(out.find("\"default\":\"net.quorv.render.intersectionclass.ymb\""), std::string::npos)
        << out;
    EXPECT_NE(out.find("named by g_polygonIntersection"), std::string::npos) << out;
}

TEST(IntersectCli, RaysAnswerEachLineAndRefuseBadOnes) {
    int status = -1;
    const std::string out = test::RunCommand(
        "printf '{\"origin\":[0.5,0.25,-5],\"direction\":[0,0,1]}\\n{\"origin\":[0,0,-5],"
        "\"direction\":[0,0,1],\"op\":\"shadow\",\"max\":3.999}\\nnot json\\n' | " +
            std::string(QUORV_CLI_PATH) + " --module " + QUORV_MODULE_PATH +
            " intersect --intersect-module " + QUORV_INTERSECT_MODULE_PATH +
            " rays --box --class net.quorv.render.intersectionclass.ymb",
        &status);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(
        out,
        // The face z = -1 is the quad (0, 2, 3, 1); (0.5, 0.25) lies in its second triangle
        // (0, 3, 1): 0.5 = -1 + 2u + 2v, 0.25 = -1 + 2u.
        "{\"half\":1,\"hit\":true,\"normal\":[0.0,0.0,-1.0],\"object\":0,\"polygon\":0,\"t\":4.0,"
        "\"uv\":[0.625,0.125]}\n{\"blocked\":false}\n{\"error\":\"line is not JSON: not json\"}\n")
        << out;
}

TEST(IntersectCli, RenderWritesTheDepthPictureAndASummary) {
    const std::string dir =
        (std::filesystem::temp_directory_path() / ("quorv_isect_" + std::to_string(::getpid())))
            .string();
    std::filesystem::create_directories(dir);
    int status = -1;
    const std::string out = test::RunCommand(
        std::string(QUORV_CLI_PATH) + " --module " + QUORV_MODULE_PATH +
            " intersect --intersect-module " + QUORV_INTERSECT_MODULE_PATH +
            " render --sphere 8 --size 32x24 -o " + dir + "/d.exr --normals " + dir + "/n.png",
        &status);
    EXPECT_EQ(status, 0) << out;
    EXPECT_NE(out.find("\"polygons\":224"), std::string::npos) << out;
    EXPECT_TRUE(std::filesystem::file_size(dir + "/d.exr") > 0);
    EXPECT_TRUE(std::filesystem::file_size(dir + "/n.png") > 0);
    // A mesh file that isn't there is named with the reason.
    const std::string missing = test::RunCommand(
        std::string(QUORV_CLI_PATH) + " --module " + QUORV_MODULE_PATH +
            " intersect render --mesh " + dir + "/none.obj -o " + dir + "/x.exr 2>&1",
        &status);
    EXPECT_EQ(status, 1);
    EXPECT_NE(missing.find("none.obj"), std::string::npos) << missing;
    std::filesystem::remove_all(dir);
}

TEST(AssetCli, TranslatesRelativeUrls) {
    const std::filesystem::path dir =
        std::filesystem::temp_directory_path() / ("quorv_asset_" + std::to_string(::getpid()));
    std::filesystem::create_directories(dir / "tex");
    std::ofstream(dir / "tex" / "w.png") << "x";
    int status = -1;
    const std::string out = test::RunCommand(
        "printf "
        "'{\"url\":\"relative:///w.png\",\"type\":\"TEXTURE\"}\\n{\"url\":\"relative:///"
        "w.png\"}\\n' | " +
            std::string(QUORV_CLI_PATH) + " --module " + QUORV_MODULE_PATH +
            " asset translate --base " + dir.string(),
        &status);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(out, "{\"url\":\"" + (dir / "tex" / "w.png").string() +
                       "\"}\n{\"error\":\"Asset not found.\"}\n");
    std::filesystem::remove_all(dir);
}

}  // namespace
}  // namespace quorv

namespace quorv {
namespace {

TEST(SceneObjectCli, StampFollowsOnlySuccessfulSets) {
    int status = -1;
    const std::string out = test::RunCommand(
        "printf '%s\\n' "
        "'{\"op\":\"create\",\"class\":\"net.quorv.render.sceneobject.physicalsky\"}' "
        "'{\"op\":\"set\",\"object\":0,\"key\":\"net.quorv.test.k\",\"value\":1.5}' "
        "'{\"op\":\"set\",\"object\":0,\"key\":\"net.quorv.test.k\",\"value\":\"x\",\"type\":"
        "\"int64\"}' "
        "'{\"op\":\"erase\",\"object\":0,\"key\":\"net.quorv.test.k\"}' "
        "'{\"op\":\"stamp\",\"object\":0}' | " +
            std::string(QUORV_CLI_PATH) + " --module " + QUORV_MODULE_PATH + " sceneobject",
        &status);
    EXPECT_EQ(status, 0);
    const std::vector<std::string> expected = {
        "{\"class\":\"net.quorv.render.sceneobject.physicalsky\",\"object\":0,\"stamp\":0}",
        "{\"ok\":true,\"stamp\":1}", "", "{\"erased\":true,\"stamp\":1}", "{\"stamp\":1}"};
    std::vector<std::string> lines;
    size_t start = 0;
    for (size_t nl; (nl = out.find('\n', start)) != std::string::npos; start = nl + 1)
        lines.push_back(out.substr(start, nl - start));
    ASSERT_EQ(lines.size(), expected.size()) << out;
    for (size_t i = 0; i < lines.size(); ++i) {
        if (expected[i].empty())
            EXPECT_EQ(lines[i].rfind("{\"error\":", 0), 0u) << lines[i];
        else
            EXPECT_EQ(lines[i], expected[i]);
    }
}

}  // namespace
}  // namespace quorv
