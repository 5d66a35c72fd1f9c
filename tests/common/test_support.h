#pragma once
// Helpers the test binaries share: the built library loaded once per process, instances of
// classes by id, and running the command line.

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "quorv/host/host.h"

/// Skips the running test, with the reason, when the shared folder of real-world files (which
/// nobody here wrote and a plain clone lacks) is absent.
#define QUORV_SKIP_WITHOUT_SHARED_TESTDATA()                                                   \
    if (!std::filesystem::is_directory(QUORV_SHARED_TESTDATA_DIR))                            \
    GTEST_SKIP() << "the real-world files of " << QUORV_SHARED_TESTDATA_DIR                    \
                 << " are absent (a clone without the shared folder beside it)"

namespace quorv::test {

/// Loads the library at `path` once per process (later calls return the same module); a
/// failure is a test failure and gives null.
host::LoadedModule* LoadModuleOnce(const char* path);

/// An instance of class `id` in `registry`, seen through interface I; failures are test
/// failures and give an empty handle.
template <typename I>
typename I::Ref MakeInstance(const char* registry, const char* id) {
    Result<ObjectRef> o = CreateObjectById(LiteralId(registry), LiteralId(id));
    EXPECT_TRUE(o.IsOk()) << ErrorToString(o.GetErrorPointer());
    if (o.IsError()) return {};
    Result<typename I::Ref> r = I::Ref::Cast(o.GetValue());
    EXPECT_TRUE(r.IsOk()) << ErrorToString(r.GetErrorPointer());
    return r.GetValue();
}

/// Runs a shell command and gives its standard output; `status` receives the exit code.
std::string RunCommand(const std::string& command, int* status = nullptr);

}  // namespace quorv::test
