// quorv classes: what the loaded module registered.
#include <cstdio>

#include "commands.h"
#include "jsonio.h"
#include "quorv/host/host.h"

namespace quorv::cli {

namespace {

// The literal id word as 16 hex digits: hash in the low 43 bits, length from bit 44 up.
std::string IdWordText(std::string_view text) {
    char word[24];
    std::snprintf(word, sizeof(word), "0x%016llx",
                  static_cast<unsigned long long>(LiteralIdWord(text)));
    return word;
}

Json IdJson(const std::string& id) {
    return Json{{"id", id}, {"word", IdWordText(id)}, {"length", id.size()}};
}

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

int RunId(const std::vector<std::string>& texts, bool json) {
    Json out = Json::array();
    for (const std::string& t : texts) out.push_back(IdJson(t));
    if (json) return WriteOutputLine(Line(out)) ? 0 : 1;
    for (const std::string& t : texts) {
        std::printf("%s  %6zu  %s\n", IdWordText(t).c_str(), t.size(), t.c_str());
    }
    return 0;
}

int RunClasses(const GlobalOptions& options, bool json) {
    if (!StartHost(options)) return 1;
    host::Host& h = host::Host::Get();
    Json out{{"modules", Json::array()},
             {"registries", Json::array()},
             {"datatypes", Json::array()},
             {"attributes", Json::array()}};
    for (const std::string& id : h.ListModuleIds()) out["modules"].push_back(IdJson(id));
    for (const auto& r : h.ListRegistries()) {
        Json entry = IdJson(r.id);
        entry["classes"] = Json::array();
        for (const auto& e : r.entries) entry["classes"].push_back(IdJson(e));
        out["registries"].push_back(std::move(entry));
    }
    for (const auto& t : h.ListDataTypes()) {
        Json entry = IdJson(t.id);
        entry.update({{"typeName", t.typeName}, {"size", t.size}, {"kind", KindName(t.kind)}});
        out["datatypes"].push_back(std::move(entry));
    }
    for (const auto& a : h.ListAttributes()) {
        Json entry = IdJson(a.id);
        entry["type"] = a.typeId;
        out["attributes"].push_back(std::move(entry));
    }
    if (json) return WriteOutputLine(out.dump(2)) ? 0 : 1;
    std::printf("Modules:\n");
    for (const std::string& id : h.ListModuleIds()) std::printf("  %s\n", id.c_str());
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
    std::printf("Attributes:\n");
    std::printf("  %-60s %s\n", "attribute", "value type");
    for (const auto& a : h.ListAttributes()) {
        std::printf("  %-60s %s\n", a.id.c_str(), a.typeId.c_str());
    }
    return 0;
}

}  // namespace

void AddClassesCommand(CLI::App& app, const GlobalOptions& options, std::function<int()>& run) {
    auto* cmd = app.add_subcommand(
        "classes",
        "List the loaded modules, the registries with their class ids, the data types and the "
        "graph attributes");
    static bool json = false;
    cmd->add_flag("--json", json, "Write JSON instead of text");
    cmd->callback([&options, &run] { run = [&options] { return RunClasses(options, json); }; });
}

void AddIdCommand(CLI::App& app, std::function<int()>& run) {
    auto* cmd = app.add_subcommand(
        "id", "Print the literal id word (hex) and the length of each text; no module is loaded");
    static std::vector<std::string> texts;
    static bool json = false;
    cmd->add_option("TEXT", texts, "Id texts, e.g. net.quorv.render.interface.ies")->required();
    cmd->add_flag("--json", json, "One JSON array of {id, word, length}");
    cmd->footer(
        "The word holds the 43-bit hash h = h*31 + byte in its low bits and the length from\n"
        "bit 44 up; it is what records and registries compare first.");
    cmd->callback([&run] { run = [] { return RunId(texts, json); }; });
}

}  // namespace quorv::cli
