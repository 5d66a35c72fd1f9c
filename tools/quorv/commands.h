#pragma once
// Subcommands of the quorv command line.

#include <CLI/CLI.hpp>
#include <functional>
#include <string>
#include <vector>

#include "quorv/base.h"

namespace quorv::cli {

/// Options every subcommand shares, filled before a subcommand runs.
struct GlobalOptions {
    std::string modulePath;
    std::vector<std::string> configuration;
    /// Width of the job system; 0 is the machine's.
    Int threadCount = 0;
    /// Resource folder; empty is ../resources beside this program.
    std::string resourceDirectory;
    /// Language of translated texts and text descriptions.
    std::string language = "en";
};

/// Loads the module and applies the configuration; prints the error and returns false on
/// failure.
bool StartHost(const GlobalOptions& options);

/// Adds a subcommand; `run` is set to the function the subcommand runs (its exit code).
void AddClassesCommand(CLI::App& app, const GlobalOptions& options, std::function<int()>& run);
void AddCameraCommand(CLI::App& app, const GlobalOptions& options, std::function<int()>& run);
void AddIesCommand(CLI::App& app, const GlobalOptions& options, std::function<int()>& run);
void AddBSDFCommand(CLI::App& app, const GlobalOptions& options, std::function<int()>& run);
void AddClothCommand(CLI::App& app, const GlobalOptions& options, std::function<int()>& run);
void AddIdCommand(CLI::App& app, std::function<int()>& run);
void AddTextureCommand(CLI::App& app, const GlobalOptions& options, std::function<int()>& run);
void AddUnitTestCommand(CLI::App& app, const GlobalOptions& options, std::function<int()>& run);
void AddSpeedTestCommand(CLI::App& app, const GlobalOptions& options, std::function<int()>& run);
void AddIntersectCommand(CLI::App& app, const GlobalOptions& options, std::function<int()>& run);
void AddAssetCommand(CLI::App& app, const GlobalOptions& options, std::function<int()>& run);
void AddSceneObjectCommand(CLI::App& app, const GlobalOptions& options, std::function<int()>& run);
void AddPlaceholderCommand(CLI::App& app, const GlobalOptions& options, std::function<int()>& run);
void AddPreviewCommand(CLI::App& app, const GlobalOptions& options, std::function<int()>& run);
void AddNodesCommand(CLI::App& app, const GlobalOptions& options, std::function<int()>& run);
void AddMediaCommand(CLI::App& app, const GlobalOptions& options, std::function<int()>& run);

}  // namespace quorv::cli
