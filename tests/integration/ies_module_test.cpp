// Photometric webs through the built library and through the command line: the module's
// implementation of "net.quorv.render.interface.ies" reaches this binary's table at load.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cmath>
#include <cstdio>
#include <memory>
#include <string>

#include "common/test_support.h"
#include "quorv/host/host.h"
#include "render/photometric/ies.h"

namespace quorv {

QUORV_DEFINE_NONVIRTUAL_INTERFACE(IesInterface)

namespace {

const std::string EXAMPLE = std::string(QUORV_SOURCE_DIR) + "/data/ies/example_spot.ies";

TEST(IesModule, SlotsBoundAtLoadAndWebRead) {
    // Before the load the table answers with stubs: null objects, unresolved errors.
    EXPECT_EQ(IesInterface::Alloc(QUORV_SOURCE_LOCATION), nullptr);
    ASSERT_NE(test::LoadModuleOnce(QUORV_MODULE_PATH), nullptr);
    Result<Url> url = Url::FromText(EXAMPLE);
    ASSERT_TRUE(url.IsOk());
    Result<IesRef> ies = IesRef::Load(url.GetValue());
    ASSERT_TRUE(ies.IsOk()) << ErrorToString(ies.GetErrorPointer());
    IesImpl* p = ies.GetValue().Get();
    EXPECT_EQ(p->_anglesVertical.GetCount(), 37);
    EXPECT_EQ(p->_anglesHorizontal.GetCount(), 5);
    const DataDictionary* props = IesInterface::GetProperties(p);
    EXPECT_EQ(props->Get<IESVERSION>(IesPropertyVersion, IESVERSION::V1986), IESVERSION::V2002);
    EXPECT_EQ(props->Get<std::string>(IesPropertyLamp, ""), "LED module 2000 lm");
    EXPECT_EQ(props->Get<AREALIGHTSHAPE>(IesPropertyShape, AREALIGHTSHAPE::NONE),
              AREALIGHTSHAPE::DISC);

    // Straight down the axis is the web's first value, a hair off the pole.
    const Float64 axis = IesInterface::ComputeLightIntensity(p, {0, 0, -1});
    EXPECT_GT(axis, 0.99);
    EXPECT_LE(axis, 1.0);
    EXPECT_EQ(IesInterface::ComputeLightIntensity(p, {0, 0, 1}), 0.0);

    // A copy holds the same web; identity tells the two apart, the checksum does not.
    IesImpl* copy = IesInterface::AllocCopy(p, QUORV_SOURCE_LOCATION);
    ASSERT_NE(copy, nullptr);
    EXPECT_EQ(IesInterface::GetChecksum(copy), IesInterface::GetChecksum(p));
    EXPECT_NE(IesInterface::Compare(copy, p), 0);
    EXPECT_EQ(IesInterface::ComputeLightIntensity(copy, {0.3, 0.4, -0.866}),
              IesInterface::ComputeLightIntensity(p, {0.3, 0.4, -0.866}));
    IesInterface::Free(copy);

    GreyImage32 wrong{8, 4, 8, nullptr};
    Result<void> r = IesInterface::GeneratePreviewImageRows(p, wrong.width, wrong.height,
                                                            ArraySetLine(&wrong), nullptr);
    ASSERT_TRUE(r.IsError());
    EXPECT_STREQ(r.GetErrorPointer()->message, "Width and height of image must match.");
}

TEST(IesModule, CommandLine) {
    const std::string cli = QUORV_CLI_PATH;
    int status = -1;
    std::string info = test::RunCommand(cli + " ies info --json " + EXAMPLE, &status);
    EXPECT_EQ(status, 0);
    EXPECT_NE(info.find("\"nV\":37"), std::string::npos) << info;
    EXPECT_NE(info.find("\"version\":\"V2002\""), std::string::npos) << info;

    // The reader's text stays exact behind the file's name.
    const std::string tooMany =
        std::string(QUORV_SOURCE_DIR) + "/tests/data/ies/too_many_angles.ies";
    std::string bad = test::RunCommand(cli + " ies info " + tooMany + " 2>&1", &status);
    EXPECT_EQ(status, 1);
    EXPECT_EQ(bad, "quorv: " + tooMany + ": IES: Incorrect number or angles\n");

    std::string values =
        test::RunCommand("printf '[0,0,1]\\n[0,0,-1]\\n' | " + cli + " ies intensity " + EXAMPLE);
    Result<Url> url = Url::FromText(EXAMPLE);
    ASSERT_NE(test::LoadModuleOnce(QUORV_MODULE_PATH), nullptr);
    IesRef ies = IesRef::Load(url.GetValue()).GetValue();
    EXPECT_EQ(values.substr(0, 4), "0.0\n");
    EXPECT_EQ(std::stod(values.substr(4)),
              IesInterface::ComputeLightIntensity(ies.Get(), {0, 0, -1}))
        << "the number reads back to the same bits";

    // The writer's text, as a file holds it.
    std::string text = test::RunCommand(cli + " ies text " + EXAMPLE, &status);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(text.rfind("IESNA:LM-63-2002\n[MANUFAC]quorv example\n", 0), 0u) << text;
}

}  // namespace
}  // namespace quorv
