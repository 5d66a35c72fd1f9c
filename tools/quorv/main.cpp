// quorv: the command-line host. Loads the render module and offers one subcommand per
// capability.
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <cstdlib>
#include <filesystem>
#include <iostream>

#include "commands.h"
#include "quorv/host/host.h"

namespace quorv::cli {

namespace {

// The module lies in ../lib beside the bin folder of this program.
std::string DefaultModulePath() {
    std::error_code ec;
    std::filesystem::path self = std::filesystem::read_symlink("/proc/self/exe", ec);
    if (ec) return "libquorv_render.so";
    return (self.parent_path().parent_path() / "lib" / "libquorv_render.so").string();
}

}  // namespace

bool StartHost(const GlobalOptions& options) {
    host::HostOptions hostOptions;
    hostOptions.threadCount = options.threadCount;
    hostOptions.resourceDirectory = options.resourceDirectory;
    hostOptions.configuration = options.configuration;
    hostOptions.language = options.language;
    host::Host& h = host::Host::Start(hostOptions);
    std::string path = options.modulePath;
    if (path.empty()) {
        const char* env = std::getenv("QUORV_MODULE");
        path = env && *env ? env : DefaultModulePath();
    }
    Result<host::LoadedModule*> loaded = h.LoadModule(path);
    if (loaded.IsError()) {
        std::fprintf(stderr, "quorv: %s\n", ErrorToString(loaded.GetErrorPointer()).c_str());
        return false;
    }
    // The assignments were recorded before the module loaded (its initialisation saw them);
    // names no binary knows and bad values are refused now.
    Result<void> checked = h.CheckConfiguration();
    if (checked.IsError()) {
        std::fprintf(stderr, "quorv: %s\n", ErrorToString(checked.GetErrorPointer()).c_str());
        return false;
    }
    return true;
}

}  // namespace quorv::cli

int main(int argc, char** argv) {
    using namespace quorv::cli;
    CLI::App app{
        "quorv: the command-line host of the quorv render module.\n"
        "Loads libquorv_render.so (beside this program in ../lib, or QUORV_MODULE, or --module)\n"
        "and creates its classes by id."};
    app.require_subcommand(1);
    GlobalOptions options;
    app.add_option("--module", options.modulePath, "Path of the render module library");
    app.add_option("--config", options.configuration,
                   "Set a configuration variable, name=value (repeatable)");
    app.add_option("--threads", options.threadCount,
                   "Worker threads of the job system (default: one per core); more than the "
                   "cores is allowed")
        ->check(CLI::Range(quorv::Int{1}, quorv::Int{1024}));
    app.add_option("--resources", options.resourceDirectory,
                   "Folder of the application's resources (default: ../resources beside this "
                   "program)")
        ->check(CLI::ExistingDirectory);
    app.add_option("--language", options.language,
                   "Language of translated texts and text descriptions, e.g. de (default: en); "
                   "a text missing in it is taken from en")
        ->check([](const std::string& v) {
            const bool plain =
                !v.empty() && v.find_first_of("/\\") == std::string::npos && v != "." && v != "..";
            return plain ? std::string() : std::string("a language is a plain name such as en");
        });
    std::function<int()> run;
    AddClassesCommand(app, options, run);
    AddCameraCommand(app, options, run);
    AddIesCommand(app, options, run);
    AddBSDFCommand(app, options, run);
    AddClothCommand(app, options, run);
    AddIdCommand(app, run);
    AddTextureCommand(app, options, run);
    AddUnitTestCommand(app, options, run);
    AddSpeedTestCommand(app, options, run);
    AddIntersectCommand(app, options, run);
    AddAssetCommand(app, options, run);
    AddSceneObjectCommand(app, options, run);
    AddNodesCommand(app, options, run);
    AddPlaceholderCommand(app, options, run);
    AddPreviewCommand(app, options, run);
    AddMediaCommand(app, options, run);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        return app.exit(e);
    }
    int rc = run ? run() : 1;
    // Output that could not be written is a failure, even when it was buffered until the end
    // (e.g. `quorv ies text F > /dev/full`).
    std::cout.flush();
    if (std::fflush(stdout) != 0 || std::ferror(stdout) || !std::cout) {
        if (rc == 0) std::fprintf(stderr, "quorv: cannot write standard output: %s\n", std::strerror(errno));
        rc = rc == 0 ? 1 : rc;
    }
    return rc;
}
