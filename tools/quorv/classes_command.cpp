// quorv classes: what the loaded module registered.
#include <cstdio>

#include "commands.h"
#include "jsonio.h"
#include "quorv/host/host.h"

namespace quorv::cli {

namespace {

const char* KindName(DATATYPEKIND k) {
    switch (k) {
        case DATATYPEKIND::INVALID: return "invalid";
        case DATATYPEKIND::VOID: return "void";
        case DATATYPEKIND::PRIMITIVE: return "primitive";
        case DATATYPEKIND::TUPLE: return "tuple";
        case DATATYPEKIND::ENUM: return "enum";
        case DATATYPEKIND::DELEGATE: return "delegate";
        case DATATYPEKIND::GENERIC: return "generic";
        case DATATYPEKIND::DATATYPE: return "datatype";
    }
    return "?";
}

int RunClasses(const GlobalOptions& options, bool json) {
    if (!StartHost(options)) return 1;
    host::Host& h = host::Host::Get();
    Json out{{"modules", Json::array()}, {"registries", Json::array()}, {"datatypes", Json::array()}};
    for (const std::string& id : h.ListModuleIds()) out["modules"].push_back(id);
    for (const auto& r : h.ListRegistries()) out["registries"].push_back({{"id", r.id}, {"classes", r.entries}});
    for (const auto& t : h.ListDataTypes()) {
        out["datatypes"].push_back(
            {{"id", t.id}, {"typeName", t.typeName}, {"size", t.size}, {"kind", KindName(t.kind)}});
    }
    if (json) {
        std::printf("%s\n", out.dump(2).c_str());
        return 0;
    }
    std::printf("Modules:\n");
    for (const auto& m : out["modules"]) std::printf("  %s\n", m.get<std::string>().c_str());
    std::printf("Registries:\n");
    for (const auto& r : h.ListRegistries()) {
        std::printf("  %s\n", r.id.c_str());
        for (const auto& e : r.entries) std::printf("    %s\n", e.c_str());
    }
    std::printf("Data types:\n");
    for (const auto& t : h.ListDataTypes()) {
        std::printf("  %-60s %-36s %4lld %s\n", t.id.empty() ? "(no id)" : t.id.c_str(),
                    t.typeName.c_str(), static_cast<long long>(t.size), KindName(t.kind));
    }
    return 0;
}

}  // namespace

void AddClassesCommand(CLI::App& app, const GlobalOptions& options, std::function<int()>& run) {
    auto* cmd = app.add_subcommand(
        "classes", "List the loaded modules, the registries with their class ids, and the data types");
    static bool json = false;
    cmd->add_flag("--json", json, "Write JSON instead of text");
    cmd->callback([&options, &run] { run = [&options] { return RunClasses(options, json); }; });
}

}  // namespace quorv::cli
