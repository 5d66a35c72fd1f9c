// Starts the process's host before any test runs, so that the framework slots of the test
// binary are bound (and, in white-box tests, the linked module classes are registered).
#include <gtest/gtest.h>

#include "quorv/host/host.h"

namespace {

class HostEnvironment : public ::testing::Environment {
public:
    void SetUp() override {
        quorv::host::HostOptions options;
        options.echoCriticalOutput = false;
        quorv::host::Host::Start(options);
    }
};

const auto* const g_environment = ::testing::AddGlobalTestEnvironment(new HostEnvironment);

}  // namespace
