// Configuration assignments given to the host at start reach a binary's configuration table
// before its definitions run: an initialisation that reads a variable sees the assigned value.
// Its own program, since the host starts once per process.
#include <gtest/gtest.h>

#include "quorv/host/host.h"

namespace quorv {
namespace {

Int g_testEarlyNumber = 1;
Bool g_testEarlyFlag = false;
Int g_numberSeenByInit = -1;
Bool g_flagSeenByInit = false;

const bool g_variables = (AddConfigurationVariable("g_testEarlyNumber", &g_testEarlyNumber,
                                                   "a number", CONFIGTYPE::INT, "1"),
                          AddConfigurationVariable("g_testEarlyFlag", &g_testEarlyFlag, "a flag",
                                                   CONFIGTYPE::BOOL, "false"),
                          true);

ModuleUnit g_unit(__FILE__, {});
InitializationRecord g_initialization;

Result<void> Init() {
    g_numberSeenByInit = g_testEarlyNumber;
    g_flagSeenByInit = g_testEarlyFlag;
    return OK;
}

const bool g_registered =
    (DefineInitialization(g_initialization, __FILE__, &Init, nullptr, g_unit), true);

TEST(Configuration, AssignmentsAtStartReachTheDefinitions) {
    EXPECT_EQ(g_numberSeenByInit, 42);
    EXPECT_TRUE(g_flagSeenByInit);
    host::Host& h = host::Host::Get();
    EXPECT_TRUE(h.CheckConfiguration().IsOk());
}

TEST(Configuration, CheckNamesAnUnknownNameOrABadValue) {
    host::Host& h = host::Host::Get();
    // SetConfiguration refuses both at once; a host started with them finds them by the check.
    EXPECT_TRUE(h.SetConfiguration("g_testEarlyNumber=x").IsError());
    EXPECT_TRUE(h.SetConfiguration("g_noSuchVariable=1").IsError());
    EXPECT_EQ(g_testEarlyNumber, 42) << "a refused value changes nothing";
}

}  // namespace
}  // namespace quorv

int main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    quorv::host::HostOptions options;
    options.echoCriticalOutput = false;
    options.configuration = {"g_testEarlyNumber=42", "g_testEarlyFlag=true"};
    quorv::host::StartHost(options);
    return RUN_ALL_TESTS();
}
