#include "test_support.h"

#include <sys/wait.h>

#include <cstdio>

namespace quorv::test {

host::LoadedModule* LoadModuleOnce(const char* path) {
    static host::LoadedModule* module = [path] {
        Result<host::LoadedModule*> r = host::Host::Get().LoadModule(path);
        EXPECT_TRUE(r.IsOk()) << ErrorToString(r.GetErrorPointer());
        return r.IsOk() ? r.GetValue() : nullptr;
    }();
    return module;
}

std::string RunCommand(const std::string& command, int* status) {
    FILE* pipe = popen(command.c_str(), "r");
    if (!pipe) return {};
    std::string out;
    char buffer[4096];
    while (size_t n = fread(buffer, 1, sizeof(buffer), pipe)) out.append(buffer, n);
    int rc = pclose(pipe);
    if (status) *status = WIFEXITED(rc) ? WEXITSTATUS(rc) : -1;
    return out;
}

}  // namespace quorv::test
